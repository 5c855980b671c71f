// SPDX-License-Identifier: Apache-2.0

// Follows the entries for which the cache has no room. A full cache evicts its newest entry for each new one. This
// class finds out which entry that was, counts it, and keeps the list of entries to feed again when there is room:
//
//      note_eviction --> lose_evicted --+
//      the cache refuses a feed --------+--> lose --> unfed --> changes::refill --> note_present
//
// Threads: the cache thread. Functions say when they need the table lock. Any thread may call those of the last
// section.
#pragma once

#include <atomic>
#include <deque>
#include <optional>

#include "forwarding/feeder/cache/cached.h"
#include "forwarding/feeder/cache/placement.h"
#include "forwarding/feeder/change_queue.h"
#include "forwarding/feeder/context.h"
#include "forwarding/feeder/history/history.h"
#include "forwarding/feeder/objects/registry.h"

namespace forwarding {

class cache_limit {
public:
    cache_limit(feed_context &context, registry &objects, entry_counters &counters, placement &places,
                change_queue &queue, history &past);

    bool cache_is_full() const L2FIB_REQUIRES_TABLE_LOCK;
    // Whether the cache can hold `entries` more without evicting any.
    bool has_room_for(size_t entries) const L2FIB_REQUIRES_TABLE_LOCK;
    // Returns the entry that a full cache evicts next. Returns no value if the cache is not full.
    std::optional<newest_entry> newest_of_full_cache() const L2FIB_REQUIRES_TABLE_LOCK;
    // Finds out whether the cache evicted `before`, its newest entry, when `fed` was filed at `place`, where the cache
    // held no such address.
    void note_eviction(const newest_entry &before, uint32_t fed, const fed_place &place) L2FIB_REQUIRES_TABLE_LOCK;
    // The cache refused an entry at `place`. `flags` are those of its descriptor.
    void note_refusal(uint32_t entry, const fed_place &place, uint16_t flags) L2FIB_REQUIRES_TABLE_LOCK;
    // The cache holds the entry, or should not hold it any more.
    void note_present(uint32_t entry);
    // If the entry belongs to a flood list, queues the list's missing destinations to be settled. They need no room,
    // because the cache now holds the list as one entry.
    void feed_rest_of_flood_list(uint32_t entry);

    // ---- The list of missing entries ----

    // Returns whether an entry waits for room. If none is missing, empties the list.
    bool has_unfed();
    // Takes the entry that waits longest out of the list. It may be present again, or free.
    uint32_t take_unfed();
    void put_unfed(uint32_t entry) { unfed_.push_back(entry); }

    // ---- Any thread ----

    uint64_t missing() const { return missing_; }
    uint64_t evictions() const { return evictions_; }
    uint64_t refused() const { return refused_; }
    // How many times the first entry became missing.
    uint64_t limitations() const { return limitations_; }

private:
    void lose_evicted(const newest_entry &victim) L2FIB_REQUIRES_TABLE_LOCK;
    void evict(uint32_t entry, const newest_entry &victim) L2FIB_REQUIRES_TABLE_LOCK;
    void lose(uint32_t entry, uint16_t flags);
    void collect_unfed();

    feed_context &context_;
    registry &objects_;
    entry_counters &counters_;
    placement &places_;
    change_queue &queue_;
    history &history_;
    std::deque<uint32_t> unfed_; // missing entries, in the order in which the cache lost them; others may be among them
    std::atomic<uint64_t> missing_{0}, evictions_{0}, refused_{0}, limitations_{0};
};

} // namespace forwarding
