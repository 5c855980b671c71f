// SPDX-License-Identifier: Apache-2.0

// The part of the feeder that follows the entries for which the cache has no room. It notes which entries the cache
// evicts or refuses, and feeds them again when there is room:
//
//      note_eviction --> lose_evicted --+
//      the cache refuses a feed --------+--> lose --> unfed_ --> refill --> settle --> note_present
//
// Threads: the cache thread. The caller holds the table lock, except for refill.
#include <cstring>

#include "forwarding/feeder/feeder.h"
#include "forwarding/feeder/table_hold.h"
#include "host/event/event_host.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

// Entries that one refill tries at most, because it holds the table lock meanwhile.
constexpr size_t refill_size = 512;
// unfed_ is rebuilt when its length exceeds twice the number of missing entries by more than this. The spare keeps
// rebuilds rare, because each one visits every entry of the shadow table.
constexpr size_t spare_slots = 4096;

} // namespace

bool feeder::cache_is_full() const
{
    return l2fm_edm_table_mac_get_pool()->mac_cnt_total >= settings_.mac_limit;
}

// Returns the last entry of the cache's list, which is the newest and the one that a full cache evicts next. Returns no
// value if the cache is not full or its list is empty.
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

// Finds out whether the cache evicted `before`, its newest entry, when `fed` was filed. The caller filed `fed` at
// `bridge_id` and `xcid`, where the cache held no such address. `before` was evicted in two cases:
//  - `fed` is the newest entry now, and the total is the same as before;
//  - the total has fallen: the cache evicted `before`, but did not create an entry for `fed`.
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

// Finds the entries of the shadow table that the cache evicted with `victim`, and notes each as lost. The cache holds a
// flood list as one entry, so evicting it loses all its destinations.
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

// Notes that the cache lacks an entry of the shadow table, counts the loss for its port, and queues a living entry for
// refill. `why` is losses::evicted or losses::refused.
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

// The cache holds the entry, or should not hold it any more.
void feeder::note_present(shadow_entry &entry)
{
    if (entry.missing) {
        entry.missing = false;
        missing_--;
    }
}

// If `entry` belongs to a flood list, queues the list's missing destinations to be settled. They need no room, because
// the cache now holds the list as one entry.
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

// Rebuilds unfed_ from the missing entries. It drops the slots of entries that went, or that were fed, after they were
// queued.
void feeder::collect_unfed()
{
    unfed_.clear();
    shadow_.for_each_entry([&](uint32_t at) {
        if (shadow_.entries[at].missing) {
            unfed_.push_back(at);
        }
    });
}

// Feeds entries that found no room before, the one that waits longest first. It stops when the cache is full or refuses
// one. If more entries could be fed, the next flush continues. Takes the table lock itself.
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
