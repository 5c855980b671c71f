# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# shellcheck source=vxlan.sh
source /cases/vxlan.sh

# The leaf of docs/operations.md. It has two VLANs of hosts, one external VXLAN device and one VXLAN device with its own
# VNI. It also has the entries that a control plane makes.

make_leaf()
{
    ip link add br0 type bridge vlan_filtering 1 vlan_default_pvid 0
    ip link set br0 up
    ip link add vx0 type vxlan external local 192.0.2.1 dstport 4789 nolearning
    ip link set vx0 master br0 up
    bridge link set dev vx0 vlan_tunnel on learning off
    local port
    for port in eth1 eth2; do
        ip link add "$port" type dummy
        ip link set "$port" master br0 up
    done
    bridge vlan add dev eth1 vid 10 pvid untagged
    bridge vlan add dev eth2 vid 20 pvid untagged
    bridge vlan add dev vx0 vid 10
    bridge vlan add dev vx0 vid 20
    bridge vlan add dev vx0 vid 10 tunnel_info id 100
    bridge vlan add dev vx0 vid 20 tunnel_info id 200
}

fill_leaf()
{
    bridge fdb append 00:00:00:00:00:00 dev vx0 dst 192.0.2.2 src_vni 100
    bridge fdb append 00:00:00:00:00:00 dev vx0 dst 192.0.2.3 src_vni 200
    bridge fdb add 02:00:00:00:00:0a dev vx0 dst 192.0.2.2 src_vni 100 self extern_learn
    bridge fdb add 02:00:00:00:00:0a dev vx0 vlan 10 master extern_learn
    bridge fdb add 02:00:00:00:00:0a dev vx0 dst 192.0.2.3 src_vni 200 self extern_learn
    bridge fdb add 02:00:00:00:00:0a dev vx0 vlan 20 master extern_learn
    bridge fdb add 02:00:00:00:00:01 dev eth1 vlan 10 master static
}

domains()
{
    ctl --json-lines show domain | jq --raw-output .name | LC_ALL=C sort | tr '\n' ' '
}

case_evpn_leaf()
{
    make_leaf
    start_daemon
    fill_leaf
    expect_tunnels "with all entries" 2 2
    ctl show mac 02:00:00:00:00:0a >/tmp/ours
    [[ $(awk 'NR > 1 { print $1, $6, $7, $8 }' /tmp/ours | LC_ALL=C sort) == $'guest:br0.10 10 100 192.0.2.2\nguest:br0.20 20 200 192.0.2.3' ]] ||
        { cat /tmp/ours && return 1; }
    [[ $(ctl --json-lines show vtep | jq --compact-output '[.address, .domain, .vni]' | LC_ALL=C sort | tr '\n' ' ') == \
        '["192.0.2.2","guest:br0.10",100] ["192.0.2.3","guest:br0.20",200] ' ]] || { ctl show vtep && return 1; }
    [[ $(domains) == "guest:br0 guest:br0.10 guest:br0.20 " ]] || { domains && return 1; }
    # Adds a VXLAN device with its own VNI, then removes the last use of VLAN 20.
    ip link add vx300 type vxlan id 300 local 192.0.2.1 dstport 4790 nolearning
    ip link set vx300 master br0 up
    bridge vlan add dev vx300 vid 10
    bridge fdb add 02:00:00:00:00:0b dev vx300 dst 192.0.2.4 self permanent
    bridge fdb add 02:00:00:00:00:0b dev vx300 vlan 10 master static
    expect_tunnels "with a second device" 3 3
    expect_entries "with a second device" 1 '"02:00:00:00:00:0b",10,300,"192.0.2.4"'
    bridge fdb del 02:00:00:00:00:0a dev vx0 vlan 20 master
    bridge vlan del dev vx0 vid 20
    bridge vlan del dev eth2 vid 20
    wait_until domains_are "guest:br0 guest:br0.10 "
    expect_same "without a VLAN"
}

domains_are()
{
    [[ $(domains) == "$1" ]]
}
