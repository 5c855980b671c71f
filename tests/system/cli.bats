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
${mac^^} --domain $domain|."mac-address" == "$mac" and .domain == "$domain"
--flagged|.xcid == null
--aging --domain $domain|.domain == "$domain"
--aging --port $port --vtep $vtep|.xcid == $xcid and .vtep == "$vtep"
--sort created --domain $domain|.domain == "$domain"
--strict|true
END
    local -r total=$(ctl show mac --port "$port" --json-lines | jq --slurp 'map(select(.origin != "local")) | length')
    [[ $(ctl show count --port "$port" --json | jq '.[0].total') == "$total" ]]
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
    expect 2 "json was given" show mac --json=no
    expect 2 "--timeout" show mac --timeout 0
    expect 2 "--vtep" show mac --vtep 192.0.2
    expect 2 "02:00" show mac 02:00
    expect 2 "--domain" show mac --domain ""
    expect 2 "--aging" show mac --aging --flagged
    expect 2 "--sort" show mac --sort created --flagged
    expect 2 "--sort created" show mac --aging --sort created
    expect 2 '"age": expected last-seen or created' show mac --sort age
    expect 2 "--json" show mac --json --json-lines
    expect 2 "--bridge-json" show vtep --bridge-json
    expect 1 'no port "br0p99"' show mac --port br0p99
    expect 1 'no port "br0p1" in the bridge domain "lab:br1"' show mac --port br0p1 --domain lab:br1
    expect 1 "lab:nowhere" show mac --domain lab:nowhere
    expect 1 "nothing found" show mac 02:ff:ff:ff:ff:ff
    expect 3 "/no/such/socket" show mac --socket /no/such/socket
    expect 2 "a path of 1 to 107" show mac --socket "/$(printf 'x%.0s' {1..120})"
    expect 0 "Exit status" --help
    local line
    while read -r line; do
        [[ $line == "l2fibctl: "* ]]
    done < <(ctl show mac --domain lab:nowhere 2>&1)
}
