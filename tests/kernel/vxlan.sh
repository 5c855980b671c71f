# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# One VXLAN device for all VNIs of a VLAN-aware bridge. The bridge maps VLANs to VNIs on that port; of the device's own
# entries for an address, the one whose source VNI is the VLAN's says behind which tunnel end the address is.

readonly device=vx0

# add_single_device OPTION...
add_single_device()
{
    add_bridge br0 vlan_filtering 1
    ip link add "$device" type vxlan external "$@" local 127.0.0.1 dstport 4789 nolearning
    ip link set "$device" master br0 up
    bridge link set dev "$device" vlan_tunnel on
    bridge vlan add dev "$device" vid 10-20
}

# map_vlans VLANS VNIS: one of each, or ranges of one length.
map_vlans()
{
    bridge vlan add dev "$device" vid "$1" tunnel_info id "$2"
}

unmap_vlans()
{
    bridge vlan del dev "$device" vid "$1" tunnel_info id "$2"
}

# add_remote MAC VLAN VNI TUNNEL_END: what a control plane enters for an address.
add_remote()
{
    bridge fdb add "$1" dev "$device" dst "$4" src_vni "$3" self extern_learn
    bridge fdb add "$1" dev "$device" vlan "$2" master extern_learn
}

# flood VNI TUNNEL_END
flood()
{
    bridge fdb append 00:00:00:00:00:00 dev "$device" dst "$2" src_vni "$1" self
}

# What the kernel's tables come to, as two lists of lines: addresses with VLAN, VNI and tunnel end, and tunnel ends with
# the domains and VNIs that use them. A VLAN without a VNI gives an address neither.
kernel_tunnels()
{
    bridge -j vlan tunnelshow >/tmp/map
    bridge -j -d fdb show >/tmp/fdb
    jq --null-input --compact-output --arg device "$device" --slurpfile map /tmp/map --slurpfile fdb /tmp/fdb '
        [$map[0][] | select(.ifname == $device).tunnels[] | . as $range
            | range(.vlan; (.vlanEnd // .vlan) + 1) | {vlan: ., vni: ($range.tunid + . - $range.vlan)}] as $vlans
        | [$fdb[0][] | select(.ifname == $device)] as $entries
        | ([$vlans[] | {key: "\(.vlan)", value: .vni}] | from_entries) as $vni_of
        | ([$entries[] | select(.dst and .src_vni) | {key: "\(.mac) \(.src_vni)", value: .}] | from_entries) as $own
        | ($entries[] | select(.master and .vlan and .state != "permanent")
            | $vni_of["\(.vlan)"] as $vni | $own["\(.mac) \($vni)"] as $to
            | ["address", .mac, .vlan, (if $to then $to.vni // $vni else null end), $to.dst],
              (select($to) | ["end", $to.dst, "guest:br0.\(.vlan)", $to.vni // $vni])),
          ($entries[] | select(.mac == "00:00:00:00:00:00" and .dst) | . as $flood
            | $vlans[] | select(.vni == $flood.src_vni) | ["end", $flood.dst, "guest:br0.\(.vlan)", .vni])' |
        LC_ALL=C sort --unique
}

# Tunnel ends without a VLAN are those of VNIs that no VLAN has.
our_tunnels()
{
    {
        ctl --json-lines show mac --port "$device" | jq --compact-output 'select(.origin != "local" and .vlan)
            | select(."mac-address" != "00:00:00:00:00:00") | ["address", ."mac-address", .vlan, .vni, .vtep]'
        ctl --json-lines show vtep | jq --compact-output 'select(.domain | test("[.][0-9]+$"))
            | ["end", .address, .domain, .vni]'
    } 2>/dev/null | LC_ALL=C sort --unique
}

# expect_tunnels STEP ADDRESSES ENDS: both sides agree, and the kernel has that many of each.
expect_tunnels()
{
    expect_same "$1"
    kernel_tunnels >/tmp/kernel
    our_tunnels >/tmp/ours || true # an empty list has a status of its own
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
