// SPDX-License-Identifier: Apache-2.0

// Whether something has put the shadow table in doubt, and the questions to the plane before an entry is settled.
//
// The feeder asks the plane by address before it settles these entries:
//  - an entry that is reported gone while answers are degraded, because the report of its return may be lost;
//  - a contested entry, because two processors may have reported its changes in the wrong order.
// If the plane answers that it holds no such entry, the entry is removed. For a contested entry without an answer, the
// latest report holds if answers are not degraded.
//
// Threads: the cache thread, without the table lock. Any thread may call the functions of the last section.
#pragma once

#include <atomic>
#include <span>
#include <vector>

#include "forwarding/feeder/context.h"

namespace forwarding {

// Entries that the latest full dump has put right.
struct mended_entries {
    uint64_t stale = 0;   // the shadow table held them, and the plane no longer did
    uint64_t missing = 0; // the plane held them, and no change had reported them
};

class doubt {
public:
    explicit doubt(feed_context &context)
        : context_(context)
    {}

    // Marks answers degraded and counts the change from proven to unproven.
    void begin();
    // A clean full dump has proven the shadow table.
    void end() { is_unproven_ = false; }

    // Follows a report of the shadow table about an entry: two reports that follow each other fast contest it.
    void follow_report(uint32_t entry);
    // Asks the plane about the questionable ones among `entries`, and corrects the shadow table by its answers.
    void ask_before_settling(std::span<const uint32_t> entries);
    // Corrects the shadow table for at most query_batch keys by the plane's answers. No report can come in between,
    // because the plane reports on this thread.
    void correct(std::span<const fdb_key> keys);
    // Removes an entry that the plane does not hold. It is not asked about again before it is settled.
    void remove_surely(uint32_t entry);
    // Asks the plane about entries. Returns their answers, in the same order.
    std::vector<fdb_answer> ask(std::span<const uint32_t> entries);
    // The plane holds an entry that was in doubt, or cannot decide.
    void note_kept() { kept_++; }

    mended_entries &mended() { return mended_; }
    const mended_entries &mended() const { return mended_; }

    // ---- Any thread ----

    bool is_degraded() const { return is_unproven_ || !context_.source.health().clean; }
    // Nothing has proven the shadow table since the latest doubt. The plane may be clean nevertheless.
    bool is_unproven() const { return is_unproven_; }
    // How many times answers have become degraded.
    uint64_t degradations() const { return degradations_; }
    uint64_t asked() const { return asked_; }
    uint64_t kept() const { return kept_; }

private:
    bool is_questionable(uint32_t entry) const;
    bool may_stand(uint32_t entry) const;
    void take_answer(uint32_t entry, const fdb_answer &answer);
    void keep_gone(uint32_t entry);

    feed_context &context_;
    mended_entries mended_;
    std::atomic<bool> is_unproven_{true};
    std::atomic<uint64_t> degradations_{0}, asked_{0}, kept_{0};
};

} // namespace forwarding
