// SPDX-License-Identifier: Apache-2.0

// The commands of l2fibctl. `show` passes items from the room query/ to the room output/; `resync` posts an operation.
//
//      cli/          commands, help, completion, exit status, progress line
//      cli/line/     the table of commands and options, and the command line
//      cli/query/    requests to the daemon and the items of its answers
//      cli/output/   items as text or JSON on standard output
//
// The room output/ includes from query/, and all rooms include from cli/. The commands and main alone include from the
// rooms.
//
// Threads: the main thread only.
#pragma once

#include "cli/options.h"

namespace l2fibctl {

// Runs the command that `options` names. Throws a failure unless the command succeeds.
void run(const client_options &options);

} // namespace l2fibctl
