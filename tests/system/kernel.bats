#!/usr/bin/env bats
# SPDX-License-Identifier: Apache-2.0

# l2fibctl prints what the kernel's bridges and VXLAN devices hold, before and after every kind of change. The fabric
# consists of namespaces that this file makes and removes. L2FIBD and L2FIBCTL are the paths of the programs.

bats_require_minimum_version 1.5.0

load daemon

setup_file()
{
    [[ $EUID -eq 0 ]] || skip "needs root, to make network namespaces"
    source "$BATS_TEST_DIRNAME/../../scripts/namespaces.sh"
    export fabric leaf1 leaf2 vni
    local -r bin=$BATS_TEST_DIRNAME/../../build/test/bin
    export L2FIBD=${L2FIBD:-$bin/l2fibd} L2FIBCTL=${L2FIBCTL:-$bin/l2fibctl}
    export L2FIBD_SOCKET=$BATS_FILE_TMPDIR/kernel.sock
    make_fabric
    start_daemon "$L2FIBD_SOCKET" --plane kernel --netns "$leaf1" --group leaf1
    export DAEMON=$!
}

teardown_file()
{
    local status=0
    if [[ -n ${DAEMON-} ]]; then
        kill -CONT "$DAEMON"
        kill -TERM "$DAEMON"
        wait "$DAEMON" || status=1
        grep -q 'ended; released' "$L2FIBD_SOCKET.log" || status=1
    fi
    declare -F remove_fabric >/dev/null || source "$BATS_TEST_DIRNAME/../../scripts/namespaces.sh"
    remove_fabric
    return "$status"
}

ctl()
{
    "$L2FIBCTL" "$@"
}

leaf()
{
    ip netns exec "$leaf1" "$@"
}

# Reduces the output of `bridge` and of l2fibctl to the members that both report. Leaves out the entries of devices
# other than VXLAN devices: they are receive filters and not forwarding entries.
normalised()
{
    jq --compact-output --sort-keys \
        '[.[] | select(.master or .dst) | {mac, ifname, master, dst, vni, state: (.state // ""), flags}] | unique | .[]'
}

# Requires that the kernel and l2fibctl report the same entries. Between the two readings the bridge may learn an
# address from the hosts' traffic, or one may age. A real difference appears in each of the five rounds.
same_as_kernel()
{
    local -r at=$BATS_TEST_TMPDIR
    local round
    for round in 1 2 3 4 5; do
        leaf bridge -j fdb show | normalised >"$at/kernel"
        ctl --bridge-json show mac | normalised >"$at/ours"
        diff "$at/kernel" "$at/ours" >"$at/difference$round" && return
        sleep 0.2
    done
    echo "kernel (<) and l2fibctl (>) differ:"
    head -n 20 "$at"/difference*
    return 1
}

# add_port NAME [BRIDGE]: adds an interface to the bridge, br0 by default.
add_port()
{
    leaf ip link add "$1" type veth peer name "$1-peer"
    leaf ip link set "$1" master "${2-br0}" up
}

# entries COMMAND FIRST COUNT PORT: changes the addresses FIRST to FIRST + COUNT - 1 of a port in one batch.
entries()
{
    local -r command=$1 first=$2 count=$3 port=$4
    seq "$first" $((first + count - 1)) | awk -v command="$command" -v port="$port" '{
        printf "fdb %s 02:aa:00:%02x:%02x:%02x dev %s master%s\n", command, $1 / 65536, $1 / 256 % 256, $1 % 256, port,
            command == "add" ? " static" : ""
    }' | leaf bridge -batch -
}

vteps()
{
    ctl --json-lines show vtep | jq --raw-output .address | sort | tr '\n' ' '
}

bridges()
{
    ctl --json-lines show domain | jq --raw-output .bridge | sort | tr '\n' ' '
}

@test "learned addresses, local addresses, and addresses behind the tunnel" {
    same_as_kernel
    [ "$(grep -c "\"vxlan$vni\"" "$BATS_TEST_TMPDIR/ours")" -ge 3 ]
    [ "$(vteps)" = "192.0.2.2 " ]
}

@test "health names what the kernel lacks" {
    leaf bash -c "source '$BATS_TEST_DIRNAME/../kernel/lacks.sh' && missing_operations" |
        sort >"$BATS_TEST_TMPDIR/kernel"
    ctl --json show health | jq --raw-output '.["kernel-lacks"][]' | cut -d: -f1 | sort >"$BATS_TEST_TMPDIR/ours"
    diff "$BATS_TEST_TMPDIR/kernel" "$BATS_TEST_TMPDIR/ours"
}

@test "static entries are added and deleted" {
    leaf bridge fdb add 02:00:00:00:00:01 dev host1 master static
    leaf bridge fdb add 02:00:00:00:00:02 dev host2 master static sticky
    same_as_kernel
    ctl show mac 02:00:00:00:00:01 | grep -q static
    leaf bridge fdb del 02:00:00:00:00:01 dev host1 master
    same_as_kernel
    run -1 ctl show mac 02:00:00:00:00:01
}

@test "an address moves between ports and into the tunnel" {
    local port
    for port in host1 host2 "vxlan$vni" host1; do
        leaf bridge fdb replace 02:00:00:00:00:03 dev "$port" master dynamic
        same_as_kernel
        [ "$(ctl --json-lines show mac 02:00:00:00:00:03 | jq --raw-output .port)" = "$port" ]
    done
}

@test "entries are flushed, and entries age" {
    leaf ip link set br0 type bridge fdb_flush
    same_as_kernel
    leaf ip link set br0 type bridge ageing_time 100
    ip netns exec "$fabric-host1" ping -q -c 1 198.51.100.3 >/dev/null
    same_as_kernel
    grep -q '"state":""' "$BATS_TEST_TMPDIR/ours"
    local tries
    for ((tries = 0; tries < 100; tries++)); do
        leaf bridge -j fdb show br br0 | jq --exit-status 'all(.state != "" or .master == null)' >/dev/null && break
        sleep 0.2
    done
    same_as_kernel
    leaf ip link set br0 type bridge ageing_time 30000
}

@test "flood lists give every tunnel end point" {
    leaf bridge fdb append 00:00:00:00:00:00 dev "vxlan$vni" dst 192.0.2.77
    leaf bridge fdb append 00:00:00:00:00:00 dev "vxlan$vni" dst 192.0.2.78 vni 8
    same_as_kernel
    [ "$(vteps)" = "192.0.2.2 192.0.2.77 192.0.2.78 " ]
    leaf bridge fdb del 00:00:00:00:00:00 dev "vxlan$vni" dst 192.0.2.77
    same_as_kernel
    [ "$(vteps)" = "192.0.2.2 192.0.2.78 " ]
}

@test "an interface and a bridge are renamed" {
    add_port before
    entries add 1 10 before
    leaf ip link set before down
    leaf ip link set before name after
    leaf ip link set after up
    same_as_kernel
    [ "$(grep -c '"after"' "$BATS_TEST_TMPDIR/ours")" -ge 10 ]
    leaf ip link add other type bridge
    leaf ip link set other up name another
    [ "$(bridges)" = "another br0 " ]
    leaf ip link del another
    leaf ip link del after
    same_as_kernel
}

@test "a port and a bridge are deleted with their entries" {
    leaf ip link add br1 type bridge
    leaf ip link set br1 up
    add_port p1 br1
    entries add 1 2000 p1
    same_as_kernel
    leaf ip link set p1 nomaster
    same_as_kernel
    leaf ip link set p1 master br1
    entries add 1 2000 p1
    leaf ip link del br1
    same_as_kernel
    [ "$(bridges)" = "br0 " ]
    leaf ip link del p1
}

@test "a port that leaves and returns while it is listed marks the answer" {
    local -r end=$((SECONDS + 60))
    local status=0
    (while :; do
        leaf ip link set host1 nomaster
        leaf ip link set host1 master br0
    done) 3>&- &
    until ((status == 6 || SECONDS >= end)); do
        status=0
        ctl show mac --port host1 >"$BATS_TEST_TMPDIR/rows" 2>"$BATS_TEST_TMPDIR/why" || status=$?
        # Without the port there is nothing to list; with it, its own address is there.
        ((status != 1)) || grep --quiet 'no port "host1"' "$BATS_TEST_TMPDIR/why" || break
    done
    kill $!
    wait $! || true
    leaf ip link set host1 master br0
    ((status == 6))
    grep --quiet 'the ports named "host1" changed' "$BATS_TEST_TMPDIR/why"
    same_as_kernel
}

@test "50,000 entries are added at once, and 20,000 are deleted while a client lists them" {
    add_port many
    entries add 1 50000 many
    same_as_kernel
    (for ((first = 1; first < 20000; first += 1000)); do entries del "$first" 1000 many; done) &
    local -r deleter=$!
    local rounds=0
    while kill -0 "$deleter" 2>/dev/null; do
        # No answer may lack one of the entries that stay.
        [ "$(ctl --json-lines show mac --port many | jq --raw-output '."mac-address"' |
            awk '/^02:aa/ && $0 > "02:aa:00:00:4e:20"' | wc -l)" -eq 30000 ]
        rounds=$((rounds + 1))
    done
    wait "$deleter"
    [ "$rounds" -ge 1 ]
    same_as_kernel
}

@test "a full dump repairs the table after a receive buffer overrun" {
    kill -STOP "$DAEMON"
    entries del 20001 30000 many
    entries add 100001 60000 many
    kill -CONT "$DAEMON"
    local tries
    for ((tries = 0; tries < 100; tries++)); do
        [ "$(ctl --json show health | jq --raw-output '.. | .status? // empty')" = clean ] && break
        sleep 0.1
    done
    same_as_kernel
    leaf ip link del many
    same_as_kernel
}

# The seconds since each address of a port was last seen, from the kernel or from l2fibctl.
ages()
{
    case $1 in
        kernel) leaf bridge -j -s fdb show brport "$2" | jq --raw-output '.[] | select(.master) | "\(.mac) \(.updated)"' ;;
        ours) ctl --json-lines show mac --port "$2" | jq --raw-output '"\(."mac-address") \(.age)"' ;;
    esac | grep '^02:ab' | sort
}

# see VERB FIRST STEP: the bridge sees every STEP-th of 70,000 addresses on the port `aged`, from FIRST on.
see()
{
    seq "$2" "$3" 70000 | awk -v verb="$1" '{
        printf "fdb %s 02:ab:%02x:%02x:%02x:00 dev aged master dynamic\n", verb, $1 / 65536, $1 / 256 % 256, $1 % 256
    }' | leaf bridge -batch -
}

@test "all ages of a large bridge are the kernel's, also while addresses are seen again" {
    local -r at=$BATS_TEST_TMPDIR
    add_port aged
    leaf ip link set aged-peer up
    local tries
    for ((tries = 0; tries < 100; tries++)); do
        leaf bridge fdb replace 02:ab:ff:00:00:00 dev aged master dynamic && break
        sleep 0.1
    done
    see add 1 1
    sleep 3
    local round
    for round in 1 2; do
        see replace "$round" 2
        local began=$SECONDS
        ages kernel aged >"$at/kernel"
        ages ours aged >"$at/ours"
        local passed=$((SECONDS - began + 1))
        ((round == 2)) || [ "$(awk '$2 >= 3' "$at/kernel" | wc -l)" -ge 35000 ]
        join "$at/kernel" "$at/ours" >"$at/both"
        [ "$(wc -l <"$at/both")" -eq 70001 ]
        awk -v passed="$passed" '$3 < $2 - 1 || $3 > $2 + passed' "$at/both" >"$at/wrong"
        [ ! -s "$at/wrong" ] || { head -n 5 "$at/wrong" && return 1; }
    done
    leaf ip link del aged
}
