# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Cases with many bridges, many entries and many bridge domains.

# expect_count STEP: fails unless `show count` agrees with the last compared kernel table. Its total does not include
# local entries, so they are added.
expect_count()
{
    local -r ours=$(ctl --json show count | jq '.[0] | .total + .local') kernel=$(grep --count '"master"' /tmp/kernel)
    if ((ours != kernel)); then
        echo "show count gives $ours $1, the kernel holds $kernel"
        return 1
    fi
}

case_bridges_by_the_hundred()
{
    local number
    for ((number = 1; number <= 200; number++)); do
        echo "link add br$number type bridge"
        echo "link add p$number type dummy"
        echo "link set p$number master br$number up"
        echo "link set br$number up"
    done | ip -batch -
    start_daemon
    expect_same "after the start"
    for ((number = 1; number <= 200; number++)); do
        echo "fdb add 02:aa:00:00:00:01 dev p$number master static"
    done | bridge -batch -
    # Without VLAN filtering the kernel enters a user's entry twice: without a VLAN, and in VLAN 1, the default of new
    # ports. So 200 commands make 400 entries.
    expect_same "with the same address on each"
    expect_entries "with the same address on each" 400 '"mac":"02:aa.*"static"'
    seq 1 2 200 | sed 's/.*/link set p& nomaster/' | ip -batch -
    expect_same "without every second port"
    seq 1 2 200 | sed 's/.*/link set p& master br200/' | ip -batch -
    expect_same "with these ports on one bridge"
    seq 1 100 | sed 's/.*/link del br&/' | ip -batch -
    expect_same "without half of the bridges"
    [ "$(ctl --json-lines show domain | jq .bridge | sort --unique | wc --lines)" -eq 100 ]
    expect_count "at the end"
}

# Fails unless an answer holds all entries of VLAN 10, which stay while other VLANs are removed.
expect_stayers()
{
    local found
    found=$(ctl --json-lines show mac --domain guest:br0.10 2>/dev/null | grep --count '"02:aa' || true)
    if ((found != 20000)); then
        echo "VLAN 10 keeps its 20,000 entries, but $found are shown"
        return 1
    fi
}

case_vlans_removed_from_200000_entries()
{
    local vlan
    add_bridge br0 vlan_filtering 1 ageing_time 1000000
    add_ports br0 p0
    bridge vlan add dev p0 vid 10-19
    # The daemon starts after seven VLANs. It reads their entries in its first full dump, and the rest as changes. A
    # change costs the guest three times as much.
    for vlan in {10..19}; do
        ((vlan != 17)) || start_daemon
        entries add p0 dynamic "$vlan" 1 20000
    done
    expect_same "with 20,000 entries in each of 10 VLANs"
    expect_entries "with 20,000 entries in each of 10 VLANs" 200000 '"mac":"02:aa'
    (for vlan in {13..19}; do bridge vlan del dev p0 vid "$vlan"; done) &
    local -r remover=$!
    expect_stayers
    expect_stayers
    wait "$remover"
    expect_stayers
    expect_same "after the removal of seven VLANs"
    expect_entries "after the removal of seven VLANs" 60000 '"mac":"02:aa'
    bridge vlan del dev p0 vid 11-12
    bridge vlan add dev p0 vid 11
    entries add p0 dynamic 11 1 100
    expect_same "with a VLAN that returned"
    expect_count "at the end"
}

# add_vlan_domains NUMBER: adds a bridge with one port in every VLAN. It has 4,095 bridge domains: one for each of the
# 4,094 VLANs, and the bridge's own.
add_vlan_domains()
{
    add_bridge "br$1" vlan_filtering 1 vlan_default_pvid 0
    add_ports "br$1" "p$1"
    bridge vlan add dev "p$1" vid 1-4094
}

lacks_ids()
{
    [[ $(ctl show count 2>&1) == *"no id is left for 4080 bridge domains (limit 65535)"* ]]
}

case_more_vlans_than_ids()
{
    local number
    for ((number = 1; number <= 16; number++)); do
        add_vlan_domains "$number"
    done
    start_daemon
    add_vlan_domains 17
    wait_until lacks_ids
    [ "$(ctl --json show health | jq --raw-output '."domains-without-id"')" -eq $((17 * 4095 - 65535)) ]
    ip link del br1
    wait_until ctl show count
    [ "$(ctl --json show count --strict | jq '.[0].local')" -eq $((16 * 4095)) ]
    ctl show count --domain guest:br17.4094 | grep --quiet 4094
}
