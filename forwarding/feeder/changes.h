// SPDX-License-Identifier: Apache-2.0

// Keeps the cache equal to the shadow table: follows each report about an entry, and settles the queue of changes.
//
//      touched --> queue --(20 ms later)--> flush --> slices --> cache_feed::settle_queued
//                                                       |
//                                                       +-- entries in doubt: the plane is asked first (doubt.h)
//
// When the queue is settled, entries that found no room before are fed (limit.h), objects that waited get ids
// (numbering.h), and the state of answers is brought up to date (condition.h).
//
// Threads: the cache thread, without the table lock. Any thread may call add_to.
#pragma once

#include <atomic>

#include "forwarding/feeder/cache/cache_feed.h"
#include "forwarding/feeder/proof/condition.h"

namespace forwarding {

class changes {
public:
    changes(feed_context &context, entry_counters &counters, change_queue &queue, cache_feed &cache, cache_limit &room,
            numbering &ids, doubt &questions, condition &answers, history &past);

    // Reports of the shadow table about an entry (shadow_table.h).
    void gone(uint32_t entry, const fdb_record &record);
    void touched(uint32_t entry);
    void affected(uint32_t entry);
    void confirmed(uint32_t entry, bool has_aged);

    // Settles the whole queue. While a removal is on its way it does nothing: the removal would destroy what is fed
    // now. Returns whether the queue is settled.
    bool settle_everything();
    // Settles a part of the queue, and schedules the next part. The event manager calls it.
    void flush();
    // Brings the gauges of the health report up to date.
    void publish();

    // Adds counters and gauges. Any thread.
    void add_to(health_view &view) const;

private:
    void settle_queue();
    size_t settle_slice();
    void refill();

    feed_context &context_;
    entry_counters &counters_;
    change_queue &queue_;
    cache_feed &cache_;
    cache_limit &limit_;
    numbering &ids_;
    doubt &doubt_;
    condition &condition_;
    history &history_;
    std::atomic<uint64_t> links_{0}, entries_{0}, unchanged_{0}; // of the shadow table
};

} // namespace forwarding
