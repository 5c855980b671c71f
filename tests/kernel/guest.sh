# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Functions that the cases of this directory share. scripts/test-kernel packs the files into a guest. There init.sh
# sources this file and runs one case. Each case starts in a fresh guest whose only link is lo. After it, init.sh calls
# end_daemon.

# shellcheck source=lacks.sh
source /cases/lacks.sh

export L2FIBD_SOCKET=/run/l2fibd.sock
readonly log=/run/l2fibd.log
readonly patience_s=240 # the guest's instructions are emulated, and other work shares the host's cores
readonly looks=20
readonly nothing_found=1 # status of l2fibctl if the answer is empty
readonly incomplete=6    # status of l2fibctl if the answer may be incomplete
readonly shown_differences=20
readonly speaker_ip=198.51.100.1 # in an address range reserved for documentation

ctl()
{
    l2fibctl --timeout "$patience_s" "$@"
}

# wait_until COMMAND...: repeats a command until it succeeds. Fails after patience_s seconds.
wait_until()
{
    local -r end=$((SECONDS + patience_s))
    until "$@"; do
        if ((SECONDS >= end)); then
            echo "gave up after $patience_s s: $*"
            return 1
        fi
        sleep 0.2
    done
}

# start_daemon OPTION...: starts the daemon and returns when its first full dump has ended.
start_daemon()
{
    l2fibd --plane kernel --group guest "$@" 2>"$log" &
    daemon=$!
    wait_until daemon_serves
    ctl resync
}

daemon_serves()
{
    kill -0 "$daemon" && ctl show health >/dev/null 2>&1
}

# Ends the daemon. Fails if its exit status or its log does not show that it released everything.
end_daemon()
{
    kill -TERM "$daemon"
    wait "$daemon"
    grep --quiet 'ended; released' "$log"
}

# as_lines FILE: prints the entries of a JSON list, the kernel's or ours, one on each line, with all members. It leaves
# out receive filters: own entries of devices that are not VXLAN. It hides the state "stale" of a bridge's entry,
# because the kernel shows it only for the moment before it drops the entry.
as_lines()
{
    sed 's/^\[//; s/[],]$//; s/},{/}\n{/g' "$1" |
        sed --quiet '/"master":/{s/"stale"/""/;p;b}; /"dst":/{p;b}; /"nhid":/p' | LC_ALL=C sort --unique
}

# expect_same STEP: compares the answer of l2fibctl with the kernel's table, and fails if they differ. If the answer is
# marked as incomplete, or the kernel's table changed meanwhile, they cannot be compared. It then reads both again.
expect_same()
{
    local look status
    for ((look = 0; look < looks; look++)); do
        status=0
        bridge -j -d fdb show >/tmp/before.json
        ctl --bridge-json show mac >/tmp/ours.json 2>/tmp/messages || status=$?
        bridge -j -d fdb show >/tmp/kernel.json
        if ((status != 0 && status != nothing_found && status != incomplete)); then
            echo "l2fibctl ended with status $status $1: $(cat /tmp/messages)"
            return 1
        fi
        if ((status != incomplete)) && cmp --quiet /tmp/before.json /tmp/kernel.json; then
            as_lines /tmp/kernel.json >/tmp/kernel
            as_lines /tmp/ours.json >/tmp/ours
            expect_equal "$1" /tmp/kernel /tmp/ours
            return
        fi
        ctl resync || true # a failure needs no check here: the next look finds the answer incomplete
    done
    echo "no complete answer in $looks looks $1"
    return 1
}

# expect_equal STEP KERNEL OURS: fails if two files differ, and prints the differences.
expect_equal()
{
    if ! diff "$2" "$3" >/tmp/difference; then
        echo "differs $1, in $(grep --count '^[<>]' /tmp/difference) lines; the kernel is <, l2fibctl >:"
        head --lines "$shown_differences" /tmp/difference
        return 1
    fi
}

# expect_entries STEP COUNT PATTERN: fails unless COUNT lines of the last compared kernel table match. Each case states
# what it entered, because comparing two empty tables proves nothing.
expect_entries()
{
    local found
    found=$(grep --count --extended-regexp "$3" /tmp/kernel || true)
    if ((found != $2)); then
        echo "the kernel holds $found entries like $3 $1; expected $2"
        return 1
    fi
}

# Fails unless `show health` names exactly the features that this kernel lacks.
expect_lacks()
{
    missing_operations | LC_ALL=C sort >/tmp/kernel
    ctl --json show health | jq --raw-output '.["kernel-lacks"][]' | cut -d: -f1 | LC_ALL=C sort >/tmp/ours
    expect_equal "in what the kernel lacks" /tmp/kernel /tmp/ours
}

# add_bridge NAME OPTION...: adds a bridge with the options of `ip link add type bridge`.
add_bridge()
{
    local -r name=$1
    shift
    ip link add "$name" type bridge "$@"
    ip link set "$name" up
}

# add_ports BRIDGE PORT...: adds dummy devices as ports of a bridge.
add_ports()
{
    local -r bridge=$1
    local port
    shift
    for port in "$@"; do
        ip link add "$port" type dummy
        ip link set "$port" master "$bridge" up
    done
}

# entries VERB PORT KIND VLAN FIRST COUNT: runs one batch that adds or deletes (VERB) the entries of the addresses FIRST
# to FIRST + COUNT - 1. VLAN 0: none.
entries()
{
    seq "$5" $(($5 + $6 - 1)) | awk -v verb="$1" -v port="$2" -v kind="$3" -v vlan="$4" '{
        printf "fdb %s 02:aa:00:%02x:%02x:%02x dev %s master %s %s\n", verb, $1 / 65536, $1 / 256 % 256, $1 % 256, port,
            kind, vlan == 0 ? "" : "vlan " vlan
    }' | bridge -batch -
}

# add_cabled_port BRIDGE PORT: adds one end of a veth pair as a port. `speak` sends from the other end, PORT-end.
add_cabled_port()
{
    ip link add "$2" type veth peer name "$2-end"
    ip link set "$2-end" up
    ip link set "$2" master "$1" up
}

# speak PORT MAC [VLAN]: sends a frame with the source address MAC into a cabled port, tagged if VLAN is given.
speak()
{
    local -r port=$1 mac=$2 vlan=${3-}
    local from=$port-end
    if [[ -n $vlan ]]; then
        from=tagged
        ip link add link "$port-end" name tagged type vlan id "$vlan"
    fi
    ip link set "$from" address "$mac" up
    busybox arping -q -U -c 1 -w 1 -I "$from" -s "$speaker_ip" 198.51.100.2
    [[ -z $vlan ]] || ip link del tagged
}
