// SPDX-License-Identifier: Apache-2.0

// A contestant and what its table holds now, so that a row finds the content that it needs without a new table for each
// sample.
#pragma once

#include "bench/table/measure.h"
#include "bench/table/rows.h"

namespace bench {

enum class content : uint8_t { closed, empty, full, spent };

struct seat {
    contestant *table;
    content now = content::closed;
    const work *of = nullptr; // the work that the table was opened for
};

// Gives the table the content that a row needs. Returns false if this machine cannot run the contestant, or if the work
// is too large for it.
bool prepare(seat &at, const row &wanted, const work &on);

// Runs the pass of a row once on a prepared table. Returns `cannot` if the contestant cannot do it.
uint64_t run_pass(seat &at, const row &wanted, const work &on);

// Prepares the table and measures the row once. Returns false if the contestant cannot do it.
bool take_sample(seat &at, const row &wanted, const work &on, std::vector<sample> &samples);

void close(seat &at);

// Gives both contestants the same work, with moves and removals, and compares their answers. Returns false if this
// machine cannot run the peer. Throws std::runtime_error if an answer differs.
bool check_answers(contestant &ours, contestant &peer);

} // namespace bench
