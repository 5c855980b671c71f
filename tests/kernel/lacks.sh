# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0

# Prints the features that this kernel lacks, in the words of the health report. It tries each one with iproute2. The
# guest and tests/system use it.

missing_operations()
{
    ip link add probe type bridge
    ip link set probe type bridge vlan_filtering 1 2>/dev/null || echo "VLAN filtering of bridges"
    ip nexthop add id 9999 via 192.0.2.1 fdb 2>/dev/null || echo "notifications of next hops"
    ip nexthop del id 9999 2>/dev/null || true
    bridge fdb get "$(cat /sys/class/net/probe/address)" br probe >/dev/null 2>&1 || echo "questions about single entries"
    ip link del probe
}
