// SPDX-License-Identifier: Apache-2.0

// The entries of a recorded table in 16 bytes each.
//
// Thousands of entries differ in address and age only: those of one port, or of one tunnel end point. So the members
// that they share are stored once, as a kind, and an entry has its address, its age and the number of its kind.
//
// Threads: one at a time until sort has returned; then any number may read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "forwarding/plane.h"

namespace forwarding {

class recorded_entries {
public:
    // `age` is in seconds, and counts from the moment at which this object was made.
    void add(const fdb_record &record, std::optional<uint32_t> age);
    // Sorts by key. Among entries with equal keys the order of add stays. Ends the adding.
    void sort();

    size_t size() const { return entries_.size(); }
    fdb_record at(size_t place) const;
    // The first entry with the key, or none. Entries must be sorted.
    std::optional<fdb_record> find(const fdb_key &key) const;

private:
    struct entry {
        mac_address mac;
        uint32_t kind;
        uint32_t age; // no_age: unknown
    };

    struct kind_hash {
        size_t operator()(const fdb_record &kind) const;
    };

    bool comes_before(const entry &left, const entry &right) const;
    void rank_kinds();

    std::vector<entry> entries_;
    std::vector<fdb_record> kinds_; // without address and time
    std::vector<uint32_t> ranks_;   // of each kind's key, so that comparing entries seldom compares keys
    std::unordered_map<fdb_record, uint32_t, kind_hash> kind_numbers_; // empty once sorted
    int64_t made_ms_ = steady_ms();

    static int64_t steady_ms();
};

} // namespace forwarding
