// What the operator asked for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/printer.h"

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

struct options {
    command what = command::none;
    form shown_as = form::text;
    std::string socket = "/run/l2fibd.sock";
    std::optional<uint64_t> limit = {};
    unsigned timeout_seconds = 60;

    // Which part of the tables; empty: all.
    std::string domain = {};
    std::string port = {};    // a name or an xcid
    std::string address = {}; // lower case with colons
    std::string vtep = {};
    bool flagged = false;
    bool aging = false;
};

// Returns the status to end with at once, after an error or a text of help, which it has printed.
std::optional<int> parse_options(int argc, char **argv, options &to);

} // namespace l2fibctl
