#!/usr/bin/env bats
# SPDX-License-Identifier: Apache-2.0

# l2fibctl with l2fibd on a generated fabric. L2FIBD and L2FIBCTL are the paths of the programs.

load daemon

setup_file()
{
    local -r bin=$BATS_TEST_DIRNAME/../../build/test/bin
    export L2FIBD=${L2FIBD:-$bin/l2fibd} L2FIBCTL=${L2FIBCTL:-$bin/l2fibctl}
    export L2FIBD_SOCKET=$BATS_FILE_TMPDIR/cli.sock
    start_daemon "$L2FIBD_SOCKET" --group lab --generate bridges=4,ports=6,macs=20000,vteps=8,churn=0/s,seed=3
    export DAEMON=$!
}

teardown_file()
{
    kill "$DAEMON" 2>/dev/null || true
}

teardown()
{
    kill "${recorded_daemon-}" 2>/dev/null || true
}

ctl()
{
    "$L2FIBCTL" "$@"
}

# expect STATUS TEXT ARGUMENT...: runs l2fibctl, which must exit with STATUS and print TEXT among other things.
expect()
{
    run ctl "${@:3}"
    [[ $status == "$1" && $output == *"$2"* ]] || { echo "${*:3}: $status: $output" && return 1; }
}

# of_api RESOURCE FILTER: prints the API's own answer through a jq filter.
of_api()
{
    curl --silent --unix-socket "$L2FIBD_SOCKET" "http://l2fibd/restconf/data/l2fib-mac:$1" | jq --compact-output "$2"
}

# Prints one item per line with sorted members. Ages grow between two readings, so only their types are compared.
comparable()
{
    jq --compact-output --sort-keys \
        ".[] | with_entries(if .key == \"age\" or .key == \"last-seen\" then .value |= type else . end)"
}

@test "JSON equals the API, and text has one row per item" {
    local table path member
    while read -r table path member; do
        diff <(of_api "$path" ".\"l2fib-mac:$member\"" | comparable) <(ctl show "$table" --json | comparable) | head
        [[ ${PIPESTATUS[0]} == 0 ]]
        [[ $(ctl show "$table" --json-lines | wc --lines) == $(ctl show "$table" | tail --lines=+2 | wc --lines) ]]
    done <<'END'
mac mac-table/mac-entry mac-entry
domain domains/domain domain
port ports/port port
vtep vteps/vtep vtep
END
    diff <(of_api mac-count '."l2fib-mac:mac-count"') <(ctl show count --json | jq --compact-output '.[0] | del(.scope)')
    diff <(of_api health '."l2fib-mac:health" | [paths | map(strings)] | unique') \
        <(ctl show health --json | jq --compact-output '[paths | map(strings)] | unique')
}

@test "each option selects the right part of the table" {
    local -r all=$BATS_TEST_TMPDIR/all
    ctl show mac --json-lines >"$all"
    local -r port=$(jq --raw-output 'select(.vtep) | .port' "$all" | head -1)
    local -r domain=$(jq --raw-output "select(.port == \"$port\") | .domain" "$all" | head -1)
    local -r xcid=$(jq "select(.port == \"$port\") | .xcid" "$all" | head -1)
    local -r vtep=$(jq --raw-output 'select(.vtep) | .vtep' "$all" | head -1)
    local -r mac=$(jq --raw-output "select(.vtep == \"$vtep\" and .xcid == $xcid) | .\"mac-address\"" "$all" | head -1)

    local arguments filter
    while IFS='|' read -r arguments filter; do
        # shellcheck disable=SC2086
        diff <(jq --compact-output "select($filter) | [.domain, .xcid, .\"mac-address\", .vtep]" "$all" | sort) \
            <(ctl show mac --json-lines $arguments |
                jq --compact-output '[.domain, .xcid, ."mac-address", .vtep]' | sort) ||
            { echo "differs: $arguments" && return 1; }
    done <<END
--domain $domain|.domain == "$domain"
--port $port|.port == "$port"
--port $xcid|.port == "$port"
--vtep $vtep|.vtep == "$vtep"
--port $port --vtep $vtep|.port == "$port" and .vtep == "$vtep"
--domain $domain --port $port --vtep $vtep $mac|.xcid == $xcid and ."mac-address" == "$mac" and .vtep == "$vtep"
$mac|."mac-address" == "$mac"
--domain ${domain#*:}|.domain == "$domain"
--mac ${mac:0:8}|."mac-address"[0:8] == "${mac:0:8}"
--type static --not port=$port|.origin == "static" and .port != "$port"
${mac^^} --domain $domain|."mac-address" == "$mac" and .domain == "$domain"
--flagged|.xcid == null
--flagged --port $port|.xcid == $xcid and (.flags | index("locked"))
--aging --domain $domain|.domain == "$domain"
--aging --port $port --vtep $vtep|.xcid == $xcid and .vtep == "$vtep"
--sort created --domain $domain|.domain == "$domain"
--strict|true
END
    local -r total=$(ctl show mac --port "$port" --json-lines | jq --slurp 'map(select(.origin != "local")) | length')
    [[ $(ctl show count --port "$port" --json | jq '.[0].total') == "$total" ]]
}

@test "counts by group add up to the list" {
    local by
    for by in domain port vlan vtep type; do
        [[ $(ctl show count --by "$by" --json | jq 'map(.entries) | add') == $(ctl show mac --json-lines | wc --lines) ]]
        [[ $(ctl show count --by "$by" | tail --lines=2 | awk 'NR == 1 {print $(NF - 3) == $(NF - 2) + $(NF - 1) + $NF}') == 1 ]]
    done
    [[ $(ctl show count --type static --json | jq 'map(.entries) | add') == $(ctl show mac -t static --no-header | wc --lines) ]]
}

# on_terminal COMMAND: runs it with a terminal of 80 columns as standard output, and prints what arrives there.
on_terminal()
{
    TERM=xterm script --quiet --return --command "$1" /dev/null </dev/null
}

@test "a row fits a hundred characters, and colours need a terminal" {
    local table
    for table in mac count domain port vtep tunnel "mac --aging" "count --by port"; do
        # shellcheck disable=SC2086
        [[ $(ctl show $table --limit 500 2>/dev/null | awk '{ if (length > most) most = length } END { print most }') -le 100 ]]
    done
    [[ $(ctl show mac --wide --limit 1 | wc --max-line-length) -gt 100 ]]
    [[ $(ctl show mac --limit 1 --no-header --columns origin,port,age --color never) != *$'\e'* ]]
    [[ $(ctl show mac --limit 1) != *$'\e'* && $(ctl show mac --limit 1 --color always) == *$'\e[32m'* ]]
    local -r command="$L2FIBCTL show mac --limit 1 --no-pager"
    [[ $(on_terminal "$command") == *$'\e[32m'* && $(NO_COLOR=1 on_terminal "$command") != *$'\e'* ]]
    [[ $(NO_COLOR=1 on_terminal "$command --color=always") == *$'\e[32m'* ]]
}

@test "the pager gets the output of a terminal, and the exit status stays" {
    local -r pager=$BATS_TEST_TMPDIR/pager paged=$BATS_TEST_TMPDIR/paged
    printf '#!/bin/sh\ncat >%s\n' "$paged" >"$pager"
    chmod +x "$pager"
    export NO_COLOR=1 PAGER=$pager
    on_terminal "$L2FIBCTL show mac --wide"
    [[ $(wc --lines <"$paged") == $(ctl show mac | wc --lines) ]]
    rm "$paged"
    run on_terminal "$L2FIBCTL show mac --domain lab:nowhere"
    [[ $status == 1 && ! -e $paged ]] # no rows, no pager
    run on_terminal "$L2FIBCTL show mac --no-pager --limit 1"
    [[ $status == 0 && $output == *"MAC Address"* && ! -e $paged ]]
    on_terminal "$L2FIBCTL show mac --strict --limit 5"
    [[ $(wc --lines <"$paged") == 6 ]]
    run on_terminal "PAGER=true $L2FIBCTL show mac" # leaves before the table ends
    [[ $status == 0 ]]
    run on_terminal "L2FIBCTL_PAGER='$pager; exit 3' $L2FIBCTL show count --limit 1"
    [[ $status == 0 ]]
    run on_terminal "PAGER=/no/such/pager $L2FIBCTL show count"
    [[ $status == 5 && $output == *'cannot start the pager "/no/such/pager"'* ]]
    ctl show port >"$BATS_TEST_TMPDIR/plain" # a pipe or a file needs no pager
    [[ $(head -c 4 "$BATS_TEST_TMPDIR/plain") == "    " ]]
}

# complete LINE: prints what bash offers for the last word of the line, one candidate a line.
complete_in_bash()
{
    PATH=$(dirname "$L2FIBCTL"):$PATH bash --norc -c '
        source <(l2fibctl completion bash)
        COMP_LINE=$1 COMP_POINT=${#1}
        _l2fibctl
        printf "%s\n" "${COMPREPLY[@]}"' bash "$1"
}

@test "shells complete names of options and of the daemon" {
    cd "$BATS_TEST_TMPDIR"
    touch "odd name\$(x)"
    local line expected
    while IFS='|' read -r line expected; do
        [[ $(complete_in_bash "$line" | sort | paste --serial --delimiters=' ') == "$expected" ]] ||
            { echo "$line: $(complete_in_bash "$line")" && return 1; }
    done <<'END'
l2fibctl res|resync
l2fibctl show mac --rev|--reverse
l2fibctl show mac --domain lab:br|br0 br1 br2 br3
l2fibctl show mac --domain=lab:br0|br0
l2fibctl sh mac -d br3|br3
l2fibctl show mac --not port=br1p|br1p0 br1p1 br1p2 br1p3 br1p4 br1p5
l2fibctl show mac --port nothing|
l2fibctl show mac --socket odd|odd\ name\$\(x\)
l2fibctl show mac --socket odd\ name\$|odd\ name\$\(x\)
l2fibctl show mac --columns port,vl|port,vlan
END
    local -r mac=$(ctl show mac --limit 1 --no-header --columns mac-address)
    [[ $(ctl complete-words -- find "${mac:0:15}" | cut --fields=1) == *"$mac"* ]]
    # Without a daemon there are no names, no message and no waiting.
    [[ -z $(L2FIBD_SOCKET=/no/such complete_in_bash "l2fibctl show mac --domain " 2>&1) ]]
    local -r programs=$(dirname "$L2FIBCTL")
    export PATH=$programs:$PATH
    # The shell's own functions stand for the parts that need a terminal.
    [[ $(zsh -f -c 'compdef() { } ; _describe() { print -rl -- ${(P)2}; }
        source <(l2fibctl completion zsh); words=(l2fibctl show mac --domain lab:br2); CURRENT=5; _l2fibctl') == 'lab\:br2' ]]
    [[ $(fish --no-config --command \
        'l2fibctl completion fish | source; complete --do-complete "l2fibctl show mac --domain lab:br2"') == lab:br2* ]]
}

@test "bridge JSON equals the recorded table" {
    local -r recorded=$BATS_TEST_DIRNAME/../../examples/recorded/tunnels socket=$BATS_TEST_TMPDIR/recorded.sock
    start_daemon "$socket" --recorded "$recorded"
    recorded_daemon=$!
    ctl --socket "$socket" show mac --bridge-json | jq --sort-keys 'sort' >"$BATS_TEST_TMPDIR/shown"
    # The client leaves out receive filters and times.
    jq --sort-keys 'map(select(.master or .dst or .nhid) | del(.used, .updated)) | sort' "$recorded/fdb.json" |
        diff - "$BATS_TEST_TMPDIR/shown"
    [[ $(ctl --socket "$socket" show mac --bridge-json --port vxlan100 --vtep 10.0.0.3 |
        jq --compact-output 'map([.mac, .flags[]])') == \
        '[["02:00:00:00:10:02","extern_learn"],["00:00:00:00:00:00","self"],["02:00:00:00:10:02","self","extern_learn"],["02:00:00:00:10:06","self"]]' ]]
    kill "$recorded_daemon"
    wait "$recorded_daemon"
}

@test "--limit, a closed pipe and an output that cannot be written" {
    [[ $(ctl show mac --limit 3 | wc --lines) == 4 ]]
    [[ $(ctl --limit 5 show mac --aging --domain lab:br1 --json | jq length) == 5 ]]
    [[ $(ctl --limit 10001 show mac --json | jq 'unique | length') == 10001 ]]
    ctl show mac 2>"$BATS_TEST_TMPDIR/errors" | head -1
    [[ ${PIPESTATUS[0]} == 0 && ! -s $BATS_TEST_TMPDIR/errors ]]
    run bash -c '"$L2FIBCTL" show mac >/dev/full'
    [[ $status == 5 && $output == "l2fibctl: cannot write the answer to standard output: No space left on device" ]]
    run bash -c '"$L2FIBCTL" show mac >&-'
    [[ $status == 5 && $output == "l2fibctl: cannot write the answer to standard output: Bad file descriptor" ]]
}

@test "resync of everything, a domain or a port" {
    expect 0 "" resync
    expect 0 "" resync --domain lab:br0
    expect 0 "" resync --port br1p0
    expect 1 'lab:nowhere' resync --domain lab:nowhere
    expect 2 "--domain excludes --port" resync --domain lab:br0 --port br1p0
}

@test "messages name the wrong input" {
    expect 2 "expected a command such as" show
    expect 2 "cat" show cat
    expect 2 "--limit" show mac --limit 0
    expect 2 "--limit" show mac --limit -1
    expect 2 "--limit" show mac --limit 99999999999999999999999
    expect 2 "--json: expected no value" show mac --json=no
    expect 2 "--timeout" show mac --timeout 0
    expect 2 "--vtep" show mac --vtep 192.0.2
    expect 2 "02:00" show mac 02:00
    expect 2 "--domain" show mac --domain ""
    expect 2 "--aging" show mac --aging --flagged
    expect 2 "--sort" show mac --sort created --flagged
    expect 2 "--sort created" show mac --aging --sort created
    expect 2 '"old": expected mac, port, age' show mac --sort old
    expect 2 'did you mean --vlan?' show mac --vlna 1
    expect 2 'did you mean "show"?' shwo mac
    expect 2 '"nope": expected names among domain, mac-address' show mac --columns nope
    expect 2 '"port": expected once' show mac --columns port,vlan,port
    expect 2 "--json" show mac --json --json-lines
    expect 2 "--bridge-json" show vtep --bridge-json
    expect 1 'no port "br0p99"' show mac --port br0p99
    expect 1 'no port "br0p1" in the bridge domain "lab:br1"' show mac --port br0p1 --domain lab:br1
    expect 1 "lab:nowhere" show mac --domain lab:nowhere
    expect 1 "nothing found" show mac 02:ff:ff:ff:ff:ff
    expect 4 "" show mac --type static --not type=static
    expect 3 "/no/such/socket" show mac --socket /no/such/socket
    expect 2 "a path of 1 to 107" show mac --socket "/$(printf 'x%.0s' {1..120})"
    expect 0 "Exit status" --help
    local line
    while read -r line; do
        [[ $line == "l2fibctl: "* ]]
    done < <(ctl show mac --domain lab:nowhere 2>&1)
}
