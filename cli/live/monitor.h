// SPDX-License-Identifier: Apache-2.0

// The command `monitor`: what the table learned, moved, aged, removed and changed, as it happens.
//
// If the connection ends, the client connects again after growing pauses and continues behind the latest event. What
// the daemon no longer has is missing: a line says so, and the exit status is `incomplete`.
//
// Threads: the main thread only.
#pragma once

#include <string>

#include "cli/query/pages.h"

namespace l2fibctl {

// Prints the events of the stream at `path`, behind the one that --since names, until a signal arrives or --limit is
// reached. Throws a failure with the status `incomplete` if events are missing. If the first connection fails, throws
// its failure.
void monitor(query_session &session, const std::string &path);

} // namespace l2fibctl
