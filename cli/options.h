// SPDX-License-Identifier: Apache-2.0

// The command line of l2fibctl as a plain record. cli/line/parser.h makes it; cli/line/table.cpp has all commands
// and options.
//
// Threads: the main thread only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

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
    show_moves,
    show_flaps,
    find,
    monitor,
    top,
    resync,
    help,
    completion,
    complete_words // hidden: what the completion scripts of the shells call
};

// The form of printed items.
enum class form : uint8_t {
    text,
    json,       // one array; of a record, its object
    json_lines, // one item per line
    bridge_json // one array of entries that cli/output/bridge_form.h made
};

enum class when : uint8_t {
    automatic, // if standard output is a terminal
    always,
    never
};

// The words of --sort. The API's parameter `sort` has the same ones.
inline constexpr char last_seen_word[] = "last-seen";
inline constexpr char created_word[] = "created";

inline constexpr char default_socket[] = "/run/l2fibd.sock";
inline constexpr unsigned default_timeout_seconds = 60; // longer than a full dump of a large bridge
inline constexpr uint64_t default_window_seconds = 300; // of show flaps
inline constexpr unsigned default_interval_seconds = 2; // of top: long enough to read the screen
inline constexpr uint64_t no_limit = UINT64_MAX;

// A condition on the shown items, as a parameter of the API: {"vlan", "10"}, {"not-port", "eth1"}.
struct filter {
    std::string name;
    std::string value;
};

struct client_options {
    command_kind command = command_kind::none;
    form shown_as = form::text;
    std::string socket = default_socket;
    uint64_t limit = no_limit; // of printed items
    unsigned timeout_seconds = default_timeout_seconds;
    bool strict = false; // print nothing if the answer may be incomplete

    // The part of the tables that the command shows.
    std::string address = {};         // lower case with colons; empty: all
    std::vector<filter> filters = {}; // all of them must hold
    bool flagged = false;

    // How it is shown.
    std::string sorted_by = {}; // a word of --sort; empty: by domain, port and address
    bool reverse = false;
    std::string grouped_by = {};           // the word of --by: groups of show count, order of top
    std::vector<std::string> columns = {}; // names of members; empty: the usual ones
    bool wide = false;
    bool no_header = false;
    when color = when::automatic;
    bool no_pager = false;

    // Of single commands.
    unsigned watch_seconds = 0; // 0: show once
    uint64_t window_seconds = default_window_seconds;
    std::string since = {}; // the id of an event
    unsigned interval_seconds = default_interval_seconds;
    bool near = false;
    bool once = false;
    std::vector<std::string> words = {}; // the arguments of top, help, completion and complete-words
};

// Returns the value of the filter with this name, or an empty text.
std::string filter_value(const client_options &options, std::string_view name);

} // namespace l2fibctl
