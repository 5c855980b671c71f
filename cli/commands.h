// SPDX-License-Identifier: Apache-2.0

// The commands of l2fibctl. `show` passes items from the room query/ to the room output/; `resync` posts an operation.
//
//      cli/          command line, commands, exit status, progress line
//      cli/query/    requests to the daemon and the items of its answers
//      cli/output/   items as text or JSON on standard output
//
// The room output/ includes from query/, and both include from cli/. The commands and main alone include from the
// rooms.
//
// Threads: the main thread only.
#pragma once

#include "cli/options.h"

namespace l2fibctl {

// Runs the command that `options` names. Throws a failure unless the command succeeds.
void run(const client_options &options);

} // namespace l2fibctl
