// SPDX-License-Identifier: Apache-2.0

// Feeds entries of the shadow table to the module, and withdraws them. The module's feed cannot remove, so an entry
// that has gone is looked up and destroyed.
//
//      settle --> standing? -- fed, of_flood_list --> feed
//                          \-- others ------------> withdraw
//
// Batches. settle_queued feeds several entries with one call of the module, which is faster than a call for each. The
// result is the same as with single feeds in the order of the queue. So an entry joins a batch only if nothing but its
// own feed depends on the cache, and the batch cannot fill the cache:
//
//      new at its place, or there already     joins
//      not to be fed, and not in the cache    joins, so that it does not end the batch; it is only counted
//      moves, goes, or shows something else   fed or withdrawn alone, after the batch: it may take something out of
//                                             the cache, and history.h follows it
//      bridge's or VXLAN device's own         fed alone: cached.h files it in several steps
//      the cache would be full                fed alone, because the feed may evict an entry (limit.h)
//
// Threads: the cache thread. Functions say when they need the table lock. Any thread may call feeds().
#pragma once

#include <array>
#include <atomic>
#include <span>

#include "forwarding/feeder/cache/limit.h"
#include "forwarding/feeder/cache/placement.h"
#include "forwarding/feeder/history/history.h"

namespace forwarding {

class cache_feed {
public:
    static constexpr size_t max_batch = 64;

    cache_feed(feed_context &context, registry &objects, entry_counters &counters, placement &places, cache_limit &room,
               change_queue &queue, history &past);

    // Brings the cache to what the shadow table holds for one entry. Releases the slot of an entry that has gone.
    void settle(uint32_t entry) L2FIB_REQUIRES_TABLE_LOCK;
    // Settles the first entries of the queue of changes, at most max_batch, and takes them out of it. Throws
    // std::bad_alloc if memory runs out. The entries that are not settled then stay in the queue.
    void settle_queued(std::span<const uint32_t> entries) L2FIB_REQUIRES_TABLE_LOCK;
    // Feeds the entries of a bridge domain again after its record in the cache was destroyed, in the same hold of the
    // table lock.
    void feed_renamed(uint32_t domain) L2FIB_REQUIRES_TABLE_LOCK;

    // The VNIs with which an entry on a VXLAN port sends and receives.
    entry_vnis vnis_of(uint32_t entry) const;
    // The latest value of feed_record::created.
    uint64_t last_created() const { return last_created_; }

    // Entries given to the cache.
    uint64_t feeds() const { return feeds_; }

private:
    // An entry to settle.
    struct step {
        uint32_t entry;
        standing now;
        bool was_fed;    // the cache held it when this was planned
        fed_place place; // where it is to be fed, if `now` is fed or of_flood_list
    };

    // Entries that are described and wait for the feed of their batch.
    struct batch {
        std::array<step, max_batch> steps;
        size_t step_count = 0;
        std::array<l2fib_mac_edm_entry_t, max_batch> descriptors; // of the steps that are to be fed, in their order
        size_t descriptor_count = 0;
    };

    step plan(uint32_t entry, l2fib_mac_edm_entry_t &descriptor) const;
    bool joins_batch(const step &next, const l2fib_mac_edm_entry_t &descriptor) const L2FIB_REQUIRES_TABLE_LOCK;
    void settle_batch() L2FIB_REQUIRES_TABLE_LOCK;
    void settle_alone(const step &planned, const l2fib_mac_edm_entry_t &descriptor) L2FIB_REQUIRES_TABLE_LOCK;
    void keep_out(const step &planned) L2FIB_REQUIRES_TABLE_LOCK;
    void feed_renamed_entry(uint32_t entry) L2FIB_REQUIRES_TABLE_LOCK;
    void feed(const step &planned, const l2fib_mac_edm_entry_t &descriptor) L2FIB_REQUIRES_TABLE_LOCK;
    void note_status(const step &planned, const l2fib_mac_edm_entry_t &descriptor,
                     uint32_t status) L2FIB_REQUIRES_TABLE_LOCK;
    void note_fed(uint32_t entry, const l2fib_mac_edm_entry_t &descriptor,
                  const fed_place &place) L2FIB_REQUIRES_TABLE_LOCK;
    void withdraw(uint32_t entry) L2FIB_REQUIRES_TABLE_LOCK;
    uint32_t sharing_entry(uint32_t entry) const;
    fed_place place_of(uint32_t entry, const l2fib_mac_edm_entry_t &descriptor) const;

    feed_context &context_;
    registry &objects_;
    entry_counters &counters_;
    placement &places_;
    cache_limit &limit_;
    change_queue &queue_;
    history &history_;
    batch batch_;
    uint64_t last_created_ = 0;
    std::atomic<uint64_t> feeds_{0};
};

} // namespace forwarding
