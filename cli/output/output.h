// SPDX-License-Identifier: Apache-2.0

// Standard output, written in large pieces, and the progress line on standard error.
//
// The progress line appears when an answer takes over a second and standard error is a terminal. If standard output is
// a terminal as well, the line disappears for good before the first row, so that the two never mix.
//
// Threads: the main one.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace l2fibctl {

class progress {
public:
    progress();
    ~progress() { stop(); }
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;

    void count_items(uint64_t more) { items_ += more; }

    // Shows this text instead of the number of items.
    void set_text(std::string_view text) { text_ = text; }

    // To be called often; draws a few times a second.
    void tick();

    // Erases the line and draws none any more.
    void stop();

private:
    using clock = std::chrono::steady_clock;

    bool enabled_;
    bool drawn_ = false;
    uint64_t items_ = 0;
    std::string text_;
    clock::time_point start_ = clock::now();
    clock::time_point last_ = start_;
};

class output {
public:
    // Held output appears only after `release`: up to some megabytes stay in memory, the rest in a temporary file.
    output(progress &line, bool held);

    // All throw a failure; it has no message when the reader has gone, which is no fault.
    void put(std::string_view text);
    void flush();
    void release();

private:
    using file = std::unique_ptr<FILE, int (*)(FILE *)>;

    void spill();
    void write_out(std::string_view text);

    progress &progress_line_;
    bool terminal_;
    bool held_;
    file spilled_;
    std::string pending_;
};

} // namespace l2fibctl
