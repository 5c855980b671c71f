// SPDX-License-Identifier: Apache-2.0

// Makes the record of cli/options.h from the command line.
//
// names.h completes and finds the names first; so CLI11 gets the options of one command only, and only those that the
// command line has. It checks values, counts and exclusions, and it lays out the help pages.
//
// Threads: the main thread only.
#pragma once

#include <optional>
#include <string>

#include "cli/line/table.h"
#include "cli/options.h"

namespace l2fibctl {

// Parses and checks the command line. --help becomes the command help. Returns nothing after it printed the
// version. Throws a failure for a wrong command line.
std::optional<client_options> parse_options(int argc, const char *const *argv);

// The text of --help of one command.
std::string help_page(const command_row &command);

} // namespace l2fibctl
