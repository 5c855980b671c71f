// SPDX-License-Identifier: Apache-2.0

// Records at which place the cache holds an entry, and what follows from it: the counters and the tunnel end point that
// the entry uses. It feeds nothing by itself.
//
// Threads: the cache thread, with the table lock held.
#pragma once

#include "forwarding/feeder/context.h"
#include "forwarding/feeder/objects/counters.h"
#include "forwarding/feeder/objects/tunnel_ends.h"

namespace forwarding {

class placement {
public:
    placement(feed_context &context, entry_counters &counters, tunnel_ends &ends)
        : context_(context)
        , counters_(counters)
        , ends_(ends)
    {}

    // The cache holds the entry at `place` now. An entry that is fed already keeps its xcid and bridge id. `vnis`
    // counts if the place has VNIs of its own.
    void set(uint32_t entry, const fed_place &place, const entry_vnis &vnis) L2FIB_REQUIRES_TABLE_LOCK;
    // The cache does not hold the entry any more. The counters follow with the next entry_counters::count.
    void end(uint32_t entry) L2FIB_REQUIRES_TABLE_LOCK;

private:
    void leave(const fed_place &place, const mac_address &mac, bool keeps_row) L2FIB_REQUIRES_TABLE_LOCK;

    feed_context &context_;
    entry_counters &counters_;
    tunnel_ends &ends_;
};

} // namespace forwarding
