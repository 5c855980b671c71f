#!/usr/bin/env bats
# SPDX-License-Identifier: Apache-2.0

# The HTTP API with curl alone, on a generated fabric of 100,000 addresses. L2FIBD is the path of the daemon.

D=/restconf/data/l2fib-mac:

load daemon

setup_file()
{
    export L2FIBD=${L2FIBD:-$BATS_TEST_DIRNAME/../../build/test/bin/l2fibd}
    export SOCKET=$BATS_FILE_TMPDIR/api.sock
    start_daemon "$SOCKET" --generate bridges=10,ports=8,macs=100000,vteps=30,seed=7 --group lab
    export DAEMON=$!
}

teardown_file()
{
    kill "$DAEMON" 2>/dev/null || true
}

# get URI [CURL_OPTION...]: prints the body, then the status on its own line.
get()
{
    curl --silent --show-error --max-time 120 --write-out '\n%{http_code}\n' --unix-socket "$SOCKET" "${@:2}" \
        "http://l2fibd$1"
}

# expect_status STATUS URI [CURL_OPTION...]: requires STATUS and puts the body into $body.
expect_status()
{
    local answer
    answer=$(get "${@:2}")
    body=${answer%$'\n'*}
    [[ ${answer##*$'\n'} == "$1" ]] || { echo "$2: $answer" && return 1; }
}

expect_json()
{
    jq --exit-status "$1" <<<"$body" >/dev/null || { echo "not $1: ${body:0:500}" && return 1; }
}

# cursor TEXT: prints a cursor with this content and the running daemon's id.
cursor()
{
    local real
    real=$(get "${D}ports/port?limit=1" | head --lines 1 | jq --raw-output '."l2fib-mac:next-cursor"' | tr '_-' '/+')
    real=$(base64 --decode 2>/dev/null <<<"$real===" || true)
    printf '%s %s' "${real%% *}" "$1" | base64 --wrap=0 | tr '+/' '-_' | tr --delete '='
}

@test "every resource answers" {
    local -r entry='has("domain") and has("mac-address") and has("origin") and has("flags") and has("age")'
    local uri filter
    while read -r uri filter; do
        expect_status 200 "$D$uri"
        expect_json "$filter"
    done <<END
mac-table/mac-entry?limit=3 ."l2fib-mac:mac-entry" | length == 3 and all(.[]; $entry)
mac-aging/mac-entry?limit=3 ."l2fib-mac:mac-entry" | length == 3 and all(.[]; $entry)
domains/domain ."l2fib-mac:domain" | length == 10 and .[0].name == "lab:br0"
domains/domain=lab:br3 ."l2fib-mac:domain" | length == 1 and .[0].bridge == "br3"
domains/domain=lab%3Abr3/mac-entry?limit=3 ."l2fib-mac:mac-entry" | all(.[]; .domain == "lab:br3" and has("port"))
domains/domain=lab:br3/mac-count ."l2fib-mac:mac-count" | .total == .learned + .static and .learned > 9000
ports/port ."l2fib-mac:port" | length == 90 and (map(.kind) | unique == ["interface", "vxlan"])
ports/port=4 ."l2fib-mac:port" | length == 1 and .[0].xcid == 4
ports/port=4/mac-entry?limit=3 ."l2fib-mac:mac-entry" | length == 3 and all(.[]; .xcid == 4)
ports/port=4/mac-count ."l2fib-mac:mac-count".total > 0
mac-count ."l2fib-mac:mac-count" | .total == 100010 and has("bridge-own")
vteps/vtep ."l2fib-mac:vtep" | length == 300 and all(.[]; has("xcid") and has("address") and has("vni"))
tunnel-entries/tunnel-entry?limit=3 ."l2fib-mac:tunnel-entry" | length == 3 and all(.[]; has("destination"))
health ."l2fib-mac:health" | .plane == "generated" and .status == "clean" and (.memory.pool | length) > 0
traces/trace?limit=1 ."l2fib-mac:trace"[0] | has("text") and .ring == "normal" and .sequence == "1"
END
}

@test "one address, filters, and operations" {
    expect_status 200 "${D}mac-table/mac-entry?limit=400"
    local -r entry=$(jq --compact-output 'last(."l2fib-mac:mac-entry"[]) | del(.age)' <<<"$body")
    local -r mac=$(jq --raw-output '."mac-address"' <<<"$entry")
    expect_status 200 "${D}domains/domain=$(jq --raw-output .domain <<<"$entry")/mac-entry=${mac^^}"
    expect_json "[.\"l2fib-mac:mac-entry\"[] | del(.age)] == [$entry]"
    expect_status 200 "${D}mac-table/mac-entry?mac=$mac"
    expect_json "[.\"l2fib-mac:mac-entry\"[] | del(.age)] == [$entry]"

    expect_status 200 "${D}domains/domain=lab:br3/mac-entry?vtep=10.254.0.2"
    expect_json '."l2fib-mac:mac-entry" | length > 10 and all(.[]; .vtep == "10.254.0.2" and .domain == "lab:br3")'
    expect_status 200 "${D}mac-table/mac-entry?flagged=true"
    expect_json '."l2fib-mac:mac-entry" | length == 10 and all(.[]; .flags | contains(["bridge-own"]))'
    expect_status 200 "${D}mac-table/mac-entry?vtep=192.0.2.77"
    expect_json '. == {"l2fib-mac:mac-entry": [], "l2fib-mac:completeness": "whole"}'

    expect_status 200 "${D}mac-counts/mac-count?by=port&not-domain=br3&mac-prefix=02"
    local -r counted=$(jq '[."l2fib-mac:mac-count"[].entries] | add' <<<"$body")
    expect_status 200 "${D}mac-table/mac-entry?not-domain=br3&mac-prefix=02&with-since=true"
    expect_json ".\"l2fib-mac:mac-entry\" | length == $counted and all(.[]; .domain != \"lab:br3\")"

    local input
    for input in '' '{}' '{"l2fib-mac:input": {"domain": "lab:br3"}}' '{"l2fib-mac:input": {"port": 4}}'; do
        expect_status 204 /restconf/operations/l2fib-mac:resync --data "$input"
    done
    expect_status 200 "${D}mac-table/mac-entry" --head
}

# sorted_rows PARAMETERS: prints the port and address of each row, read in pages of 3000.
sorted_rows()
{
    local cursor=
    while :; do
        expect_status 200 "${D}mac-table/mac-entry?$1&limit=3000$cursor"
        jq --raw-output '."l2fib-mac:mac-entry"[] | "\(.port) \(."mac-address")"' <<<"$body"
        cursor=$(jq --raw-output '."l2fib-mac:next-cursor" // empty' <<<"$body")
        [[ -n $cursor ]] || break
        cursor="&cursor=$cursor"
    done
}

@test "sorted pages show each entry that passes once" {
    local -r filter="domain=br3&not-type=local"
    expect_status 200 "${D}mac-table/mac-entry?$filter"
    jq --raw-output '."l2fib-mac:mac-entry"[] | "\(.port) \(."mac-address")"' <<<"$body" | sort \
        >"$BATS_TEST_TMPDIR/all"
    local order
    for order in mac "mac&reverse=true" port age created vlan; do
        sorted_rows "$filter&sort=$order" >"$BATS_TEST_TMPDIR/sorted"
        sort "$BATS_TEST_TMPDIR/sorted" | diff --brief - "$BATS_TEST_TMPDIR/all"
    done
    sorted_rows "$filter&sort=mac" | cut --delimiter ' ' --fields 2 | sort --check
    sorted_rows "$filter&sort=mac&reverse=true" | cut --delimiter ' ' --fields 2 | sort --check --reverse
    sorted_rows "$filter&sort=port" | cut --delimiter " " --fields 1 | sort --check --version-sort
}

@test "answers to wrong requests name what was expected" {
    local -r big=$(head --bytes=5000 /dev/zero | tr '\0' ' ')
    local status uri expected
    while IFS='|' read -r status uri expected; do
        expect_status "$status" "$uri"
        expect_json ".\"ietf-restconf:errors\".error[0].\"error-message\" | contains(\"$expected\")"
    done <<END
400|${D}mac-table/mac-entry?limit=abc|expected a number from 1 to 1000000
400|${D}mac-table/mac-entry?limit=0|limit
400|${D}mac-table/mac-entry?limit=1000001|limit
400|${D}mac-table/mac-entry?limit=-1|limit
400|${D}mac-table/mac-entry?limit=1&limit=2|more than once
400|${D}mac-table/mac-entry?limit|NAME=VALUE
400|${D}mac-table/mac-entry?colour=red|one of limit, cursor, flagged, mac, sort, reverse, with-since, domain, not-domain
400|${D}mac-aging/mac-entry?flagged=true|one of limit, cursor
400|${D}mac-count?limit=1|expected none
400|${D}mac-table/mac-entry?mac=02:00:00:00:00|MAC address
400|${D}mac-table/mac-entry?vtep=10.0.0|an IPv4 or IPv6 address
400|${D}mac-table/mac-entry?flagged=yes|true or false
404|${D}mac-table/mac-entry?domain=br99|no such bridge domain
404|${D}ports/port?not-port=eth99|no such bridge port
400|${D}mac-table/mac-entry?domain=br3&not-domain=lab:br3|one that the
400|${D}mac-table/mac-entry?cursor=%25|next-cursor of this list
400|${D}mac-table/mac-entry?cursor=$(key 1,2,3)|next-cursor of this list
400|${D}vteps/vtep?cursor=$(key 1,2,x)|next-cursor of this list
400|${D}ports/port?cursor=$(key x)|next-cursor of this list
400|${D}traces/trace?cursor=$(key 7)|next-cursor of this list
400|${D}domains/domain=lab:br3/mac-entry?cursor=$(key 210,0,4,lab,br4)|next-cursor of this list
400|${D}domains/domain=lab%2|two hexadecimal digits
400|${D}domains/domain=a%00b|two hexadecimal digits
400|${D}domains/domain=|a key behind
400|${D}domains/domain=lab:br3/mac-entry=zz|MAC address
400|${D}ports/port=x/mac-count|an xcid
404|${D}ports/port=4000000000|no such bridge port
404|${D}domains/domain=lab:br99/mac-entry|no such bridge domain
404|${D}domains/domain=lab:br3/mac-entry=02:00:00:00:00:00|no such entry
404|${D}mac-tables/mac-entry|no such resource
404|${D}domains/domain/mac-entry|no such resource
404|${D}domains/domain%3D%2A|no such resource
404|/${D}mac-count|no such resource
404|/|no such resource
405|/restconf/operations/l2fib-mac:resync|expected POST
END
    expect_status 405 "${D}mac-count" --request DELETE
    expect_status 400 /restconf/operations/l2fib-mac:resync --data '[1'
    expect_status 400 /restconf/operations/l2fib-mac:resync --data '{"l2fib-mac:input": {"port": "4"}}'
    expect_status 404 /restconf/operations/l2fib-mac:resync --data '{"l2fib-mac:input": {"port": 4000}}'
    expect_status 413 /restconf/operations/l2fib-mac:resync --data "$big"
    expect_status 413 /restconf/operations/l2fib-mac:resync --data "$big" --header 'Transfer-Encoding: chunked'
}

@test "pages add up to the whole list, and memory does not grow with the list" {
    local -r whole=$BATS_TEST_TMPDIR/whole paged=$BATS_TEST_TMPDIR/paged page=$BATS_TEST_TMPDIR/page
    local list cursor before after
    for list in mac-table/mac-entry:9973 mac-aging/mac-entry:20000 vteps/vtep:100 ports/port=9/mac-entry:777; do
        get "$D${list%:*}?limit=200" >/dev/null
        before=$(memory_of "$DAEMON")
        get "$D${list%:*}" --output "$whole"
        after=$(memory_of "$DAEMON")
        # A sanitizer does not return freed memory, so it cannot pass this check.
        [[ -n ${L2FIB_SANITIZED-} ]] || ((after - before < 4096)) || { echo "$list: $before to $after kB" && return 1; }
        : >"$paged"
        cursor=
        while :; do
            get "$D${list%:*}?limit=${list#*:}${cursor:+&cursor=$cursor}" --output "$page" >/dev/null
            jq --compact-output '.[] | arrays[] | del(.age, ."last-seen", ."time-left")' "$page" >>"$paged"
            cursor=$(jq --raw-output '."l2fib-mac:next-cursor" // empty' "$page")
            [[ -n $cursor ]] || break
        done
        jq --compact-output '.[] | arrays[] | del(.age, ."last-seen", ."time-left")' "$whole" | cmp - "$paged"
        [[ $list != mac-*  ]] || (($(wc --lines <"$paged") > 100000))
    done
}

@test "tunnel entries list what the VXLAN devices hold" {
    local -r socket=$BATS_TEST_TMPDIR/recorded.sock
    start_daemon "$socket" --recorded "$BATS_TEST_DIRNAME/../../examples/recorded/tunnels"
    local -r pid=$!
    SOCKET=$socket expect_status 200 "${D}mac-count"
    SOCKET=$socket expect_status 200 "${D}tunnel-entries/tunnel-entry"
    local -r whole=$body
    expect_json '."l2fib-mac:tunnel-entry" | map(.destination // ."next-hop-id" | tostring) | sort | unique ==
        ["10.0.0.2", "10.0.0.3", "10.0.0.9", "102", "fd00::2"]'
    SOCKET=$socket expect_status 200 "${D}tunnel-entries/tunnel-entry?limit=5"
    local -r first=$body
    SOCKET=$socket expect_status 200 \
        "${D}tunnel-entries/tunnel-entry?cursor=$(jq --raw-output '."l2fib-mac:next-cursor"' <<<"$first")"
    [[ $(jq --compact-output .[][] <<<"$whole") == "$(jq --compact-output '.[]|arrays[]' <<<"$first$body")" ]]
    kill "$pid"
    wait "$pid"
}

@test "a cursor works although its item no longer exists" {
    local status list text filter
    while IFS='|' read -r status list text filter; do
        expect_status "$status" "$D${list}cursor=$(cursor "$text")&limit=5"
        expect_json "$filter"
    done <<END
200|mac-table/mac-entry?|t 2 70000 1 1|."l2fib-mac:mac-entry"[0]."bridge-id" == 2 and has("l2fib-mac:next-cursor")
200|mac-aging/mac-entry?sort=created&|c: 90000 7 100005|."l2fib-mac:mac-entry" | length == 5
200|vteps/vtep?|v 9 16909060 0|."l2fib-mac:vtep"[0].xcid == 9
400|mac-aging/mac-entry?|t 2 70000 1 1|."ietf-restconf:errors".error[0]."error-message" | contains("of this list")
400|mac-table/mac-entry?sort=port&|m: 2 70000 1|."ietf-restconf:errors".error[0]."error-message" | contains("of this list")
END
    expect_status 410 "${D}mac-table/mac-entry?cursor=$(printf '1 t 2 1 1 11' | base64)" # from an earlier daemon
}

# Static entries stay, so each list must have every one of them. Learned ones go and come again meanwhile: half of them in
# a second. A slow list misses those that came behind its selection, which may be a second old.
@test "a list has every entry that stays while others come, move and age" {
    local -r socket=$BATS_TEST_TMPDIR/churn.sock page=$BATS_TEST_TMPDIR/page
    start_daemon "$socket" --generate bridges=2,ports=4,macs=20000,vteps=4,churn=50000/s
    local -r pid=$!
    local list shown fixed counted rounds=16
    [[ -z ${L2FIB_SANITIZED-} ]] || rounds=4 # a sanitizer makes each round many times slower
    for ((; rounds > 0; rounds--)); do
        list=$( ((rounds % 2)) && echo mac-table || echo mac-aging)
        curl --silent --fail --unix-socket "$socket" --output "$page" "http://l2fibd$D$list/mac-entry"
        read -r shown fixed < <(jq --raw-output \
            '."l2fib-mac:mac-entry" | "\(length) \(map(select(.origin == "static")) | unique_by(.domain, ."mac-address") | length)"' "$page")
        counted=$(curl --silent --unix-socket "$socket" "http://l2fibd${D}mac-count" |
            jq --raw-output '."l2fib-mac:mac-count" | "\(.total) \(.static)"')
        ((fixed == ${counted#* } && fixed > 0 && shown > ${counted% *} * 2 / 3)) ||
            { echo "$list: $shown of which $fixed static; counted $counted" && return 1; }
    done
    kill "$pid"
    wait "$pid"
}

@test "too many requests get status 503, and an endless request is cut" {
    for i in {1..25}; do printf ' ' && sleep 1; done |
        curl --silent --upload-file - --request POST --write-out '%{time_total}\n' --unix-socket "$SOCKET" \
            http://l2fibd/restconf/operations/l2fib-mac:resync >"$BATS_TEST_TMPDIR/seconds" 3>&- &
    local -r endless=$!
    local pids=() i
    for i in {1..40}; do
        curl --silent --limit-rate 1k --max-time 3 --output "$BATS_TEST_TMPDIR/$i" --write-out '%{http_code}\n' \
            --unix-socket "$SOCKET" "http://l2fibd${D}mac-table/mac-entry" >"$BATS_TEST_TMPDIR/$i.status" &
        pids+=($!)
    done
    wait "${pids[@]}" || true
    [[ $(cat "$BATS_TEST_TMPDIR"/*.status | grep --count 503) -gt 0 ]]
    expect_status 200 "${D}mac-count" --retry 10 --retry-delay 1 # the daemon notices closed connections late
    ! wait "$endless" || false
    [[ $(cat "$BATS_TEST_TMPDIR/seconds") =~ ^1[0-4]\. ]]
}

@test "a second daemon is refused, a stale socket is replaced, and SIGTERM releases everything" {
    local -r socket=$BATS_TEST_TMPDIR/life.sock
    run timeout 20 "$L2FIBD" --socket "$SOCKET"
    [[ $status == 1 && $output == *"another l2fibd, process $DAEMON, serves this socket"* ]]
    touch "$socket"
    run timeout 20 "$L2FIBD" --socket "$socket"
    [[ $status == 1 && $output == *"is no socket"* && ! -e $socket.lock ]]
    rm "$socket"

    start_daemon "$socket"
    local pid=$!
    [[ $(stat --format %a "$socket") == 660 ]]
    kill -KILL "$pid"
    wait "$pid" || true
    start_daemon "$socket"
    pid=$!
    curl --silent --unix-socket "$socket" "http://l2fibd${D}mac-count" >/dev/null
    # The HTTP library closes this connection without calling the daemon's code.
    ! curl --silent --unix-socket "$socket" "http://l2fibd${D}mac-count?$(printf 'a=&%.0s' {1..4000})" || false
    kill -TERM "$pid"
    wait "$pid"
    [[ ! -e $socket && $(cat "$socket.log") == *"released 2044 MAC entries"* ]]
}

@test "messages about wrong options name what was expected, and --check reports" {
    local options expected
    while IFS='|' read -r options expected; do
        read -ra arguments <<<"$options"
        run timeout 20 "$L2FIBD" "${arguments[@]}"
        [[ $status == 2 && $output == *"$expected"* ]] || { echo "$options: $status $output" && return 1; }
    done <<END
--plane moon|--plane "moon": expected one of generated, recorded, kernel
--plane recorded|expected --recorded DIR
--recorded /nonexistent|expected a directory
--netns a --plane generated|--netns: expected --plane kernel
--generate bridges=x|--generate "bridges=x"
--mac-limit 0|--mac-limit "0": expected a number from 1
--proof-rate many|--proof-rate "many": expected a number from 0 to 100000
--receive-buffer 4096 --plane generated|--receive-buffer: expected --plane kernel
--events 0|--events "0": expected a number from 1 to 10000000
--history many|--history "many": expected a number from 0 to 10000000
--resync-wait 100000|--resync-wait "100000": expected a number from 1 to 3600
--group a:b|--group "a:b"
--log-level loud|expected one of error, warning, info, debug
--socket /$(printf 'x%.0s' {1..120})|--socket
--socket|--socket
--colour|--colour
END
    run "$L2FIBD" --check --generate macs=500 --proof-rate 0
    [[ $status == 0 && $output == *"plane generated, clean"* ]]
    run bash -c '"$L2FIBD" --check --generate macs=500 >/dev/full'
    [[ $status == 1 && $output == *"standard output: No space left on device"* ]]
    run "$L2FIBD" --version
    [[ $status == 0 && $output == "l2fibd "* ]]
}
