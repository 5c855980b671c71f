// SPDX-License-Identifier: Apache-2.0

#include "cli/line/table.h"

#include <algorithm>
#include <iterator>

#include "cli/line/values.h"

namespace l2fibctl {

namespace {

using enum command_kind;
using enum option_group;

// ---- Words ----

constexpr std::string_view origin_words[] = {"learned", "static", "local"};
constexpr std::string_view order_words[] = {"mac", "port", "age", created_word, "vlan", last_seen_word};
constexpr std::string_view count_words[] = {"domain", "port", "vlan", "vtep", "type"};
constexpr std::string_view top_orders[] = {"entries", "changes"};
constexpr std::string_view top_subjects[] = {"ports", "domains", "addresses"};
constexpr std::string_view color_words[] = {"auto", "always", "never"};
constexpr std::string_view shell_words[] = {"bash", "zsh", "fish"};

constexpr uint64_t max_vlan = 4094;
constexpr uint64_t max_vni = 16'777'215;
constexpr uint64_t max_seconds = uint64_t(24) * 60 * 60; // a day: more is a mistake

// ---- Sets of commands ----

constexpr command_set entry_lists = set_of(show_mac, show_count, find, monitor);
constexpr command_set histories = set_of(show_moves, show_flaps);
constexpr command_set with_domain =
    entry_lists | histories | set_of(show_domain, show_port, show_vtep, show_tunnel, top, resync);
constexpr command_set with_port = entry_lists | histories | set_of(show_port, show_vtep, show_tunnel, top, resync);
constexpr command_set with_vlan = entry_lists | histories | set_of(show_domain, show_port, top);
constexpr command_set with_vni = entry_lists | histories | set_of(show_port, show_vtep, show_tunnel);
constexpr command_set with_vtep = entry_lists | histories | set_of(show_vtep, show_tunnel);
constexpr command_set with_mac = entry_lists | histories | set_of(show_tunnel, top);
constexpr command_set with_age = set_of(show_mac, show_count, find, show_moves);
constexpr command_set with_filters = with_domain & ~only(resync);
constexpr command_set shows =
    histories | set_of(show_mac, show_count, show_domain, show_port, show_vtep, show_tunnel, show_health, show_trace);
constexpr command_set tables = shows | set_of(find, monitor, top);
constexpr command_set asking = shows | set_of(find, monitor, top, resync, complete_words);
constexpr command_set every = asking | set_of(help, completion);

// ---- Arguments ----

constexpr option_row address_argument = {
    .name = "ADDR",
    .value = "ADDR",
    .help = "A MAC address, as 02:00:00:00:00:01 or 0200.0000.0001",
    .check = check_address,
    .store = store_text<&client_options::address>,
    .source = value_source::addresses,
};
constexpr option_row top_argument = {
    .name = "WHAT",
    .value = "WHAT",
    .help = "ports (without this argument), domains or addresses",
    .check = check_choice,
    .store = store_word,
    .source = value_source::choices,
    .choices = top_subjects,
};
constexpr option_row topic_argument = {
    .name = "TOPIC",
    .value = "TOPIC",
    .help = "A command such as show mac, or a topic",
    .store = store_word,
    .source = value_source::topics,
};
constexpr option_row shell_argument = {
    .name = "SHELL",
    .value = "SHELL",
    .help = "bash, zsh or fish",
    .check = check_choice,
    .store = store_word,
    .source = value_source::choices,
    .choices = shell_words,
};
constexpr option_row word_argument = {
    .name = "WORD",
    .value = "WORD",
    .help = "The words of the command line up to the cursor",
    .store = store_word,
};

// ---- Commands ----

constexpr auto optional = argument_count::optional;
constexpr auto required = argument_count::required;
constexpr auto none_taken = argument_count::none;

constexpr command_row command_rows[] = {
    {show_mac, "show", "mac", "MAC addresses, by domain, port and address", optional, address_argument, "m"},
    {show_count, "show", "count", "Number of MAC addresses"},
    {show_domain, "show", "domain", "Bridge domains"},
    {show_port, "show", "port", "Bridge ports"},
    {show_vtep, "show", "vtep", "Tunnel end points (VTEPs)"},
    {show_tunnel, "show", "tunnel", "Entries of the VXLAN devices: flood lists, IPv6 destinations, next hops"},
    {show_health, "show", "health", "State of the forwarding plane, memory, requests"},
    {show_trace, "show", "trace", "Trace points in the order of their time"},
    {show_moves, "show", "moves", "Addresses that moved, aged or were removed, newest first", optional,
     address_argument},
    {show_flaps, "show", "flaps", "Addresses that move again and again"},
    {find, "", "find", "Where an address is and where it was", required, address_argument},
    {monitor, "", "monitor", "Changes as they happen, until it is interrupted"},
    {top, "", "top", "Ports, domains or addresses with the most changes, on the whole screen", optional, top_argument},
    {resync, "", "resync", "Bring the daemon's tables up to date"},
    {help, "", "help", "Explain a command or a topic", argument_count::any, topic_argument},
    {completion, "", "completion", "Print the completion script of a shell", required, shell_argument},
    {complete_words, "", "complete-words", "Print what can stand for the last word", argument_count::any, word_argument,
     "", true},
};

// ---- Options ----

constexpr option_row option_rows[] = {
    // Filters
    {.name = "domain",
     .letter = 'd',
     .value = "NAME",
     .help = "Only this bridge domain, or the domains of this bridge",
     .commands = with_domain,
     .group = filters,
     .check = check_name,
     .store = store_filter,
     .source = value_source::domains,
     .parameter = "domain"},
    {.name = "port",
     .letter = 'p',
     .value = "PORT",
     .help = "Only this port, by name or xcid",
     .commands = with_port,
     .group = filters,
     .check = check_name,
     .store = store_filter,
     .source = value_source::ports,
     .parameter = "port"},
    {.name = "vlan",
     .letter = 'v',
     .value = "VLAN",
     .help = "Only this VLAN",
     .commands = with_vlan,
     .group = filters,
     .check = check_number,
     .store = store_filter,
     .max_number = max_vlan,
     .parameter = "vlan"},
    {.name = "vni",
     .value = "VNI",
     .help = "Only entries that send with this VNI",
     .commands = with_vni,
     .group = filters,
     .check = check_number,
     .store = store_filter,
     .max_number = max_vni,
     .parameter = "vni"},
    {.name = "vtep",
     .value = "IP",
     .help = "Only what is behind this tunnel end point",
     .commands = with_vtep,
     .group = filters,
     .check = check_ip,
     .store = store_filter,
     .source = value_source::vteps,
     .parameter = "vtep"},
    {.name = "type",
     .letter = 't',
     .value = "TYPE",
     .help = "Only learned, static or local entries",
     .commands = entry_lists,
     .group = filters,
     .check = check_choice,
     .store = store_filter,
     .source = value_source::choices,
     .choices = origin_words,
     .parameter = "type"},
    {.name = "mac",
     .letter = 'm',
     .value = "PREFIX",
     .help = "Only addresses that begin with these digits, as 02:00:5e or 0200.5",
     .commands = with_mac,
     .group = filters,
     .check = check_prefix,
     .store = store_filter,
     .parameter = "mac-prefix"},
    {.name = "older-than",
     .value = "AGE",
     .help = "Only what was last seen longer ago: 90s, 15m, 2h, 1d",
     .commands = with_age,
     .group = filters,
     .check = check_age,
     .store = store_filter,
     .parameter = "older-than"},
    {.name = "newer-than",
     .value = "AGE",
     .help = "Only what was seen since: 90s, 15m, 2h, 1d",
     .commands = with_age,
     .group = filters,
     .check = check_age,
     .store = store_filter,
     .parameter = "newer-than"},
    {.name = "not",
     .letter = 'n',
     .value = "FILTER",
     .help = "Leave out what this filter shows, as port=eth1; may be repeated",
     .commands = with_filters,
     .group = filters,
     .check = check_not,
     .store = store_not,
     .source = value_source::filters,
     .repeats = true},
    {.name = "flagged",
     .help = "Only the bridge domain's own entries and, with --port, locked entries",
     .commands = only(show_mac),
     .group = filters,
     .store = store_flag<&client_options::flagged>},

    // Single commands
    {.name = "by",
     .value = "GROUP",
     .help = "A row for each domain, port, vlan, vtep or type, and a row of sums",
     .commands = only(show_count),
     .group = option_group::command,
     .check = check_choice,
     .store = store_text<&client_options::grouped_by>,
     .source = value_source::choices,
     .choices = count_words},
    {.name = "by",
     .value = "ORDER",
     .help = "The order: entries or changes",
     .commands = only(top),
     .group = option_group::command,
     .check = check_choice,
     .store = store_text<&client_options::grouped_by>,
     .source = value_source::choices,
     .choices = top_orders},
    {.name = "window",
     .value = "AGE",
     .help = "How far back moves count: 90s, 15m, 2h, 1d",
     .commands = only(show_flaps),
     .group = option_group::command,
     .check = check_age,
     .store = store_window,
     .fallback = "5m"},
    {.name = "near",
     .help = "Entries with the same first three octets, or on the same port",
     .commands = only(find),
     .group = option_group::command,
     .store = store_flag<&client_options::near>},
    {.name = "since",
     .value = "ID",
     .help = "Begin behind the event with this id",
     .commands = only(monitor),
     .group = option_group::command,
     .check = check_name,
     .store = store_text<&client_options::since>},
    {.name = "once",
     .help = "Print one table after one interval and end",
     .commands = only(top),
     .group = option_group::command,
     .store = store_flag<&client_options::once>},
    {.name = "interval",
     .value = "SECONDS",
     .help = "Time between two readings",
     .commands = only(top),
     .group = option_group::command,
     .check = check_number,
     .store = store_number<&client_options::interval_seconds>,
     .max_number = max_seconds,
     .fallback = "2"},

    // Output
    {.name = "sort",
     .letter = 's',
     .value = "ORDER",
     .help = "By mac, port, age, created, vlan or last-seen; without it by domain, port and address",
     .commands = only(show_mac),
     .check = check_choice,
     .store = store_text<&client_options::sorted_by>,
     .source = value_source::choices,
     .choices = order_words},
    {.name = "aging", .help = "The same as --sort last-seen", .commands = only(show_mac), .store = store_aging},
    {.name = "reverse",
     .letter = 'r',
     .help = "Turn the order round",
     .commands = only(show_mac),
     .store = store_flag<&client_options::reverse>},
    {.name = "columns",
     .letter = 'c',
     .value = "NAMES",
     .help = "These columns, as domain,mac-address,age; \"help columns\" lists them",
     .commands = tables,
     .check = check_columns,
     .store = store_columns,
     .source = value_source::columns},
    {.name = "wide",
     .letter = 'W',
     .help = "All columns, and no name cut",
     .commands = tables,
     .store = store_flag<&client_options::wide>},
    {.name = "no-header",
     .help = "No line of titles",
     .commands = tables,
     .store = store_flag<&client_options::no_header>},
    {.name = "watch",
     .letter = 'w',
     .value = "SECONDS",
     .help = "Show it again and again, with this pause",
     .commands = shows,
     .check = check_number,
     .store = store_number<&client_options::watch_seconds>,
     .max_number = max_seconds},
    {.name = "json",
     .letter = 'j',
     .help = "Print one JSON array",
     .commands = asking,
     .store = store_form<form::json>},
    {.name = "json-lines",
     .letter = 'J',
     .help = "Print one JSON object per line",
     .commands = asking,
     .store = store_form<form::json_lines>},
    {.name = "bridge-json",
     .help = "Print entries as \"bridge -j fdb show\" does",
     .commands = only(show_mac),
     .store = store_form<form::bridge_json>},
    {.name = "limit",
     .letter = 'l',
     .value = "NUMBER",
     .help = "Print at most this number of items",
     .commands = asking,
     .check = check_number,
     .store = store_number<&client_options::limit>,
     .max_number = UINT64_MAX},
    {.name = "strict",
     .help = "Print nothing if the answer may be incomplete",
     .commands = asking,
     .store = store_flag<&client_options::strict>},
    {.name = "color",
     .value = "WHEN",
     .help = "Colours: auto (on a terminal, unless NO_COLOR is set), always or never",
     .commands = every,
     .check = check_choice,
     .store = store_color,
     .source = value_source::choices,
     .choices = color_words,
     .fallback = "auto"},
    {.name = "no-pager",
     .help = "Never start a pager",
     .commands = every,
     .store = store_flag<&client_options::no_pager>},

    // Connection
    {.name = "socket",
     .value = "PATH",
     .help = "Socket of the daemon",
     .commands = asking,
     .group = connection,
     .check = check_path,
     .store = store_text<&client_options::socket>,
     .source = value_source::files,
     .fallback = default_socket,
     .environment = "L2FIBD_SOCKET"},
    {.name = "timeout",
     .value = "SECONDS",
     .help = "Give up if nothing arrives for this long",
     .commands = asking,
     .group = connection,
     .check = check_number,
     .store = store_number<&client_options::timeout_seconds>,
     .max_number = max_seconds,
     .fallback = "60"},
    {.name = "help", .letter = 'h', .help = "Print this help and exit", .commands = every, .group = connection},
    {.name = "version", .help = "Print the version and exit", .commands = every, .group = connection},
};

constexpr exclusion exclusions[] = {
    {"json", "json-lines", asking},
    {"json", "bridge-json", only(show_mac)},
    {"json-lines", "bridge-json", only(show_mac)},
    {"flagged", "aging", only(show_mac)},
    {"flagged", "sort", only(show_mac)},
    {"columns", "wide", tables},
    {"columns", "bridge-json", only(show_mac)},
    {"domain", "port", only(resync)},
};

bool is_of(const option_row &row, command_kind command)
{
    return command == command_kind::none || has(row.commands, command);
}

template <typename wanted>
const option_row *find_row(wanted value, wanted option_row::*member, command_kind command)
{
    const auto *found = std::ranges::find_if(
        option_rows, [&](const option_row &row) { return row.*member == value && is_of(row, command); });
    return found != std::end(option_rows) ? found : nullptr;
}

} // namespace

std::span<const command_row> all_commands()
{
    return command_rows;
}

std::span<const option_row> all_options()
{
    return option_rows;
}

std::span<const exclusion> all_exclusions()
{
    return exclusions;
}

const command_row &row_of(command_kind kind)
{
    return *std::ranges::find(command_rows, kind, &command_row::kind);
}

std::string words_of(const command_row &command)
{
    std::string words(command.group);
    words.append(words.empty() ? "" : " ").append(command.name);
    return words;
}

std::vector<const option_row *> options_of(command_kind command)
{
    std::vector<const option_row *> found;
    for (const option_row &row : option_rows) {
        const bool is_new = std::ranges::find(found, row.name, &option_row::name) == found.end();
        if (is_new && is_of(row, command)) {
            found.push_back(&row);
        }
    }
    return found;
}

const option_row *find_option(std::string_view name, command_kind command)
{
    return find_row(name, &option_row::name, command);
}

const option_row *find_option(char letter, command_kind command)
{
    return letter == '\0' ? nullptr : find_row(letter, &option_row::letter, command);
}

} // namespace l2fibctl
