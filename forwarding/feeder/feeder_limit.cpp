// SPDX-License-Identifier: Apache-2.0

// What the cache has no room for: which entries it gives up or refuses, and their return. Under the table lock unless
// said otherwise.
#include <cstring>

#include "forwarding/feeder/feeder.h"
#include "forwarding/feeder/table_hold.h"
#include "host/event/event_host.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

// Entries that found no place before are tried again, at most so many at a time.
constexpr size_t refill_size = 512;
// The queue of missing entries may hold so many slots more than entries are missing.
constexpr size_t spare_slots = 4096;

} // namespace

bool feeder::cache_is_full() const
{
    return l2fm_edm_table_mac_get_pool()->mac_cnt_total >= settings_.mac_limit;
}

// The cache's list ends with the newest entry. A list that is empty gives nothing up.
std::optional<feeder::newest_entry> feeder::newest_of_full_cache() const
{
    const l2fm_edm_ll_root_t &list = *l2fm_edm_table_ll_get_root();
    if (!cache_is_full() || list.ll_count == 0) {
        return std::nullopt;
    }
    const auto *link = reinterpret_cast<const char *>(list.ll_last);
    const auto *mac = reinterpret_cast<const l2fm_edm_mac_t *>(link - offsetof(l2fm_edm_mac_t, list_link));
    if (mac->bp == nullptr || mac->bp->bd == nullptr) {
        return std::nullopt;
    }
    newest_entry newest{
        mac->bp->xcid, static_cast<uint16_t>(mac->bp->bd->bridge_id), {}, l2fm_edm_table_mac_get_pool()->mac_cnt_total};
    std::memcpy(newest.mac.data(), mac->mac_addr, newest.mac.size());
    return newest;
}

// `fed` was filed at the place that the last two name, where the cache held nothing before.
void feeder::note_eviction(const newest_entry &before, const shadow_entry &fed, uint16_t bridge_id, uint32_t xcid)
{
    const std::optional<newest_entry> now = newest_of_full_cache();
    const bool was_created = now && now->xcid == xcid && now->bridge_id == bridge_id && now->mac == fed.record.mac
                             && now->total == before.total;
    const bool was_lost_for_nothing = l2fm_edm_table_mac_get_pool()->mac_cnt_total < before.total;
    if (was_created || was_lost_for_nothing) {
        lose_evicted(before);
    }
}

// An evicted flood list was the place of several entries.
void feeder::lose_evicted(const newest_entry &victim)
{
    evictions_++;
    const auto port = ports_by_xcid_.find(victim.xcid);
    const bool is_flood_list = victim.mac == mac_address{} && port != ports_by_xcid_.end();
    if (is_flood_list) {
        const uint32_t group = shadow_.find_group(shadow_.ports[port->second].key, victim.mac);
        uint32_t at = group != no_slot ? shadow_.groups[group].first : no_slot;
        for (; at != no_slot; at = shadow_.entries[at].group_next) {
            if (shadow_.entries[at].fed_xcid == victim.xcid) {
                lose(at, victim.bridge_id, victim.xcid, &losses::evicted);
            }
        }
        return;
    }
    const auto domain = domains_by_id_.find(victim.bridge_id);
    if (domain == domains_by_id_.end()) {
        return;
    }
    const shadow_domain &in = shadow_.domains[domain->second];
    const uint32_t at = shadow_.find({in.bridge, false, in.vlan, 0, victim.mac, {}});
    if (at != no_slot && shadow_.entries[at].fed_xcid == victim.xcid) {
        lose(at, victim.bridge_id, victim.xcid, &losses::evicted);
    }
}

// The cache does not hold an entry of the shadow table that it should.
void feeder::lose(uint32_t at, uint16_t bridge_id, uint32_t xcid, uint64_t losses::*why)
{
    shadow_entry &entry = shadow_.entries[at];
    if (why == &losses::evicted) {
        leave_vtep(entry);
        entry.fed_xcid = 0;
    } else {
        entries_refused_++;
    }
    count_entry(at);
    if (entry.alive && !entry.missing) {
        entry.missing = true;
        limitations_ += missing_++ == 0 ? 1 : 0;
        unfed_.push_back(at);
    }
    if (unfed_.size() > 2 * missing_ + spare_slots) {
        collect_unfed();
    }
    const std::lock_guard hold(views_mutex_);
    ++(losses_[{bridge_id, xcid}].*why);
}

void feeder::note_present(shadow_entry &entry)
{
    if (entry.missing) {
        entry.missing = false;
        missing_--;
    }
}

// The other destinations of a flood list need no room beside the one that has found it.
void feeder::feed_rest_of_flood_list(const shadow_entry &entry)
{
    const bool is_of_list = entry.group != no_slot && entry.record.mac == mac_address{};
    for (uint32_t at = is_of_list ? shadow_.groups[entry.group].first : no_slot; at != no_slot;
         at = shadow_.entries[at].group_next) {
        if (shadow_.entries[at].missing) {
            entry_affected(at);
        }
    }
}

// Entries that went or found their place otherwise leave their slots in the queue.
void feeder::collect_unfed()
{
    unfed_.clear();
    shadow_.for_each_entry([&](uint32_t at) {
        if (shadow_.entries[at].missing) {
            unfed_.push_back(at);
        }
    });
}

// Without the table lock.
void feeder::refill()
{
    if (missing_ == 0) {
        unfed_.clear();
        return;
    }
    const table_hold hold;
    const uint64_t refused = entries_refused_;
    for (size_t tries = 0; tries < refill_size && !unfed_.empty() && !cache_is_full(); tries++) {
        const uint32_t at = unfed_.front();
        unfed_.pop_front();
        const shadow_entry &entry = shadow_.entries[at];
        if (entry.alive && entry.missing && !entry.dirty) {
            settle(at);
        }
        if (entry.missing) {
            unfed_.push_back(at);
        }
        if (entries_refused_ != refused) {
            return;
        }
    }
    if (!unfed_.empty() && !cache_is_full()) {
        flush_again();
    }
}

} // namespace forwarding
