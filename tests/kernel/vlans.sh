# shellcheck shell=bash
# VLAN-aware bridges.

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
