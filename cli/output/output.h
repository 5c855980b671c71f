// SPDX-License-Identifier: Apache-2.0

// Standard output, written in large pieces.
//
// If standard output is a terminal, the progress line is erased for good before the first row, so that the two never
// mix.
//
// Threads: the main thread only.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string_view>

#include "cli/progress.h"
#include "cli/text_buffer.h"

namespace l2fibctl {

// Takes text in the place of standard output.
using text_sink = std::function<void(std::string_view text)>;

// Each function throws an output_failure if it cannot write. After the reader of a pipe closed it, the failure has the
// status done and no message.
class output {
public:
    // If `held` is set, nothing is written before `release`. Up to 4 MiB stay in memory, the rest in a temporary file.
    // With a `sink`, everything goes there and nothing to standard output.
    output(progress &line, bool held, text_sink sink = {});

    // The text that is not written yet. Callers append to it.
    text_buffer &pending() { return pending_; }

    // Writes the pending text if it is long enough for a piece. Call this behind each item.
    void end_item();

    // Writes the pending text, unless the output is held.
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
    text_buffer pending_;
    text_sink sink_;
};

} // namespace l2fibctl
