// SPDX-License-Identifier: Apache-2.0

// The rows of the benchmark that measure the table itself: what each does, and its targets.
#pragma once

#include <array>
#include <span>

#include "bench/contestant.h"

namespace bench {

// What the table holds when a pass begins. A pass that begins with a full table and empties it needs a new one each
// time.
enum class before : uint8_t { empty, full, full_then_empty };

enum class figure : uint8_t {
    time,         // nanoseconds of processor time for one item
    slowest_feed, // microseconds of processor time of the slowest single feed
    memory        // bytes of resident memory for one entry
};

inline constexpr size_t target_count = 3; // for 10,000, 100,000 and 1,000,000 entries

struct row {
    const char *key;
    const char *title;
    layout over;
    before needs;
    figure measures;
    uint64_t (*pass)(contestant &at, const work &on); // null if the figure needs its own way to measure
    size_t (*items)(const work &on);
    std::array<double, target_count> at_most; // as a ratio to "full"; 0: no target
    double most;                              // of our own figure at any size; 0: no target
    double instructions;                      // for one item at 10,000 entries; 0: no target
};

std::span<const row> all_rows();

} // namespace bench
