// SPDX-License-Identifier: Apache-2.0

// Changes of forwarding entries and next hops.
//
// Early entries. The kernel notifies a new bridge's own address before the bridge itself. The plane keeps such entries
// and reports them once their device is known.

#include <algorithm>

#include "forwarding/kernel/kernel_plane_internal.h"

namespace forwarding {

namespace {

// More can only come if the notifications of their devices were lost.
constexpr size_t max_early = 4096;

// Not true for the zero address, which is not a group address although it may have several destinations.
bool is_group(const mac_address &mac)
{
    return (mac[0] & 1U) != 0;
}

} // namespace

// ---- Entries ----

// An entry is reported if its device is known, and not if it is a receive filter.
bool kernel_plane::is_reported(const fdb_record &record) const
{
    const auto device = links_.find(record.ifindex);
    return device != links_.end()
           && (record.self ? device->second.record.kind == link_kind::vxlan : record.master != 0);
}

uint32_t kernel_plane::bridge_of(const fdb_record &record) const
{
    return record.self ? links_.at(record.ifindex).record.master : record.master;
}

void kernel_plane::take_fdb_change(const fdb_record &record)
{
    if (is_reported(record)) {
        counters_.events++;
        full_dump_note_changed(dump_, key_of(record));
        report_change(record);
    } else if (!links_.contains(record.ifindex)) {
        keep_early(record);
    }
}

void kernel_plane::take_fdb_gone(const fdb_record &record)
{
    if (!is_reported(record)) {
        early_.erase(key_of(record));
        return;
    }
    counters_.events++;
    full_dump_note_gone(dump_, record, bridge_of(record));
    if (!record.self && (record.state & fdb_permanent) != 0) {
        // The kernel can move a local address to this device without a notification. The sink then still holds it on
        // another device and would ignore fdb_gone for this one. So the plane first reports the address on this device.
        report_change(record);
    }
    if (!record.self || !is_group(record.mac) || !report_other_destination(record)) {
        sink_->fdb_gone(record);
    }
}

void kernel_plane::report_change(const fdb_record &record)
{
    note_next_hop(record);
    sink_->fdb_changed(record);
}

// A device's group address may have several destinations, of which one is gone now. If another one is left, the plane
// reports it in place of the first. Returns whether one is left.
bool kernel_plane::report_other_destination(const fdb_record &record)
{
    const fdb_key key = key_of(record);
    fdb_answer answer;
    query({&key, 1}, {&answer, 1});
    if (answer.presence == fdb_presence::present) {
        report_change(answer.record);
    }
    return answer.presence == fdb_presence::present;
}

// ---- Next hops ----

void kernel_plane::note_next_hop(const fdb_record &record)
{
    if (record.destination.kind == destination_kind::next_hop) {
        next_hops_.insert(record.destination.next_hop);
    }
}

// Next hops of routes are skipped: they come and go in masses and have no entries.
void kernel_plane::take_next_hop_gone(const kernel_message &message)
{
    const bool was_reported = next_hops_.erase(message.next_hop) != 0;
    if (!was_reported && !message.for_entries) {
        return;
    }
    counters_.events++;
    full_dump_note_next_hop_gone(dump_, message.next_hop);
    std::erase_if(early_, [&message](const auto &each) {
        const fdb_destination &to = each.second.destination;
        return to.kind == destination_kind::next_hop && to.next_hop == message.next_hop;
    });
    sink_->next_hop_gone(message.next_hop);
}

// ---- Early entries ----

void kernel_plane::keep_early(const fdb_record &record)
{
    if (early_.size() < max_early) {
        early_.insert_or_assign(key_of(record), record);
    } else {
        note_loss(0);
    }
}

void kernel_plane::take_early(uint32_t ifindex)
{
    for (auto each = early_.begin(); each != early_.end();) {
        if (each->second.ifindex == ifindex) {
            take_fdb_change(each->second);
            each = early_.erase(each);
        } else {
            each++;
        }
    }
}

// A later device may have the same interface index, and must not get these entries.
void kernel_plane::forget_early(uint32_t ifindex)
{
    std::erase_if(early_, [ifindex](const auto &each) {
        return each.second.ifindex == ifindex || each.second.master == ifindex;
    });
}

} // namespace forwarding
