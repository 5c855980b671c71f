// SPDX-License-Identifier: Apache-2.0

// The commands of l2fibctl. `show` passes items from the room query/ to the room output/; `resync` posts an operation.
//
//      cli/          command line, commands, exit status
//      cli/query/    requests to the daemon and the items of its answers
//      cli/output/   items as text or JSON on standard output, and the progress line
//
// Threads: the main thread only.
#pragma once

#include "cli/options.h"

namespace l2fibctl {

// Runs the command that `options` names. Throws a failure unless the command succeeds.
void run(const client_options &options);

} // namespace l2fibctl
