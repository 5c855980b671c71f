// SPDX-License-Identifier: Apache-2.0

// The operator's command line.
//
// Threads: the main one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/output/printer.h"

namespace l2fibctl {

enum class command : uint8_t {
    none,
    show_mac,
    show_count,
    show_domain,
    show_port,
    show_vtep,
    show_tunnel,
    show_health,
    show_trace,
    resync
};

// The order of MAC entries.
enum class order : uint8_t {
    usual, // by domain, port and address
    last_seen,
    created
};

struct options {
    command what = command::none;
    form shown_as = form::text;
    std::string socket = "/run/l2fibd.sock";
    std::optional<uint64_t> limit = {};
    unsigned timeout_seconds = 60;
    bool strict = false; // print nothing of an answer that is not whole

    // Which part of the tables. Empty means all.
    std::string domain = {};
    std::string port = {};    // a name or an xcid
    std::string address = {}; // lower case with colons
    std::string vtep = {};
    bool flagged = false;
    order sorted_by = order::usual;
};

// Returns the status to end with at once, after an error or a text of help, which it printed.
std::optional<int> parse_options(int argc, char **argv, options &to);

} // namespace l2fibctl
