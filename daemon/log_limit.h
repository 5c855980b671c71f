// SPDX-License-Identifier: Apache-2.0

// Decides which lines of the log are written, so that a flood neither fills the disk nor hides what matters.
//
// - A line that repeats one of the last few different lines is counted, not written. One line says how often it came.
// - Each level has a budget of lines a second. Lines beyond it are dropped and counted. One line says how many.
//
// Threads: none of its own. The caller holds a lock (log.cpp). Time is an argument, so that tests need not wait.
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
    static constexpr size_t lines_remembered = 8;  // clients that alternate between a few errors are one flood
    static constexpr uint32_t lines_a_second = 50; // about what a person can scroll through afterwards
    static constexpr double burst_lines = 200;     // a start with a note on each of many devices is no flood

    enum class verdict : uint8_t { write, repeated, dropped };

    // Judges one line. A verdict other than `write` has been counted.
    verdict judge(const log_line &line, time now);

    // Counts a line that was lost after judge() had let it pass.
    void drop(time now);

    // Lines that report what was held back, as far as they are due; with `all` every one. What they report counts as
    // reported.
    std::vector<log_line> take_reports(time now, bool all);

    // When the next report is due; empty if nothing is held back.
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
        time counted{};
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
