// SPDX-License-Identifier: Apache-2.0

// The daemon's command line.
#pragma once

#include <optional>
#include <string>

#include "daemon/log.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

struct settings {
    forwarding::options forwarding = {};
    std::string socket_path = "/run/l2fibd.sock";
    std::string socket_group = {}; // of the socket file; empty: the process's
    log_level finest = log_level::info;
    bool check_only = false;
};

inline constexpr int exit_usage = 2;

// Fills the settings. Returns the exit status when the program is over: after --help and --version, and with exit_usage
// after telling on standard error which option is wrong, how, and what was expected.
std::optional<int> read_command_line(int argc, char **argv, settings &into);

} // namespace l2fibd
