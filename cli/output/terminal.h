// SPDX-License-Identifier: Apache-2.0

// What standard output and the environment decide about the output.
//
// Threads: the main thread only.
#pragma once

#include <string>

#include "cli/options.h"

namespace l2fibctl {

// Whether standard output is a terminal.
bool is_on_terminal();

// Follows --color, and without it NO_COLOR and TERM.
bool wants_colors(when color);

// The command of the pager: L2FIBCTL_PAGER, PAGER, or less. Empty if standard output is no terminal, the environment
// asks for no pager, or --no-pager does.
std::string pager_command(bool is_off);

} // namespace l2fibctl
