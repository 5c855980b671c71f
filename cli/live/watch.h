// SPDX-License-Identifier: Apache-2.0

// The option --watch: a command of `show`, again and again until a signal ends it.
//
// On a terminal, text is painted over the text of the round before, cut at the terminal's height. Everything else is
// printed in blocks, each behind a line with the time. JSON has an object {"time":...} in the place of that line.
//
// Threads: the main thread only.
#pragma once

#include <chrono>
#include <functional>

#include "cli/options.h"
#include "cli/output/output.h"
#include "cli/query/pages.h"

namespace l2fibctl {

// One round of the command: prints to standard output, or to the sink if it is not empty. Throws a failure as the
// command does.
using round_task = std::function<void(query_session &session, const text_sink &sink)>;

// Runs rounds, which begin `interval` after one another. A round that fails does not end this, but the first one does
// if the daemon cannot be reached. Ends with the failure of the last whole round, without a message, or returns if that
// round succeeded.
void watch(const client_options &options, std::chrono::seconds interval, const round_task &round);

} // namespace l2fibctl
