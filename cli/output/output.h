// SPDX-License-Identifier: Apache-2.0

// Standard output, written in large pieces.
//
// If standard output is a terminal, the progress line is erased for good before the first row, so that the two never
// mix.
//
// Threads: the main thread only.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "cli/progress.h"

namespace l2fibctl {

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
