// SPDX-License-Identifier: Apache-2.0

// The latest moves and departures, with an index by address. All records of a bucket of addresses form a chain, from
// the latest one back:
//
//      bucket of A and B --> 9 (A) --> 7 (B) --> 4 (A) --> 1 (A)
//
// A chain ends at the first number that is no longer kept, so nothing is removed from the index.
//
// A move takes 32 bytes and its share of the index 4 to 8.
//
// Threads: no lock; the owner has one.
#pragma once

#include <vector>

#include "forwarding/feeder/answers/history.h"
#include "forwarding/feeder/history/number_ring.h"

namespace forwarding {

struct kept_move {
    int64_t time_ms = 0;       // since the epoch
    uint32_t place = no_slot;  // in the book; no_slot unless moved
    uint32_t before = no_slot; // likewise; always set
    uint32_t was_since_s = 0;  // when it came to `before`, since the epoch; 0: unknown
    uint32_t chain = 0;        // how much lower the number of the next record of the chain is; 0: the chain ends
    mac_address mac = {};
    change_kind kind = change_kind::moved;
    bool by_limit = false;
};

static_assert(sizeof(kept_move) == 32, "a hundred thousand of these exist");

class move_log {
public:
    // `limit` 0: keeps none.
    explicit move_log(uint32_t limit)
        : ring_(limit)
    {}

    bool keeps_any() const { return ring_.limit() != 0; }
    // Returns the record that the next one replaces; null if there is room.
    const kept_move *next_to_go() const { return ring_.next_to_go(); }
    // Makes room for the next record. Only if keeps_any(). Throws std::bad_alloc without a change if memory runs out.
    void reserve();
    // Adds a record, for which room was made. Sets its `chain`.
    void add(kept_move move);

    const number_ring<kept_move> &ring() const { return ring_; }
    // The number of the latest record of an address below `before`; 0: none is kept.
    uint64_t latest_of(const mac_address &mac, uint64_t before) const;

    size_t bytes() const { return ring_.bytes() + buckets_.size() * sizeof(uint64_t); }

private:
    size_t bucket_of(const mac_address &mac) const;
    uint64_t first_of_chain(size_t bucket, uint64_t before) const;
    uint64_t next_of_chain(uint64_t number) const;

    number_ring<kept_move> ring_;
    std::vector<uint64_t> buckets_; // the latest number of each chain; empty until the first record
};

} // namespace forwarding
