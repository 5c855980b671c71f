# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Makes a small fabric of kernel bridges for scripts/run and the system tests. Source this file as root; do not run it.
#
#       host1 --+                                            +-- host3
#               +-- leaf1 (br0) --- vxlan7 --- leaf2 (br0) --+
#       host2 --+                                            +-- host4
#
# Each leaf and each host is a network namespace. The hosts have exchanged packets, so both bridges have learned all of
# them. The names of the namespaces contain the id of the process that makes them, and only those are removed.

readonly fabric="l2fib-$$"
readonly leaf1="$fabric-leaf1"
readonly leaf2="$fabric-leaf2"
readonly vni=7

# in_leaf NUMBER COMMAND...: runs the command in the namespace of the leaf.
in_leaf()
{
    local -r number=$1
    shift
    ip netns exec "$fabric-leaf$number" "$@"
}

# add_host LEAF NAME ADDRESS: makes a host and connects it to a port of the leaf's bridge.
add_host()
{
    local -r leaf=$1 name=$2 address=$3
    ip netns add "$fabric-$name"
    ip -n "$fabric-leaf$leaf" link add "$name" type veth peer name eth0 netns "$fabric-$name"
    ip -n "$fabric-leaf$leaf" link set "$name" master br0 up
    ip -n "$fabric-$name" addr add "$address/24" dev eth0
    ip -n "$fabric-$name" link set eth0 up
}

# add_leaf NUMBER OTHER: gives the leaf a bridge and a tunnel to the leaf OTHER.
add_leaf()
{
    local -r number=$1 other=$2
    ip -n "$fabric-leaf$number" addr add "192.0.2.$number/24" dev underlay
    ip -n "$fabric-leaf$number" link set underlay up
    ip -n "$fabric-leaf$number" link add br0 type bridge
    ip -n "$fabric-leaf$number" link set br0 up
    ip -n "$fabric-leaf$number" link add vxlan$vni type vxlan id $vni local "192.0.2.$number" dev underlay dstport 4789
    ip -n "$fabric-leaf$number" link set vxlan$vni master br0 up
    in_leaf "$number" bridge fdb append 00:00:00:00:00:00 dev vxlan$vni dst "192.0.2.$other"
}

make_fabric()
{
    ip netns add "$leaf1"
    ip netns add "$leaf2"
    ip -n "$leaf1" link add underlay type veth peer name underlay netns "$leaf2"
    add_leaf 1 2
    add_leaf 2 1
    add_host 1 host1 198.51.100.1
    add_host 1 host2 198.51.100.2
    add_host 2 host3 198.51.100.3
    add_host 2 host4 198.51.100.4
    local address
    for address in 2 3 4; do
        ip netns exec "$fabric-host1" ping -q -c 1 -W 5 "198.51.100.$address" >/dev/null
    done
}

remove_fabric()
{
    local name
    for name in leaf1 leaf2 host1 host2 host3 host4; do
        ip netns del "$fabric-$name" 2>/dev/null || true
    done
}
