# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Cases about external VXLAN devices on a VLAN-aware bridge. The bridge maps VLANs to VNIs on such a port. A device may
# have several own entries for one address, with different source VNIs. The entry whose source VNI is the VNI of the
# VLAN gives the tunnel end point of the address.

device=vx0 # the device that the functions below change

# add_device OPTION...: adds $device as an external VXLAN device to br0, in the VLANs 10 to 20.
add_device()
{
    ip link add "$device" type vxlan external nolearning "$@"
    ip link set "$device" master br0 up
    bridge link set dev "$device" vlan_tunnel on
    bridge vlan add dev "$device" vid 10-20
}

# add_single_device OPTION...: adds br0 and one external VXLAN device.
add_single_device()
{
    add_bridge br0 vlan_filtering 1
    add_device local 127.0.0.1 dstport 4789 "$@"
}

# map_vlans VLANS VNIS: maps one VLAN to one VNI, or a range to a range of the same length.
map_vlans()
{
    bridge vlan add dev "$device" vid "$1" tunnel_info id "$2"
}

unmap_vlans()
{
    bridge vlan del dev "$device" vid "$1" tunnel_info id "$2"
}

# add_remote MAC VLAN VNI TUNNEL_END: adds the two entries that a control plane makes for an address.
add_remote()
{
    bridge fdb add "$1" dev "$device" dst "$4" src_vni "$3" self extern_learn
    bridge fdb add "$1" dev "$device" vlan "$2" master extern_learn
}

# flood VNI TUNNEL_END: adds a destination to the flood list of a VNI.
flood()
{
    bridge fdb append 00:00:00:00:00:00 dev "$device" dst "$2" src_vni "$1" self
}

# Prints the answers that follow from the kernel's tables, in two kinds of lines:
#  - "address": an address with its port, VLAN, VNI and tunnel end point. If the VLAN has no VNI, the last two are null.
#  - "end": a tunnel end point with a port, domain and VNI that use it.
# The lines show IPv4 tunnel end points only. expect_same compares the others, and the next hops.
kernel_tunnels()
{
    bridge -j vlan tunnelshow >/tmp/map
    bridge -j -d fdb show >/tmp/fdb
    ip -j -d link show type vxlan >/tmp/links
    jq --null-input --compact-output --slurpfile map /tmp/map --slurpfile fdb /tmp/fdb --slurpfile links /tmp/links '
        def index_by(f): map({key: f, value: .}) | from_entries;
        def ipv4: if . and test("[.]") then . else null end;
        ($links[0] | index_by(.ifname)) as $devices
        | [$map[0][] | .ifname as $port | .tunnels[] | . as $range | range(.vlan; (.vlanEnd // .vlan) + 1)
            | {port: $port, vlan: ., vni: ($range.tunid + . - $range.vlan)}] as $vlans
        | [$fdb[0][] | $devices[.ifname].linkinfo.info_data.id as $id | select($id != null) + {$id}] as $entries
        | ($vlans | index_by("\(.port) \(.vlan)")) as $mapped
        | ($entries | map(select(.dst or .nhid)) | index_by("\(.ifname) \(.mac) \(.src_vni // .id)")) as $own
        | ($entries[] | select(.master and .vlan and .state != "permanent")
            | (if .id > 0 then .id else $mapped["\(.ifname) \(.vlan)"].vni end) as $vni
            | $own["\(.ifname) \(.mac) \($vni)"] as $to
            | ["address", .ifname, .mac, .vlan, ($to.vni // $vni), ($to.dst | ipv4)],
              (select($to.dst | ipv4) | ["end", .ifname, $to.dst, "guest:br0.\(.vlan)", $to.vni // $vni])),
          ($entries[] | select(.mac == "00:00:00:00:00:00" and (.dst | ipv4)) | . as $flood | $vlans[]
            | select(.port == $flood.ifname and .vni == $flood.src_vni)
            | ["end", .port, $flood.dst, "guest:br0.\(.vlan)", .vni])' |
        LC_ALL=C sort --unique
}

# Prints the same lines from the answers of l2fibctl. It leaves out tunnel end points whose domain has no VLAN: they
# belong to VNIs that no VLAN uses.
our_tunnels()
{
    {
        ctl --json-lines show mac | jq --compact-output 'select(.origin != "local" and .vlan and .port[0:2] == "vx")
            | select(."mac-address" != "00:00:00:00:00:00") | ["address", .port, ."mac-address", .vlan, .vni, .vtep]'
        ctl --json-lines show vtep | jq --compact-output 'select(.domain | test("[.][0-9]+$"))
            | ["end", .port, .address, .domain, .vni]'
    } 2>/dev/null | LC_ALL=C sort --unique
}

# expect_tunnels STEP ADDRESSES ENDS: fails unless both sides agree and the kernel has that many lines of each kind.
# ADDRESSES counts only addresses with a tunnel end point.
expect_tunnels()
{
    expect_same "$1"
    kernel_tunnels >/tmp/kernel
    our_tunnels >/tmp/ours || true # l2fibctl has a status of its own for an empty list
    expect_equal "$1" /tmp/kernel /tmp/ours
    expect_entries "$1" "$2" '^\["address".*"[0-9.]+"\]$'
    expect_entries "$1" "$3" '^\["end"'
}

case_one_vxlan_device_at_start()
{
    add_single_device
    map_vlans 10 100
    map_vlans 11-15 111-115
    add_remote 02:dd:00:00:00:01 10 100 192.0.2.1
    add_remote 02:dd:00:00:00:01 11 111 192.0.2.2
    add_remote 02:dd:00:00:00:01 15 115 192.0.2.1
    add_remote 02:dd:00:00:00:02 16 116 192.0.2.6
    flood 100 192.0.2.1
    flood 100 192.0.2.3
    flood 115 192.0.2.3
    start_daemon
    expect_tunnels "after the start" 3 5
}

case_one_vxlan_device_followed()
{
    add_single_device vnifilter
    bridge vni add vni 100-200 dev "$device"
    start_daemon
    add_remote 02:dd:00:00:00:01 10 100 192.0.2.1
    add_remote 02:dd:00:00:00:01 20 200 192.0.2.2
    add_remote 02:dd:00:00:00:02 20 200 192.0.2.1
    flood 200 192.0.2.3
    expect_tunnels "before the map" 0 0
    map_vlans 10 100
    expect_tunnels "with one VLAN mapped" 1 1
    map_vlans 20 200
    expect_tunnels "with both mapped" 3 4
    bridge fdb replace 02:dd:00:00:00:01 dev "$device" dst 192.0.2.9 src_vni 200 self extern_learn
    expect_tunnels "after a move behind another tunnel end" 3 4
    bridge fdb del 02:dd:00:00:00:02 dev "$device" src_vni 200 self
    bridge fdb del 02:dd:00:00:00:02 dev "$device" vlan 20 master
    expect_tunnels "without one of the addresses" 2 3
}

case_one_vxlan_device_remapped()
{
    add_single_device
    map_vlans 10 100
    map_vlans 11-20 111-120
    start_daemon
    add_remote 02:dd:00:00:00:01 10 100 192.0.2.1
    add_remote 02:dd:00:00:00:01 11 111 192.0.2.2
    bridge fdb add 02:dd:00:00:00:01 dev "$device" dst 192.0.2.5 src_vni 105 self extern_learn
    flood 105 192.0.2.5
    expect_tunnels "with the first map" 2 2
    unmap_vlans 10 100
    expect_tunnels "with one VLAN unmapped" 1 1
    map_vlans 10 105
    expect_tunnels "with that VLAN on another VNI" 2 2
    bridge vlan del dev "$device" vid 11
    expect_tunnels "without one of the VLANs" 1 1
    bridge link set dev "$device" vlan_tunnel off
    expect_tunnels "with tunnels of VLANs off" 0 0
    bridge link set dev "$device" vlan_tunnel on
    map_vlans 10 100
    expect_tunnels "with a map again" 1 1
    ip link set "$device" nomaster
    ip link set "$device" master br0
    expect_tunnels "after the device has left and returned" 0 0
}

# Several devices share a VNI or addresses, and one of them has IPv6 tunnel end points.
case_vxlan_devices_beside_each_other()
{
    add_single_device vnifilter
    bridge vni add vni 100-200 dev vx0
    device=vx1 add_device local 127.0.0.1 dstport 4790
    device=vx6 add_device local ::1 dstport 4791
    ip link add vx300 type vxlan id 300 local 127.0.0.1 dstport 4792 nolearning
    ip link set vx300 master br0 up
    bridge vlan add dev vx300 vid 10
    map_vlans 10-11 100-101
    device=vx1 map_vlans 10-11 100-101
    device=vx6 map_vlans 10-11 600-601
    ip nexthop add id 1 via 192.0.2.7 fdb
    ip nexthop add id 6 via 2001:db8::7 fdb
    ip nexthop add id 10 group 1 fdb
    ip nexthop add id 60 group 6 fdb
    start_daemon
    add_remote 02:dd:00:00:00:01 10 100 192.0.2.1
    bridge fdb add 02:dd:00:00:00:01 dev vx1 dst 192.0.2.9 src_vni 100 self extern_learn
    device=vx1 add_remote 02:dd:00:00:00:01 11 101 192.0.2.2
    device=vx6 add_remote 02:dd:00:00:00:02 10 600 2001:db8::1
    bridge fdb add 02:dd:00:00:00:03 dev vx300 dst 192.0.2.1 self
    bridge fdb add 02:dd:00:00:00:03 dev vx300 vlan 10 master static
    bridge fdb add 02:dd:00:00:00:04 dev vx0 nhid 10 src_vni 101 self extern_learn
    bridge fdb add 02:dd:00:00:00:04 dev vx0 vlan 11 master extern_learn
    bridge fdb add 02:dd:00:00:00:04 dev vx6 nhid 60 src_vni 600 self extern_learn
    bridge fdb add 02:dd:00:00:00:04 dev vx6 vlan 10 master extern_learn
    flood 100 192.0.2.3
    device=vx1 flood 100 192.0.2.3
    device=vx6 flood 600 2001:db8::3
    expect_tunnels "with four devices" 3 5
    bridge fdb replace 02:dd:00:00:00:01 dev vx1 vlan 10 master extern_learn
    expect_tunnels "after a move to a device with the same VNI" 3 5
    expect_entries "after a move to a device with the same VNI" 2 '"vx1".*"192.0.2.9"'
    bridge vni delete vni 101-200 dev vx0
    ip nexthop del id 6
    bridge vni add vni 200 remote 192.0.2.8 dev vx0
    map_vlans 12 200
    expect_tunnels "after changes of VNIs and next hops" 3 6
    ip link del vx1
    expect_tunnels "without one of the devices" 1 3
}

# map_scattered FIRST LAST: maps each VLAN to ten times its id as VNI. So no two VLANs share a row of the map.
map_scattered()
{
    seq "$1" "$2" | sed "s/.*/vlan add dev $device vid & tunnel_info id &0/" | bridge -batch -
}

# expect_mapped STEP VLAN...: fails unless exactly these VLANs have the address of case_vlan_map_longer_than_a_message
# behind a tunnel end point, and a flood list. `bridge vlan tunnelshow` cannot say so: it cuts a long map.
expect_mapped()
{
    local -r step=$1
    local vlan
    shift
    expect_same "$step"
    for vlan in "$@"; do
        echo "[\"address\",\"vx0\",\"02:dd:00:00:00:01\",$vlan,${vlan}0,\"192.0.2.1\"]"
        echo "[\"end\",\"vx0\",\"192.0.2.1\",\"guest:br0.$vlan\",${vlan}0]"
        echo "[\"end\",\"vx0\",\"192.0.2.3\",\"guest:br0.$vlan\",${vlan}0]"
    done | LC_ALL=C sort >/tmp/kernel
    our_tunnels | grep --invert-match null >/tmp/ours || true
    expect_equal "$step" /tmp/kernel /tmp/ours
}

# The kernel describes a port in one message, in which about 2,300 rows of a map have room.
case_vlan_map_longer_than_a_message()
{
    local vlan
    add_single_device
    bridge vlan add dev "$device" vid 2-4001
    map_scattered 2 3001
    for vlan in 20 3000 3100; do
        add_remote 02:dd:00:00:00:01 "$vlan" "${vlan}0" 192.0.2.1
        flood "${vlan}0" 192.0.2.3
    done
    start_daemon
    expect_mapped "after the start" 20 3000
    map_scattered 3002 3100
    expect_mapped "with a longer map" 20 3000 3100
    unmap_vlans 3000 30000
    expect_mapped "with one VLAN unmapped" 20 3100
    bridge vlan del dev "$device" vid 1000-4001
    expect_tunnels "with a short map" 1 2
    bridge vlan add dev "$device" vid 1000-4001
    map_scattered 1000 3100
    expect_mapped "with a long map again" 20 3000 3100
    ip link set "$device" nomaster
    expect_mapped "after the device has left"
}
