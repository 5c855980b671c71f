// SPDX-License-Identifier: Apache-2.0

// The latest records of a sequence, by number. The first record has the number 1. Memory grows with the records, in
// pages of 1,024, up to the limit.
//
//      number_ring<kept_event> events(3);
//      for (...) {
//          events.reserve();
//          events.add(...);                // five records
//      }
//      events.oldest()                     // 3
//      events.newest()                     // 5
//      events[4]                           // the fourth one
//
// Threads: no lock; the owner has one.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>

#include "forwarding/slots.h"

namespace forwarding {

template <typename Record>
class number_ring {
public:
    // The functions may only be called if `limit` is at least 1.
    explicit number_ring(uint32_t limit)
        : limit_(limit)
    {}

    // Returns the record that the next one replaces; null if there is room.
    const Record *next_to_go() const { return newest_ >= limit_ ? &records_[slot_of(newest_ + 1)] : nullptr; }
    // Makes room for the next record. Throws std::bad_alloc without a change if memory runs out.
    void reserve() { records_.reach(slot_of(newest_ + 1)); }
    // Adds a record, for which room was made, and returns its number.
    uint64_t add(const Record &record)
    {
        records_[slot_of(newest_ + 1)] = record;
        return ++newest_;
    }

    // The number of the latest record; 0: there is none yet.
    uint64_t newest() const { return newest_; }
    // The number of the first record that is kept; 1 if there is none yet.
    uint64_t oldest() const { return newest_ > limit_ ? newest_ - limit_ + 1 : 1; }
    uint64_t size() const { return newest_ + 1 - oldest(); }
    // Only for numbers from oldest() to newest().
    const Record &operator[](uint64_t number) const { return records_[slot_of(number)]; }

    uint32_t limit() const { return limit_; }
    size_t bytes() const { return size_t{records_.bound()} * sizeof(Record); }

private:
    uint32_t slot_of(uint64_t number) const
    {
        assert(limit_ != 0);
        return static_cast<uint32_t>((number - 1) % limit_);
    }

    const uint32_t limit_;
    uint64_t newest_ = 0;
    slot_records<Record> records_;
};

} // namespace forwarding
