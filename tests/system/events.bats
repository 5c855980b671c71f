#!/usr/bin/env bats
# SPDX-License-Identifier: Apache-2.0

# The stream of events, and the lists of moves and flaps, with curl on a generated fabric whose addresses come, move and
# age all the time. L2FIBD is the path of the daemon.

D=/restconf/data/l2fib-mac:

bats_require_minimum_version 1.5.0
load daemon

setup()
{
    export L2FIBD=${L2FIBD:-$BATS_TEST_DIRNAME/../../build/test/bin/l2fibd}
    make_directory
}

teardown()
{
    end_started
}

# start CHURN [OPTION...]: starts the daemon on 2 bridges with CHURN changes a second.
start()
{
    start_daemon "$SOCKET" --group lab --generate "bridges=2,ports=4,macs=${MACS:-2000},vteps=4,churn=$1/s" "${@:2}"
    daemon=$!
    started+=("$daemon")
}

# get URI [CURL_OPTION...]: prints the body of the answer.
get()
{
    curl --silent --max-time 60 --unix-socket "$SOCKET" "http://l2fibd$1" "${@:2}"
}

# watch SECONDS [PARAMETERS] [CURL_OPTION...]: prints the stream of events for this time.
watch()
{
    get "/events${2:+?$2}" --no-buffer --max-time "$1" "${@:3}" || (($? == 28))
}

# watch_here FILE [PARAMETERS] [CURL_OPTION...]: writes the stream into a file in the background. Returns when it has
# begun. $! is curl.
watch_here()
{
    get "/events${2:+?$2}" --no-buffer --output "$1" "${@:3}" 3>&- &
    started+=($!)
    local tries
    for tries in {1..500}; do
        [[ ! -s $1 ]] || return 0
        sleep 0.02
    done
    echo "no event after $tries times"
    return 1
}

# newest: prints the id of the newest event.
newest()
{
    get /events --no-buffer | sed --quiet '/^id: /{s///p;q}'
}

# data FILE: prints the data of each event, one JSON object on each line.
data()
{
    sed --quiet 's/^data: //p' "$1"
}

# whole_stream FILE: requires that the numbers of the ids have no gap, except where "missed" counts it. Prints the
# number of events and the number of missed ones.
whole_stream()
{
    awk '
        function fail(text) { print FILENAME ":" NR ": " text ": " $0; failed = 1; exit 1 }
        /^event: / { event = $2 }
        /^id: / { split($2, id, "-"); number = id[2] }
        /^data: .*}$/ {
            count = 1
            if (event == "begin") { if (begun++) fail("begin again"); last = number; next }
            if (event == "missed") {
                if (!match($0, /"count":"[0-9]+"/)) fail("no count")
                count = substr($0, RSTART + 9, RLENGTH - 10)
                missed += count
            } else { events++ }
            if (number != last + count) fail("gap behind " last)
            last = number
        }
        END { if (!failed) print events + 0, missed + 0; if (!begun) exit 1 }' "$1"
}

# list FILE: writes all entries of the table.
list()
{
    get "${D}mac-table/mac-entry" --output "$1"
}

readonly entry_state='[.port, .vtep, .vlan, .vni, .origin, (.flags - ["timestamped"])]'
readonly entry_name='"\(.domain) \(."mac-address")"'

@test "all events applied to a list give the list at the end" {
    start 500
    local -r at=$BATS_TEST_TMPDIR
    watch_here "$at/stream"
    list "$at/before"
    sleep 2
    local -r from=$(newest)
    list "$at/after"
    local -r to=$(newest)
    sleep 0.5
    grep --quiet "^id: $to\$" "$at/stream"
    local -r counts=$(whole_stream "$at/stream")
    ((${counts% *} > 500)) && [[ ${counts#* } == 0 ]]
    # An event between the two ids may or may not be in the last list, so that list may have either state.
    data "$at/stream" | jq --slurp --exit-status --arg from "${from#*-}" --arg to "${to#*-}" \
        --slurpfile before "$at/before" --slurpfile after "$at/after" "
        def number: .id | split(\"-\")[1] | tonumber;
        def apply: if .event == \"aged\" or .event == \"removed\" then null else $entry_state end;
        def states: .[0].\"l2fib-mac:mac-entry\" | map({key: $entry_name, value: $entry_state}) | from_entries;
        map(select(.event != \"begin\" and number <= (\$to | tonumber))) as \$events
        | (reduce (\$events[] | select(number <= (\$from | tonumber))) as \$event
            (\$before | states; .[\$event | $entry_name] = (\$event | apply))) as \$expected
        | (\$events | map(select(number > (\$from | tonumber))) | group_by($entry_name)
            | map({key: (.[0] | $entry_name), value: map(apply)}) | from_entries) as \$late
        | (\$after | states) as \$shown
        | [(\$expected + \$shown | keys[]) as \$key
            | select(any(\$expected[\$key], \$late[\$key][]?; . == \$shown[\$key]) | not)
            | {key: \$key, expected: \$expected[\$key], shown: \$shown[\$key]}]
        | if . == [] then true else error(tostring) end"
    data "$at/stream" | jq --slurp --exit-status 'map(.event) | contains(["learned", "moved"])'
    data "$at/stream" | jq --slurp --exit-status 'map(select(.event == "moved"))
        | all(.[]; .port != ."from-port" or .vtep != ."from-vtep")'
}

@test "a stream continues behind an id without a gap, and says what it cannot continue" {
    start 2000 --events 1000
    local -r at=$BATS_TEST_TMPDIR
    watch 0.4 >"$at/first"
    local ids
    mapfile -t ids < <(sed --quiet 's/^id: //p' "$at/first")
    local -r middle=${ids[${#ids[@]} / 2]}
    watch 0.3 '' --header "Last-Event-ID: $middle" >"$at/second"
    whole_stream "$at/second"
    [[ $(sed --quiet '/^id: /{s///p;q}' "$at/second") == "$middle" ]]
    # What both streams have is the same.
    data "$at/first" | grep --fixed-strings --line-regexp --file - <(data "$at/second") >"$at/both"
    (($(wc --lines <"$at/both") >= ${#ids[@]} / 2 - 1))

    sleep 0.8 # more than 1000 events
    watch 0.3 '' --header "Last-Event-ID: ${ids[0]}" >"$at/late"
    local counts
    counts=$(whole_stream "$at/late")
    ((${counts#* } > 0))
    data "$at/late" | sed --quiet 2p | jq --exit-status '.event == "missed" and .reason == "this reader was too slow"'
    watch 0.3 '' --header 'Last-Event-ID: 1732380000-17' >"$at/other"
    data "$at/other" | sed --quiet 2p |
        jq --exit-status '.event == "missed" and .reason == "the daemon was restarted" and (has("count") | not)'
}

@test "a reader that stops for a while learns how many events it missed" {
    MACS=50000 start 5000 --events 500
    watch 5 | { sleep 3 && cat; } >"$BATS_TEST_TMPDIR/stream"
    local -r counts=$(whole_stream "$BATS_TEST_TMPDIR/stream")
    echo "$counts"
    ((${counts% *} > 1000 && ${counts#* } > 1000))
}

@test "wrong requests for events are refused with what was expected" {
    start 10
    local code expected options
    while IFS='|' read -r code options expected; do
        read -ra arguments <<<"$options"
        run --separate-stderr get "/events${arguments[0]#-}" --write-out '%{http_code}' "${arguments[@]:1}"
        [[ $output == *"$expected"*"$code" ]] || { echo "$options: $output" && return 1; }
    done <<END
400|?colour=red|parameter \"colour\": expected one of
400|?limit=5|parameter \"limit\": expected one of
400|?older-than=5m|older-than
400|?mac-prefix=xyz|mac-prefix
404|?port=eth9|port \"eth9\": there is no such bridge port
404|?domain=eth9|domain \"eth9\"
400|?type=dynamic|type \"dynamic\"
404|/x|there is no such resource
405|- --request POST|method POST: expected GET, HEAD
400|- --header Last-Event-ID:7|Last-Event-ID \"7\": expected the id of an event
400|- --header Last-Event-ID:7-|expected the id of an event
400|- --header Last-Event-ID:x-7|expected the id of an event
400|- --header Last-Event-ID:7-18446744073709551616|expected the id of an event
END
    local -r id=$(newest)
    run get /events --header "Last-Event-ID: ${id%-*}-999999999"
    [[ $output == *"expected an id of an event that has happened"* ]]
    get /events --head | grep --ignore-case '^content-type: text/event-stream'
}

# watch_unread COUNT [COMMAND...]: opens streams that nobody reads. COMMAND makes them those of another user.
watch_unread()
{
    "${@:2}" perl -MIO::Socket::UNIX -e '
        for (1 .. $ARGV[1]) {
            my $c = IO::Socket::UNIX->new(Peer => $ARGV[0]) or die;
            print $c "GET /events HTTP/1.1\r\nHost: l2fibd\r\n\r\n";
            $c->flush; push @c, $c;
        }
        sleep 60' "$SOCKET" "$1" 3>&- &
    started+=($!)
}

# events: prints how many events there were since the start.
events()
{
    get "${D}health" | jq --raw-output '."l2fib-mac:health".history.events'
}

# until_events COUNT: waits until there were this many events since the start.
until_events()
{
    local tries
    for tries in {1..200}; do
        (($(events) < $1)) || return 0
        sleep 0.2
    done
    echo "less than $1 events after $tries times"
    return 1
}

@test "50 streams, of which half are not read, hold no memory while a million events pass" {
    local rate=100000 count=1000000 i tries
    [[ -z ${L2FIB_SANITIZED-} ]] || rate=10000 count=60000 # a sanitizer makes each event many times slower
    MACS=100000 start "$rate" --socket-group nogroup
    for i in {1..3}; do
        get /events --no-buffer --output /dev/null 3>&- &
        started+=($!)
    done
    for i in {1..22}; do
        watch_here "$directory/$i" "mac-prefix=02:10:00:01:$(printf %02x "$i")"
    done
    watch_unread 10
    watch_here "$directory/quiet" type=local # nothing happens in this stream
    eventually '.requests.watchers == 36'
    watch_unread 14 setpriv --reuid nobody --regid nogroup --clear-groups
    eventually '.requests.watchers == 50'
    run get /events
    [[ $output == *"user 0 has 36 of 64 event streams open, other users have 14: close some, or try again"* ]]
    get "${D}mac-count" --fail # streams take none of the places of requests
    until_events $((count / 5)) # fills what the daemon keeps
    local -r before=$(memory_of "$daemon")
    until_events "$count"
    local -r after=$(memory_of "$daemon")
    # A sanitizer does not return freed memory, so it cannot pass this check.
    [[ -n ${L2FIB_SANITIZED-} ]] || ((after - before < 4096)) || { echo "$before to $after kB" && return 1; }
    for i in {1..22}; do
        data "$directory/$i" | jq --slurp --exit-status --arg from "02:10:00:01:$(printf %02x "$i")" \
            'length > 10 and all(.[1:][] | select(.event != "missed"); ."mac-address" | startswith($from))'
    done
    # Fifteen seconds without an event that passes: the stream shows that it lives, and moves on.
    for tries in {1..100}; do
        ! grep --quiet '^: ' "$directory/quiet" || break
        sleep 0.1
    done
    grep --after-context=1 '^: nothing new' "$directory/quiet" | grep '^id: [0-9]*-[1-9]'
    eventually '.requests."watchers-refused" != "0" and .requests.active < 3 and .requests.connections < 10'
}

@test "streams end when the client leaves, and when the daemon stops" {
    start 100
    local i
    for i in {1..20}; do
        watch 0.1 "type=local"
    done
    eventually '.requests.watchers == 0'
    watch_here "$directory/all"
    local -r all=$!
    watch_here "$directory/none" type=local # nothing happens in this stream
    local -r none=$!
    local began took
    began=$(date +%s%N)
    kill -TERM "$daemon"
    wait "$all"
    wait "$none"
    wait "$daemon"
    took=$(($(date +%s%N) - began))
    [[ -n ${L2FIB_SANITIZED-} ]] || ((took < 900000000)) || { echo "$took ns" && return 1; }
    [[ $(tail --lines=2 "$directory/none") == ": the daemon is stopping"* ]]
}

@test "moves are listed newest first, in pages that add up, and flaps count them" {
    MACS=200 start 2000
    local -r at=$BATS_TEST_TMPDIR
    watch 1 >"$at/stream"
    get "${D}moves/move" --output "$at/moves"
    # Every move of the stream is in the list, with both places and the same time.
    data "$at/stream" | jq --slurp --exit-status --slurpfile list "$at/moves" '
        def place: {time, domain, "mac-address", event, port, vtep, "from-port", "from-vtep"};
        ($list[0]."l2fib-mac:move" | map(place)) as $moves
        | map(select(.event == "moved") | place)
        | length > 10 and (. - $moves == [])'
    jq --exit-status '(."l2fib-mac:history-since" | test("^20.*Z$")) and (."l2fib-mac:move"
        | (map(.id | tonumber) | . == (unique | reverse)) and (map(.event) | contains(["moved", "removed"])))' "$at/moves"

    local -r mac=$(jq --raw-output '."l2fib-mac:move"[0]."mac-address"' "$at/moves")
    get "${D}moves/move?mac=$mac" | jq --exit-status --arg mac "$mac" \
        '."l2fib-mac:move" | length > 0 and all(.[]; ."mac-address" == $mac)'
    get "${D}moves/move?port=br0p1&newer-than=1h" | jq --exit-status \
        '."l2fib-mac:move" | length > 0 and all(.[]; .port == "br0p1" or ."from-port" == "br0p1")'
    get "${D}moves/move?older-than=1h" | jq --exit-status '."l2fib-mac:move" == []'

    # Pages from one cursor to the next, from the newest move that the first list had.
    local cursor page
    : >"$at/paged"
    for _ in {1..200}; do
        page=$(get "${D}moves/move?limit=501${cursor:+&cursor=$cursor}")
        jq --compact-output '."l2fib-mac:move"[]' <<<"$page" >>"$at/paged"
        cursor=$(jq --raw-output '."l2fib-mac:next-cursor" // empty' <<<"$page")
        [[ -n $cursor ]] || break
    done
    jq --slurp --exit-status --slurpfile list "$at/moves" '
        $list[0]."l2fib-mac:move" as $moves
        | map(select((.id | tonumber) <= ($moves[0].id | tonumber))) == $moves' "$at/paged"

    get "${D}flaps/flap?window=1h" --output "$at/flaps"
    jq --exit-status --slurpfile list "$at/paged" '."l2fib-mac:flap" | length > 10
        and (map(.moves) | . == (sort | reverse) and min >= 2)
        and all(.[]; (."per-minute" | test("^[0-9]+[.][0-9]$")) and .first < .last
            and (.port != ."other-port" or .vtep != ."other-vtep"))' "$at/flaps"
    get "${D}flaps/flap?window=1h&limit=7" | jq --exit-status '."l2fib-mac:flap" | length == 7'
    get "${D}flaps/flap?window=0" | grep --fixed-strings 'window \"0\": expected'
    get "${D}moves/move?type=local" | grep --fixed-strings 'expected one of'
    local list
    for list in moves/move flaps/flap; do
        get "$D$list?port=eth9" | grep --fixed-strings 'port \"eth9\": there is no such bridge port'
        get "$D$list?vtep=fd00::1" | grep --fixed-strings 'vtep: expected an IPv4 address'
    done
}
