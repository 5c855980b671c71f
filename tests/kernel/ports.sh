# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Cases about kinds of ports, and about entries with special flags.

case_bond_as_port()
{
    add_bridge br0 vlan_filtering 1
    ip link add bond1 type bond mode active-backup
    ip link add m0 type dummy
    ip link add m1 type dummy
    ip link set m0 master bond1
    ip link set m1 master bond1
    ip link set bond1 master br0 up
    bridge vlan add dev bond1 vid 10
    start_daemon
    entries add bond1 dynamic 10 1 20
    expect_same "with entries on the bond"
    expect_entries "with entries on the bond" 20 '"ifname":"bond1","vlan":10.*"state":""'
    ip link set bond1 type bond active_slave m1
    expect_same "with another active member"
    ip link set bond1 address 02:00:00:00:00:b0
    expect_same "with another address"
    ip link set m0 nomaster
    ip link set m0 master br0 up
    expect_same "with a former member as a port"
    ip link set bond1 nomaster
    expect_same "after the bond has left"
    expect_entries "after the bond has left" 0 '"bond1"'
    ip link set bond1 master br0
    entries add bond1 static 1 1 20
    ip link del bond1
    expect_same "without the bond"
}

case_macvlan_devices()
{
    add_bridge br0
    add_ports br0 p0
    ip link add parent type dummy
    ip link set parent up
    start_daemon
    ip link add link br0 name mv0 type macvlan mode bridge
    ip link set mv0 up
    expect_same "with a macvlan device on the bridge"
    ip link add link p0 name mv1 address 02:00:00:00:00:41 type macvlan mode private || echo "refused, as the port is busy"
    expect_same "with a macvlan device on a port, where the kernel allows it"
    ip link add link parent name mv2 type macvlan mode passthru
    ip link set mv2 master br0 up
    entries add mv2 static 0 1 10
    expect_same "with a macvlan device as a port"
    expect_entries "with a macvlan device as a port" 10 '"ifname":"mv2","vlan":1.*"static"'
    bridge fdb add 02:00:00:00:00:42 dev parent self
    expect_same "with a receive filter"
    ip link del parent
    expect_same "without the macvlan port's parent"
    expect_entries "without the macvlan port's parent" 0 '"mv2"'
    ip link del mv0
    expect_same "without macvlan devices"
}

# lock_with_bypass STATE: locks or unlocks p0, with MAC authentication bypass (MAB) if the kernel has it. With MAB the
# port enters unknown addresses as locked entries. Linux before 6.2 lacks MAB; a locked port there learns nothing.
lock_with_bypass()
{
    bridge link set dev p0 locked "$1" learning on mab "$1" 2>/dev/null ||
        bridge link set dev p0 locked "$1" learning on
}

case_locked_and_sticky()
{
    add_bridge br0 vlan_filtering 1
    add_cabled_port br0 p0
    add_cabled_port br0 p1
    start_daemon
    bridge link set dev p0 locked on learning off
    speak p0 02:bb:00:00:00:01
    bridge fdb add 02:bb:00:00:00:02 dev p0 master static
    speak p0 02:bb:00:00:00:02
    expect_same "with a locked port"
    expect_entries "with a locked port" 1 '"mac":"02:bb.*"ifname":"p0","vlan":1'
    lock_with_bypass on
    speak p0 02:bb:00:00:00:04
    expect_same "with a locked port that learns"
    expect_entries "with a locked port that learns" "$(bridge -d link show dev p0 | grep --count 'mab on')" \
        '"mac":"02:bb:00:00:00:04"'
    lock_with_bypass off
    speak p0 02:bb:00:00:00:01
    expect_same "with the port unlocked"
    expect_entries "with the port unlocked" 1 '"mac":"02:bb:00:00:00:01","ifname":"p0","vlan":1'
    bridge fdb add 02:bb:00:00:00:03 dev p0 master static sticky
    bridge fdb replace 02:bb:00:00:00:01 dev p0 master dynamic sticky
    speak p1 02:bb:00:00:00:01
    speak p1 02:bb:00:00:00:03
    expect_same "with sticky entries whose addresses speak elsewhere"
    expect_entries "with sticky entries whose addresses speak elsewhere" 2 '"ifname":"p0","vlan":1.*"sticky"'
    bridge fdb replace 02:bb:00:00:00:03 dev p1 master static
    bridge fdb replace 02:bb:00:00:00:01 dev p0 master dynamic
    speak p1 02:bb:00:00:00:01
    expect_same "with entries that are no longer sticky"
    expect_entries "with entries that are no longer sticky" 0 '"sticky"'
    expect_entries "with entries that are no longer sticky" 1 '"mac":"02:bb:00:00:00:01","ifname":"p1","vlan":1'
}

case_control_plane()
{
    add_bridge br0 vlan_filtering 1
    add_cabled_port br0 p0
    add_cabled_port br0 p1
    ip link add vx7 type vxlan id 7 local 127.0.0.1 dstport 4789 nolearning
    ip link set vx7 master br0 up
    start_daemon
    entries add p0 extern_learn 1 1 100
    bridge fdb add 02:cc:00:00:00:01 dev vx7 dst 127.0.0.9 self extern_learn
    bridge fdb add 02:cc:00:00:00:01 dev vx7 master extern_learn
    expect_same "with entries of a control plane"
    expect_entries "with entries of a control plane" 103 '"extern_learn"'
    speak p1 02:aa:00:00:00:01
    entries replace p1 extern_learn 1 2 10
    entries replace p0 static 1 12 10
    expect_same "after moves and replacements"
    bridge fdb replace 02:cc:00:00:00:01 dev vx7 dst 127.0.0.10 self extern_learn
    expect_same "behind another tunnel end"
    bridge fdb del 02:cc:00:00:00:01 dev vx7 self
    expect_same "without the device's own entry"
    bridge fdb flush dev br0 extern_learn
    expect_same "after a flush of the control plane's entries"
    expect_entries "after a flush of the control plane's entries" 0 '"extern_learn"'
}

case_next_hops()
{
    local id
    add_bridge br0
    ip link add vx4 type vxlan id 4 local 127.0.0.1 dstport 4789
    ip link add vx6 type vxlan id 6 local ::1 dstport 4790
    ip link set vx4 master br0 up
    ip link set vx6 master br0 up
    for id in 1 2 3; do
        ip nexthop add id "$id" via "127.0.0.1$id" fdb
        ip nexthop add id "1$id" via "2001:db8::$id" fdb
    done
    ip nexthop add id 100 group 1/2 fdb
    ip nexthop add id 101 group 11/12 fdb
    bridge fdb add 02:cc:00:00:00:01 dev vx4 nhid 100
    start_daemon
    bridge fdb add 02:cc:00:00:00:02 dev vx4 nhid 100
    bridge fdb add 02:cc:00:00:00:03 dev vx6 nhid 101
    bridge fdb add 02:cc:00:00:00:04 dev vx6 dst 2001:db8::9
    bridge fdb append 00:00:00:00:00:00 dev vx6 dst 2001:db8::8
    for id in 1 2; do
        bridge fdb add "02:cc:00:00:00:0$id" dev vx4 master static
    done
    bridge fdb add 02:cc:00:00:00:03 dev vx6 master static
    expect_same "with next-hop groups of both families"
    expect_entries "with next-hop groups of both families" 3 '"nhid":10[01]'
    expect_entries "with next-hop groups of both families" 2 '"dst":"2001:db8::[89]"'
    ip nexthop replace id 100 group 2/3 fdb
    ip nexthop del id 12
    expect_same "with other members"
    bridge fdb replace 02:cc:00:00:00:02 dev vx4 dst 127.0.0.9
    expect_same "with a destination in a group's place"
    ip nexthop del id 11
    expect_same "after the last IPv6 member has gone"
    ip nexthop del id 100
    expect_lacks
    expect_same "after the IPv4 group has gone"
    expect_entries "after the IPv4 group has gone" 0 '"nhid"'
}
