// SPDX-License-Identifier: Apache-2.0

// Changes of links, of the VLANs of bridge ports, and of the local addresses that depend on both.
//
// Local addresses. A bridge holds the address of each of its devices as an entry, once for each VLAN of the device. If
// two devices have the same address, the entry stands on one of them. When that one leaves the bridge or the VLAN, or
// gets another address, the entry passes to the other device, and the kernel does not notify that. The plane asks then.

#include <algorithm>
#include <numeric>
#include <utility>

#include "forwarding/kernel/kernel_plane_internal.h"

namespace forwarding {

namespace {

constexpr uint16_t vlan_keys = max_vlans - 1; // VLANs 1 to 4094, and 0 for no VLAN

} // namespace

// ---- Links ----

// Keeps and reports a link, from a notification or a dump. Each bridge shows whether the kernel has VLAN filtering.
void kernel_plane::take_link(const link_record &record)
{
    counters_.events++;
    links_[record.ifindex] = {record, sequence_};
    if (record.kind == link_kind::bridge) {
        lacks_vlans_ = !record.can_filter_vlans;
    }
    sink_->link_changed(record);
    take_early(record.ifindex);
}

void kernel_plane::take_link_change(const link_record &record)
{
    const auto known = links_.find(record.ifindex);
    const known_link before = known != links_.end() ? known->second : known_link{};
    const bool was_known = before.record.ifindex != 0;
    const bool moved = was_known && before.record.master != record.master;
    full_dump_note_link(dump_, record.ifindex);
    if (moved) {
        full_dump_note_port_left(dump_, before.record.master);
    }
    take_link(record);
    if (record.kind == link_kind::vxlan && (moved || !was_known)) {
        dump_own_entries(record);
    }
    if (moved || (was_known && before.record.address != record.address)) {
        follow_local_address(before.record);
    }
}

void kernel_plane::take_link_gone(uint32_t ifindex)
{
    counters_.events++;
    take_vlan_vnis(ifindex, {});
    vlans_.erase(ifindex);
    const auto known = links_.extract(ifindex);
    full_dump_note_link(dump_, ifindex);
    forget_early(ifindex);
    ages_.forget_size(ifindex);
    sink_->link_gone(ifindex);
    if (!known.empty()) {
        full_dump_note_port_left(dump_, known.mapped().record.master);
        follow_local_address(known.mapped().record);
    }
}

// ---- VLANs ----

// Reports a map that differs from the known one. The kernel notifies a port's whole state for each change of the port,
// and most ports have no map.
void kernel_plane::take_vlan_vnis(uint32_t ifindex, const vni_by_vlan &vnis)
{
    const auto known = vnis_.find(ifindex);
    const bool is_known = known != vnis_.end() ? known->second.vnis == vnis : vnis.empty();
    if (!vnis.empty()) {
        vnis_[ifindex] = {vnis, sequence_};
    } else if (known != vnis_.end()) {
        vnis_.erase(known);
    }
    if (!is_known) {
        counters_.events++;
        sink_->vlan_vnis_changed(ifindex, vnis);
    }
}

// Drops the maps that the dump which just ended, and is proven, did not report.
void kernel_plane::drop_vlan_vnis_not_seen()
{
    std::vector<uint32_t> gone;
    for (const auto &[ifindex, known] : vnis_) {
        if (known.seen != sequence_) {
            gone.push_back(ifindex);
        }
    }
    for (const uint32_t ifindex : gone) {
        take_vlan_vnis(ifindex, {});
    }
}

void kernel_plane::take_vlans(uint32_t ifindex, const std::bitset<max_vlans> &vlans)
{
    const std::bitset<max_vlans> left = std::exchange(vlans_[ifindex], vlans) & ~vlans;
    const auto device = links_.find(ifindex);
    if (left.none() || device == links_.end()) {
        return;
    }
    std::vector<uint16_t> gone;
    for (uint16_t vlan = 0; vlan < max_vlans; vlan++) {
        if (left.test(vlan)) {
            gone.push_back(vlan);
        }
    }
    ask_for_local_address(device->second.record, gone);
}

// ---- Local addresses ----

// `before` is the device before it left its bridge or got another address.
void kernel_plane::follow_local_address(const link_record &before)
{
    const auto bridge = links_.find(before.kind == link_kind::bridge ? before.ifindex : before.master);
    if (bridge == links_.end() || bridge->second.record.kind != link_kind::bridge) {
        return;
    }
    std::vector<uint16_t> vlans(bridge->second.record.vlan_aware ? vlan_keys : 1);
    std::iota(vlans.begin(), vlans.end(), uint16_t{0});
    ask_for_local_address(before, vlans);
}

// Asks for the device's own address in these VLANs of its bridge, and takes the entries found as changes.
void kernel_plane::ask_for_local_address(const link_record &device, std::span<const uint16_t> vlans)
{
    const uint32_t bridge = device.kind == link_kind::bridge ? device.ifindex : device.master;
    while (!vlans.empty()) {
        std::vector<fdb_key> keys;
        for (const uint16_t vlan : vlans.first(std::min(vlans.size(), query_batch))) {
            keys.push_back({.holder = bridge, .vlan = vlan, .mac = device.address});
        }
        vlans = vlans.subspan(keys.size());
        std::vector<fdb_answer> answers(keys.size());
        query(keys, answers);
        for (const fdb_answer &answer : answers) {
            if (answer.presence == fdb_presence::present) {
                take_fdb_change(answer.record);
            }
        }
    }
}

} // namespace forwarding
