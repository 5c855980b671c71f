// Standard output, written in large pieces, and the progress line on standard error.
//
// The progress line appears when an answer takes over a second and standard error is a terminal. Where standard output
// is a terminal as well it goes for good before the first row is written there, so that the two never mix.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace l2fibctl {

class progress {
public:
    progress();
    ~progress() { stop(); }
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;

    void count_item() { items_++; }

    // To be called often; draws a few times a second.
    void tick();

    // Erases the line and draws none any more.
    void stop();

private:
    using clock = std::chrono::steady_clock;

    bool enabled_;
    bool drawn_ = false;
    uint64_t items_ = 0;
    clock::time_point start_ = clock::now();
    clock::time_point last_ = start_;
};

class output {
public:
    explicit output(progress &line);

    // put and flush throw a failure: without a message when the reader has gone, which is no fault.
    void put(std::string_view text);
    void flush();

    // Shows rows without delay where somebody watches.
    void piece_done()
    {
        if (terminal_) {
            flush();
        }
    }

private:
    progress &progress_line_;
    bool terminal_;
    std::string pending_;
};

} // namespace l2fibctl
