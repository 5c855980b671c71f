# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# What the cases of this directory share. scripts/test-kernel packs them into a guest; init.sh sources this file there
# and runs one case. Each case starts in a fresh guest, without any link but lo, and ends with the daemon's clean end.

# shellcheck source=lacks.sh
source /cases/lacks.sh

export L2FIBD_SOCKET=/run/l2fibd.sock
readonly log=/run/l2fibd.log
readonly patience_s=240 # the guest's instructions are emulated, and other work shares the host's cores
readonly looks=20
readonly nothing_found=1 # l2fibctl's status, and the one of an answer that may be incomplete
readonly incomplete=6
readonly shown_differences=20
readonly speaker_ip=198.51.100.1 # in documentation's own range

ctl()
{
    l2fibctl --timeout "$patience_s" "$@"
}

# wait_until COMMAND...: looks again until it succeeds.
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

# start_daemon OPTION...: returns when the first full dump is complete.
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

# The daemon released everything and found nothing wrong with itself.
end_daemon()
{
    kill -TERM "$daemon"
    wait "$daemon"
    grep --quiet 'ended; released' "$log"
}

# as_lines FILE: the entries of either side's JSON, one a line, with all members. It leaves out receive filters: what
# devices other than VXLAN hold themselves. A bridge's entry is stale for the moment before the kernel drops it.
as_lines()
{
    sed 's/^\[//; s/[],]$//; s/},{/}\n{/g' "$1" |
        sed --quiet '/"master":/{s/"stale"/""/;p;b}; /"dst":/{p;b}; /"nhid":/p' | LC_ALL=C sort --unique
}

# expect_same STEP: l2fibctl shows what the kernel holds. An answer that is marked as incomplete, or a kernel's table
# that changed meanwhile, is no verdict: then both are read once more. A difference is.
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
        ctl resync || true # fails while changes are lost; the next look says so
    done
    echo "no complete answer in $looks looks $1"
    return 1
}

# expect_equal STEP KERNEL OURS: two files are the same.
expect_equal()
{
    if ! diff "$2" "$3" >/tmp/difference; then
        echo "differs $1, in $(grep --count '^[<>]' /tmp/difference) lines; the kernel is <, l2fibctl >:"
        head --lines "$shown_differences" /tmp/difference
        return 1
    fi
}

# expect_entries STEP COUNT PATTERN: how many lines of the last comparison match. A comparison of empty tables proves
# nothing, so each case says what it put in.
expect_entries()
{
    local found
    found=$(grep --count --extended-regexp "$3" /tmp/kernel || true)
    if ((found != $2)); then
        echo "the kernel holds $found entries like $3 $1; expected $2"
        return 1
    fi
}

# `show health` names what this kernel lacks, and nothing else.
expect_lacks()
{
    missing_operations | LC_ALL=C sort >/tmp/kernel
    ctl --json show health | jq --raw-output '.["kernel-lacks"][]' | cut -d: -f1 | LC_ALL=C sort >/tmp/ours
    expect_equal "in what the kernel lacks" /tmp/kernel /tmp/ours
}

# add_bridge NAME OPTION...
add_bridge()
{
    local -r name=$1
    shift
    ip link add "$name" type bridge "$@"
    ip link set "$name" up
}

# add_ports BRIDGE PORT...: dummy devices.
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

# entries VERB PORT KIND VLAN FIRST COUNT: addresses FIRST to FIRST + COUNT - 1 by one batch; VLAN 0: none.
entries()
{
    seq "$5" $(($5 + $6 - 1)) | awk -v verb="$1" -v port="$2" -v kind="$3" -v vlan="$4" '{
        printf "fdb %s 02:aa:00:%02x:%02x:%02x dev %s master %s %s\n", verb, $1 / 65536, $1 / 256 % 256, $1 % 256, port,
            kind, vlan == 0 ? "" : "vlan " vlan
    }' | bridge -batch -
}

# add_cabled_port BRIDGE PORT: a port whose cable ends at the interface PORT-end, from where `speak` sends.
add_cabled_port()
{
    ip link add "$2" type veth peer name "$2-end"
    ip link set "$2-end" up
    ip link set "$2" master "$1" up
}

# speak PORT MAC [VLAN]: a frame from MAC comes in at the port, tagged with VLAN.
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
