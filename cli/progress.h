// SPDX-License-Identifier: Apache-2.0

// The progress line on standard error. `tick` draws it once this object is more than a second old, and only if standard
// error is a terminal.
//
// Threads: the main thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace l2fibctl {

class progress {
public:
    progress();
    ~progress() { stop(); }
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;

    void count_items(uint64_t more) { items_ += more; }

    // From now on the line shows this text instead of the number of items.
    void set_text(std::string_view text) { text_ = text; }

    // Draws the line if it is due, after the task of `at_each_tick`. Callers that wait call this several times a
    // second.
    void tick();

    // The task may throw in order to end the wait.
    void at_each_tick(std::function<void()> task) { task_ = std::move(task); }

    // Erases the line; later ticks draw nothing.
    void stop();

private:
    using clock = std::chrono::steady_clock;

    bool enabled_;
    bool drawn_ = false;
    uint64_t items_ = 0;
    std::string text_;
    std::function<void()> task_;
    clock::time_point start_ = clock::now();
    clock::time_point last_ = start_;
};

} // namespace l2fibctl
