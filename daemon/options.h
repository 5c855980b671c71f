// SPDX-License-Identifier: Apache-2.0

// The daemon's command line. `l2fibd --help` shows the options.
//
//      l2fibd::options options;
//      if (const auto status = l2fibd::parse_options(argc, argv, options)) {
//          return *status;
//      }
//
// Threads: the main thread, before it starts others.
#pragma once

#include <optional>
#include <string>

#include "daemon/log.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

inline constexpr char default_socket_path[] = "/run/l2fibd.sock";

struct options {
    forwarding::options forwarding = {};
    std::string socket_path = default_socket_path;
    std::string socket_group = {}; // the group of the socket file. Empty: the process's group
    log_level finest_level = log_level::info;
    bool check_only = false;
};

// The exit status after a wrong option.
inline constexpr int exit_usage = 2;

// Fills the options. Returns the exit status if the program has nothing left to do: after --help, after --version, and
// after an error. An error message names on standard error the option, its value and what was expected.
std::optional<int> parse_options(int argc, char **argv, options &to);

} // namespace l2fibd
