// SPDX-License-Identifier: Apache-2.0

// The command line of l2fibctl.
//
// Threads: the main thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace l2fibctl {

enum class command_kind : uint8_t {
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

// The form of printed items.
enum class form : uint8_t {
    text,
    json,       // one array; of a record, its object
    json_lines, // one item per line
    bridge_json // one array of entries that cli/output/bridge_form.h made
};

// The order of MAC entries.
enum class order : uint8_t {
    usual, // by domain, port and address
    last_seen,
    created
};

// The words of --sort and of the API's parameter `sort`.
inline constexpr char last_seen_word[] = "last-seen";
inline constexpr char created_word[] = "created";

inline constexpr char default_socket[] = "/run/l2fibd.sock";
inline constexpr unsigned default_timeout_seconds = 60; // longer than a full dump of a large bridge
inline constexpr uint64_t no_limit = UINT64_MAX;

struct client_options {
    command_kind command = command_kind::none;
    form shown_as = form::text;
    std::string socket = default_socket;
    uint64_t limit = no_limit; // of printed items
    unsigned timeout_seconds = default_timeout_seconds;
    bool strict = false; // print nothing if the answer may be incomplete

    // The part of the tables that the command shows. An empty text selects everything.
    std::string domain = {};
    std::string port = {};    // a name or an xcid
    std::string address = {}; // lower case with colons
    std::string vtep = {};
    bool flagged = false;
    order sorted_by = order::usual;
};

// Parses and checks the command line. Returns nothing after it printed the text of --help or --version. Throws a
// failure for a wrong command line.
std::optional<client_options> parse_options(int argc, const char *const *argv);

} // namespace l2fibctl
