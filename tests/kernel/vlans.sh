# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Cases about VLAN-aware bridges.

case_vlan_filtering_switched()
{
    add_bridge br0 vlan_filtering 1
    add_ports br0 p0 p1
    bridge vlan add dev p0 vid 10-12
    bridge vlan add dev br0 vid 10 self
    start_daemon
    entries add p0 static 10 1 20
    entries add p0 dynamic 12 1 20
    entries add p1 static 1 41 20
    expect_same "with VLAN filtering"
    expect_entries "with VLAN filtering" 20 '"vlan":12,.*"state":""'
    local round
    for round in 1 2; do
        ip link set br0 type bridge vlan_filtering 0
        expect_same "with VLAN filtering off, round $round"
        entries add p1 static 0 $((round * 100)) 10
        expect_same "with entries without a VLAN, round $round"
        ip link set br0 type bridge vlan_filtering 1
        expect_same "with VLAN filtering on again, round $round"
    done
    expect_entries "at the end" 20 '"vlan":10,.*"state":"static"'
}

case_vlan_ranges()
{
    local vlan
    add_bridge br0 vlan_filtering 1
    add_ports br0 p0 p1
    bridge vlan add dev p0 vid 100-199
    start_daemon
    for vlan in 100 149 150 199; do
        entries add p0 dynamic "$vlan" 1 5
    done
    entries add p0 static 160 6 5
    expect_same "with a range on one port"
    expect_entries "with a range on one port" 20 '"mac":"02:aa.*"state":""'
    bridge vlan add dev p1 vid 150-250
    expect_same "with a second range"
    bridge vlan add dev br0 vid 100-199 self
    expect_same "with a range on the bridge itself"
    bridge vlan del dev p0 vid 150-199
    expect_same "without the upper half of the first range"
    expect_entries "without the upper half of the first range" 10 '"mac":"02:aa.*"state":""'
    bridge vlan del dev br0 vid 120-180 self
    expect_same "without the middle of the bridge's range"
    bridge vlan del dev p0 vid 1-199
    expect_same "without any VLAN on the first port"
}

case_vlans_by_the_thousand()
{
    add_bridge br0 vlan_filtering 1
    add_ports br0 p0 p1
    bridge vlan add dev p0 vid 2-4001
    start_daemon
    expect_same "after the start"
    expect_entries "after the start" 4001 '"ifname":"p0","vlan":[0-9]+.*"permanent"'
    bridge vlan add dev p1 vid 2-4001
    expect_same "with as many on a second port"
    bridge vlan del dev p0 vid 1000-2999
    expect_same "after the removal of half of them"
    ip link set p0 address 02:00:00:00:00:99
    expect_same "after a change of the port's address"
    expect_entries "after a change of the port's address" 2001 '"mac":"02:00:00:00:00:99","ifname":"p0","vlan"'
    ip link set br0 type bridge vlan_filtering 0
    expect_same "with VLAN filtering off"
    ip link set br0 type bridge vlan_filtering 1
    expect_same "with VLAN filtering on again"
    ip link set p1 nomaster
    expect_same "after the second port has left"
    ip link del br0
    expect_same "without the bridge"
}

case_vlan_flushed()
{
    local vlan
    add_bridge br0 vlan_filtering 1
    add_ports br0 p0 p1
    for vlan in 10 20; do
        bridge vlan add dev p0 vid "$vlan"
        bridge vlan add dev p1 vid "$vlan"
        entries add p0 dynamic "$vlan" 1 50
        entries add p1 dynamic "$vlan" 51 50
        entries add p1 static "$vlan" 101 50
    done
    start_daemon
    expect_same "before"
    bridge fdb flush dev br0 vlan 10 dynamic
    expect_same "after a flush of VLAN 10's dynamic entries"
    expect_entries "after a flush of VLAN 10's dynamic entries" 50 '"mac":"02:aa.*"vlan":10'
    bridge fdb flush dev br0 brport p1 vlan 20
    expect_same "after a flush of VLAN 20 on one port"
    expect_entries "after a flush of VLAN 20 on one port" 50 '"mac":"02:aa.*"vlan":20'
    bridge fdb flush dev p0 master
    expect_same "after a flush of a port"
    bridge fdb flush dev br0
    expect_same "after a flush of the bridge"
    expect_entries "after a flush of the bridge" 0 '"mac":"02:aa'
}

case_frames_with_tags()
{
    add_bridge br0 vlan_filtering 1
    add_cabled_port br0 trunk
    add_cabled_port br0 access
    bridge vlan add dev trunk vid 10-20
    bridge vlan add dev access vid 30 pvid untagged
    start_daemon
    speak trunk 02:bb:00:00:00:01 10
    speak trunk 02:bb:00:00:00:01 20
    speak trunk 02:bb:00:00:00:02
    speak trunk 02:bb:00:00:00:03 40
    speak access 02:bb:00:00:00:04
    expect_same "after frames on both ports"
    expect_entries "after frames on both ports" 4 '"mac":"02:bb.*"state":""'
    bridge vlan add dev access vid 10
    speak access 02:bb:00:00:00:01 10
    expect_same "after the address moved in one VLAN"
    expect_entries "after the address moved in one VLAN" 1 '"mac":"02:bb:00:00:00:01","ifname":"access","vlan":10'
    bridge vlan add dev access vid 31 pvid untagged
    speak access 02:bb:00:00:00:04
    expect_same "after a change of the port's VLAN for untagged frames"
    expect_entries "after a change of the port's VLAN for untagged frames" 2 '"mac":"02:bb:00:00:00:04".*"vlan":3[01]'
    bridge vlan del dev access vid 30
    expect_same "without its former VLAN"
    ip link set br0 type bridge vlan_default_pvid 7
    speak trunk 02:bb:00:00:00:05
    expect_same "with another default VLAN of the bridge"
    expect_entries "with another default VLAN of the bridge" 1 '"mac":"02:bb:00:00:00:05".*"vlan":7'
    ip link add link br0 name br0.10 type vlan id 10
    bridge vlan add dev br0 vid 10 self
    ip link set br0.10 address 02:00:00:00:00:10 up
    expect_same "with a VLAN interface on the bridge"
}

# id_of_vlan VLAN: prints the bridge id of the VLAN's bridge domain on br0, or nothing if it has none.
id_of_vlan()
{
    ctl --json-lines show domain | jq "select(.vlan == $1) | .\"bridge-id\""
}

has_ended()
{
    [[ -z $(id_of_vlan "$1") ]]
}

# A VLAN's bridge domain lives as long as a port has an entry in the VLAN.
case_domains_come_and_go_with_entries()
{
    local id
    add_bridge br0 vlan_filtering 1 vlan_default_pvid 0
    add_ports br0 p0 p1
    start_daemon
    has_ended 10
    bridge vlan add dev p0 vid 10
    ctl resync
    id=$(id_of_vlan 10)
    [ -n "$id" ]
    bridge vlan add dev p1 vid 10
    entries add p1 static 10 1 2
    bridge vlan del dev p0 vid 10
    ip link set p0 nomaster
    sleep 3 # s; a domain without entries ends within two
    [ "$(id_of_vlan 10)" = "$id" ]
    bridge vlan del dev p1 vid 10
    sleep 3
    expect_same "without the VLAN on any port"
    expect_entries "without the VLAN on any port" 2 '"mac":"02:aa.*"vlan":10'
    [ "$(id_of_vlan 10)" = "$id" ]
    # The kernel refuses to delete single entries of a VLAN that the port left, so this flushes the VLAN.
    bridge fdb flush dev br0 vlan 10
    wait_until has_ended 10
}
