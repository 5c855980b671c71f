// SPDX-License-Identifier: Apache-2.0

// Standard output, written in large pieces, and the progress line on standard error.
//
// The progress line appears when an answer takes longer than a second and standard error is a terminal. If standard
// output is a terminal as well, the line is erased for good before the first row, so that the two never mix.
//
// Threads: the main thread only.
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

    // From now on the line shows this text instead of the number of items.
    void set_text(std::string_view text) { text_ = text; }

    // Draws the line if it is due. Callers that wait call this several times a second.
    void tick();

    // Erases the line; later ticks draw nothing.
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

// Each function throws a failure if it cannot write. After the reader of a pipe closed it, the failure has the status
// done and no message.
class output {
public:
    // If `held` is set, nothing is written before `release`. Up to 4 MiB stay in memory, the rest in a temporary file.
    output(progress &line, bool held);

    void put(std::string_view text);

    // Writes what `put` collected, unless the output is held.
    void flush();

    // Writes everything that was held and stops holding.
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
