// SPDX-License-Identifier: Apache-2.0

// The completion of command lines in shells.
//
// The scripts that `completion` prints ask `complete-words` at each key. So they need no list of names, and they follow
// the table of options (cli/line/table.h) of the program that is installed. Each line of an answer is a candidate, a
// tab and its description.
//
// Threads: the main thread only.
#pragma once

#include "cli/query/pages.h"

namespace l2fibctl {

// Prints the script of the shell that the command line names.
void print_completion_script(query_session &session);

// Prints what can stand for the last word of the command line that the arguments are. Prints nothing if it is wrong or
// the daemon does not answer within a second.
void complete(query_session &session);

} // namespace l2fibctl
