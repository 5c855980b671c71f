// SPDX-License-Identifier: Apache-2.0

// Proves the shadow table by a sample: once a second it compares some entries with the plane. So it finds changes that
// the plane did not report. If the plane disagrees twice about an entry, a full dump begins.
//
//      second 1:                              ask about sample A --> disagreeing_
//      second 2: ask about disagreeing_;      ask about sample B --> disagreeing_
//
// Threads: the cache thread, without the table lock. Any thread may call add_to.
#pragma once

#include <atomic>
#include <vector>

#include "forwarding/feeder/proof/proof.h"

namespace forwarding {

class sample {
public:
    sample(feed_context &context, doubt &questions, proof &prover);

    // Asks again about the entries that disagreed in the last sample, then takes a new sample. The new one begins
    // behind the entry at which the last one ended, so samples cover the whole table in turn.
    void take();
    // Forgets which entries disagreed, because a full dump is due anyway.
    void forget() { disagreeing_.clear(); }

    void add_to(proof_view &view) const;

private:
    void choose();
    void compare(bool confirms);
    std::vector<fdb_answer> ask() const;
    bool agrees(uint32_t entry, const fdb_answer &answer) const;
    bool has_changed(uint32_t entry) const;
    void report(uint64_t confirmed);

    feed_context &context_;
    doubt &doubt_;
    proof &proof_;
    uint32_t cursor_ = 0;               // slot of the latest entry that the sample looked at
    std::vector<uint32_t> chosen_;      // entries of the running comparison
    std::vector<uint32_t> disagreeing_; // entries of the latest sample about which the plane disagreed
    uint32_t disagreed_ms_ = 0;         // when the plane was asked for that sample, by coarse_ms
    std::atomic<uint64_t> asked_{0}, disagreed_{0};
};

} // namespace forwarding
