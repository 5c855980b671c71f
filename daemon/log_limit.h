// SPDX-License-Identifier: Apache-2.0

// Decides which lines of the log are written, so that a flood neither fills the disk nor hides what matters.
//
// - A line that repeats one of the last eight different lines is counted, not written, and uses no budget. After five
//   seconds one line reports the count:
//
//      0 s   "refused"    written
//      1 s   "refused"    counted
//      2 s   "refused"    counted
//      5 s                "repeated 2 times: refused"
//
// - Each level has a budget of lines a second. A line beyond it is dropped. One line a second reports how many lines of
//   all levels were dropped.
//
// Threads: any, one at a time: the caller holds the lock that guards the object (log.cpp). Time is an argument, so that
// tests need not wait.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "daemon/log.h"

namespace l2fibd {

struct log_line {
    log_level level;
    std::string text;
};

class log_limit {
public:
    using clock = std::chrono::steady_clock;
    using time = clock::time_point;

    static constexpr auto repeat_window = std::chrono::seconds(5);
    static constexpr size_t lines_remembered = 8;    // clients that alternate between a few errors make one flood
    static constexpr uint32_t lines_per_second = 50; // of each level; about what a person can scroll through later
    static constexpr double burst_lines = 200;       // a start that logs a note on each of many devices is no flood
    static constexpr auto drop_window = std::chrono::seconds(1); // gathers the drops of a burst in one line

    enum class verdict : uint8_t { write, repeated, dropped };

    // Decides about one line. Counts it unless the verdict is `write`.
    verdict judge(const log_line &line, time now);

    // Counts a line that the caller lost after judge() returned `write`.
    void drop(time now);

    // The reports that are due, or with `all` also those that are not due yet. They are not returned again.
    std::vector<log_line> take_reports(time now, bool all);

    // When the next report is due. Empty if nothing waits to be reported.
    std::optional<time> next_report() const;

    uint64_t dropped() const { return dropped_; }

private:
    struct remembered {
        log_line line;
        time until; // the end of its window
        uint64_t repeats;
    };

    struct budget {
        double lines = burst_lines;
        time counted{}; // when `lines` was refilled last
    };

    bool spend(log_level level, time now);
    void report_repeats(const remembered &of);
    void close_windows(time now, bool all);

    std::deque<remembered> recent_;
    std::array<budget, log_level_count> budgets_ = {};
    std::vector<log_line> reports_;
    uint64_t dropped_ = 0;
    uint64_t dropped_unreported_ = 0;
    time report_drops_at_{};
};

} // namespace l2fibd
