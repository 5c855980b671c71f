// SPDX-License-Identifier: Apache-2.0

// Feeds single entries of the shadow table to the module, and withdraws them. The module's feed cannot remove, so an
// entry that has gone is looked up and destroyed.
//
//      settle --> standing? -- fed, of_flood_list --> feed
//                          \-- others ------------> withdraw
//
// Threads: the cache thread. Functions say when they need the table lock. Any thread may call feeds().
#pragma once

#include <atomic>

#include "forwarding/feeder/cache/limit.h"
#include "forwarding/feeder/cache/placement.h"

namespace forwarding {

class cache_feed {
public:
    cache_feed(feed_context &context, registry &objects, entry_counters &counters, placement &places, cache_limit &room,
               change_queue &queue);

    // Brings the cache to what the shadow table holds for one entry. Releases the slot of an entry that has gone.
    void settle(uint32_t entry) L2FIB_REQUIRES_TABLE_LOCK;
    // Feeds an entry again at its place, although nothing has changed. An entry that is not in the cache stays out.
    void feed_again(uint32_t entry) L2FIB_REQUIRES_TABLE_LOCK;
    // Feeds the entries of a bridge domain again after its record in the cache was destroyed, in the same hold of the
    // table lock.
    void feed_renamed(uint32_t domain) L2FIB_REQUIRES_TABLE_LOCK;

    // The VNIs with which an entry on a VXLAN port sends and receives.
    entry_vnis vnis_of(uint32_t entry) const;
    // Number of the latest entry that the cache created.
    uint64_t last_created() const { return last_created_; }

    // Entries given to the cache.
    uint64_t feeds() const { return feeds_; }

private:
    void feed(uint32_t entry, const l2fib_mac_edm_entry_t &descriptor) L2FIB_REQUIRES_TABLE_LOCK;
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
    uint64_t last_created_ = 0;
    std::atomic<uint64_t> feeds_{0};
};

} // namespace forwarding
