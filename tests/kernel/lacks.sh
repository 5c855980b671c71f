# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0

# For the guest and for tests/system: what this kernel refuses to iproute2, in the words with which health names it.

missing_operations()
{
    ip link add probe type bridge
    ip link set probe type bridge vlan_filtering 1 2>/dev/null || echo "VLAN filtering of bridges"
    ip nexthop add id 9999 via 192.0.2.1 fdb 2>/dev/null || echo "notifications of next hops"
    ip nexthop del id 9999 2>/dev/null || true
    bridge fdb get "$(cat /sys/class/net/probe/address)" br probe >/dev/null 2>&1 || echo "questions about single entries"
    ip link del probe
}
