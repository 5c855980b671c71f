// SPDX-License-Identifier: Apache-2.0

// Standard output, written in large pieces.
//
// If standard output is a terminal, the progress line is erased for good before the first row, so that the two never
// mix. A pager starts with the first text that is written, so no pager starts for an answer without rows.
//
// Threads: the main thread only.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "cli/output/pager.h"
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
    // `pager_command` is as class pager takes it. With a `sink`, everything goes there, and nothing to standard output.
    output(progress &line, bool held, std::string pager_command, text_sink sink = {});

    // The text that is not written yet. Callers append to it.
    text_buffer &pending() { return pending_; }

    // Writes the pending text if it is long enough for a piece. Call this behind each item.
    void end_item();

    // Writes the pending text, unless the output is held.
    void flush();

    // Writes everything that was held and stops holding.
    void release();

    // Waits for the pager. Without a pager this does nothing. Nothing may be written after it.
    void finish() { pager_.finish(); }

private:
    using file = std::unique_ptr<FILE, int (*)(FILE *)>;

    void spill();
    void write_out(std::string_view text);

    progress &progress_line_;
    pager pager_;
    bool terminal_;
    bool held_;
    file spilled_;
    text_buffer pending_;
    text_sink sink_;
};

} // namespace l2fibctl
