// SPDX-License-Identifier: Apache-2.0

// The rows of the benchmark that measure the table itself: what each does, and its targets.
#pragma once

#include <array>
#include <span>

#include "bench/table/contestant.h"

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

struct targets {
    std::array<double, target_count> at_most = {}; // as a ratio to "full"; 0: none
    double instructions = 0;                       // for one item at 10,000 entries; 0: none
    double most = 0;                               // of our own figure; 0: none
    size_t most_from = 0;                          // the number of entries from which `most` counts
};

using pass_fn = uint64_t (*)(contestant &at, const work &on);

struct row {
    const char *key;
    const char *title;
    targets goal;
    pass_fn pass; // null if the figure needs its own way to measure
    before needs = before::full;
    figure measures = figure::time;
    layout over = main_layout;
    size_t steps = 0; // the items of a pass; 0: one for each entry
};

// How many items a pass of the row has.
size_t items_of(const row &of, const work &on);

std::span<const row> all_rows();

} // namespace bench
