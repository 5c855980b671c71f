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

constexpr option_row address_argument = {.name = "ADDR",
                                         .source = value_source::addresses,
                                         .value = "ADDR",
                                         .help = "A MAC address, as 02:00:00:00:00:01 or 0200.0000.0001",
                                         .check = check_address,
                                         .store = store_text<&client_options::address>};
constexpr option_row top_argument = {.name = "WHAT",
                                     .source = value_source::choices,
                                     .value = "WHAT",
                                     .help = "ports (without this argument), domains or addresses",
                                     .check = check_choice,
                                     .store = store_word,
                                     .choices = top_subjects};
constexpr option_row topic_argument = {.name = "TOPIC",
                                       .source = value_source::topics,
                                       .value = "TOPIC",
                                       .help = "A command such as show mac, or a topic",
                                       .store = store_word};
constexpr option_row shell_argument = {.name = "SHELL",
                                       .source = value_source::choices,
                                       .value = "SHELL",
                                       .help = "bash, zsh or fish",
                                       .check = check_choice,
                                       .store = store_word,
                                       .choices = shell_words};
constexpr option_row word_argument = {
    .name = "WORD", .value = "WORD", .help = "The words of the command line up to the cursor", .store = store_word};

// ---- Commands ----

constexpr auto no_argument = argument_count::none;
constexpr auto optional = argument_count::optional;
constexpr auto required = argument_count::required;
constexpr auto any_number = argument_count::any;

constexpr command_row command_rows[] = {
    {show_mac, optional, "show", "mac", "MAC addresses, by domain, port and address", address_argument, "m"},
    {show_count, no_argument, "show", "count", "Number of MAC addresses"},
    {show_domain, no_argument, "show", "domain", "Bridge domains"},
    {show_port, no_argument, "show", "port", "Bridge ports"},
    {show_vtep, no_argument, "show", "vtep", "Tunnel end points (VTEPs)"},
    {show_tunnel, no_argument, "show", "tunnel",
     "Entries of the VXLAN devices: flood lists, IPv6 destinations, next hops"},
    {show_health, no_argument, "show", "health", "State of the forwarding plane, memory, requests"},
    {show_trace, no_argument, "show", "trace", "Trace points in the order of their time"},
    {show_moves, optional, "show", "moves", "Addresses that moved, aged or were removed, newest first",
     address_argument},
    {show_flaps, no_argument, "show", "flaps", "Addresses that move again and again"},
    {find, required, "", "find", "Where an address is and where it was", address_argument},
    {monitor, no_argument, "", "monitor", "Changes as they happen, until it is interrupted"},
    {top, optional, "", "top", "Ports, domains or addresses with the most changes, on the whole screen", top_argument},
    {resync, no_argument, "", "resync", "Bring the daemon's tables up to date"},
    {help, any_number, "", "help", "Explain a command or a topic", topic_argument},
    {completion, required, "", "completion", "Print the completion script of a shell", shell_argument},
    {complete_words, any_number, "", "complete-words", "", word_argument},
};

// ---- Options ----

constexpr option_row option_rows[] = {
    // Filters
    {.name = "domain",
     .letter = 'd',
     .group = filters,
     .source = value_source::domains,
     .commands = with_domain,
     .value = "NAME",
     .help = "Only this bridge domain, or the domains of this bridge",
     .check = check_name,
     .store = store_filter,
     .parameter = "domain"},
    {.name = "port",
     .letter = 'p',
     .group = filters,
     .source = value_source::ports,
     .commands = with_port,
     .value = "PORT",
     .help = "Only this port, by name or xcid",
     .check = check_name,
     .store = store_filter,
     .parameter = "port"},
    {.name = "vlan",
     .letter = 'v',
     .group = filters,
     .commands = with_vlan,
     .value = "VLAN",
     .help = "Only this VLAN",
     .check = check_number,
     .store = store_filter,
     .max_number = max_vlan,
     .parameter = "vlan"},
    {.name = "vni",
     .group = filters,
     .commands = with_vni,
     .value = "VNI",
     .help = "Only entries that send with this VNI",
     .check = check_number,
     .store = store_filter,
     .max_number = max_vni,
     .parameter = "vni"},
    {.name = "vtep",
     .group = filters,
     .source = value_source::vteps,
     .commands = with_vtep,
     .value = "IP",
     .help = "Only what is behind this tunnel end point",
     .check = check_ip,
     .store = store_filter,
     .parameter = "vtep"},
    {.name = "type",
     .letter = 't',
     .group = filters,
     .source = value_source::choices,
     .commands = entry_lists,
     .value = "TYPE",
     .help = "Only learned, static or local entries",
     .check = check_choice,
     .store = store_filter,
     .choices = origin_words,
     .parameter = "type"},
    {.name = "mac",
     .letter = 'm',
     .group = filters,
     .commands = with_mac,
     .value = "PREFIX",
     .help = "Only addresses that begin with these digits, as 02:00:5e or 0200.5",
     .check = check_prefix,
     .store = store_filter,
     .parameter = "mac-prefix"},
    {.name = "older-than",
     .group = filters,
     .commands = with_age,
     .value = "AGE",
     .help = "Only what was last seen longer ago: 90s, 15m, 2h, 1d",
     .check = check_age,
     .store = store_filter,
     .parameter = "older-than"},
    {.name = "newer-than",
     .group = filters,
     .commands = with_age,
     .value = "AGE",
     .help = "Only what was seen since: 90s, 15m, 2h, 1d",
     .check = check_age,
     .store = store_filter,
     .parameter = "newer-than"},
    {.name = "not",
     .letter = 'n',
     .repeats = true,
     .group = filters,
     .source = value_source::filters,
     .commands = with_filters,
     .value = "FILTER",
     .help = "Leave out what this filter shows, as port=eth1; may be repeated",
     .check = check_not,
     .store = store_not},
    {.name = "flagged",
     .group = filters,
     .commands = only(show_mac),
     .help = "Only the bridge domain's own entries and, with --port, locked entries",
     .store = store_flag<&client_options::flagged>},

    // Single commands
    {.name = "by",
     .group = option_group::command,
     .source = value_source::choices,
     .commands = only(show_count),
     .value = "GROUP",
     .help = "A row for each domain, port, vlan, vtep or type, and a row of sums",
     .check = check_choice,
     .store = store_text<&client_options::grouped_by>,
     .choices = count_words},
    {.name = "by",
     .group = option_group::command,
     .source = value_source::choices,
     .commands = only(top),
     .value = "ORDER",
     .help = "The order: entries or changes",
     .check = check_choice,
     .store = store_text<&client_options::grouped_by>,
     .choices = top_orders},
    {.name = "window",
     .group = option_group::command,
     .commands = only(show_flaps),
     .value = "AGE",
     .help = "How far back moves count: 90s, 15m, 2h, 1d",
     .check = check_age,
     .store = store_window,
     .fallback = "5m"},
    {.name = "near",
     .group = option_group::command,
     .commands = only(find),
     .help = "Entries with the same first three octets, or on the same port",
     .store = store_flag<&client_options::near>},
    {.name = "since",
     .group = option_group::command,
     .commands = only(monitor),
     .value = "ID",
     .help = "Begin behind the event with this id",
     .check = check_event,
     .store = store_text<&client_options::since>},
    {.name = "once",
     .group = option_group::command,
     .commands = only(top),
     .help = "Print one table after one interval and end",
     .store = store_flag<&client_options::once>},
    {.name = "interval",
     .group = option_group::command,
     .commands = only(top),
     .value = "SECONDS",
     .help = "Time between two readings",
     .check = check_number,
     .store = store_number<&client_options::interval_seconds>,
     .max_number = max_seconds,
     .fallback = "2"},

    // Output
    {.name = "sort",
     .letter = 's',
     .source = value_source::choices,
     .commands = only(show_mac),
     .value = "ORDER",
     .help = "By mac, port, age, created, vlan or last-seen; without it by domain, port and address",
     .check = check_choice,
     .store = store_text<&client_options::sorted_by>,
     .choices = order_words},
    {.name = "aging", .commands = only(show_mac), .help = "The same as --sort last-seen", .store = store_aging},
    {.name = "reverse",
     .letter = 'r',
     .commands = only(show_mac),
     .help = "Turn the order round",
     .store = store_flag<&client_options::reverse>},
    {.name = "columns",
     .letter = 'c',
     .source = value_source::columns,
     .commands = tables,
     .value = "NAMES",
     .help = "These columns, as domain,mac-address,age; \"help columns\" lists them",
     .check = check_columns,
     .store = store_columns},
    {.name = "wide",
     .letter = 'W',
     .commands = tables,
     .help = "All columns, and no name cut",
     .store = store_flag<&client_options::wide>},
    {.name = "no-header",
     .commands = tables,
     .help = "No line of titles",
     .store = store_flag<&client_options::no_header>},
    {.name = "watch",
     .letter = 'w',
     .commands = shows,
     .value = "SECONDS",
     .help = "Show it again and again, with this pause",
     .check = check_number,
     .store = store_number<&client_options::watch_seconds>,
     .max_number = max_seconds},
    {.name = "json",
     .letter = 'j',
     .commands = asking,
     .help = "Print one JSON array",
     .store = store_form<form::json>},
    {.name = "json-lines",
     .letter = 'J',
     .commands = asking,
     .help = "Print one JSON object per line",
     .store = store_form<form::json_lines>},
    {.name = "bridge-json",
     .commands = only(show_mac),
     .help = "Print entries as \"bridge -j fdb show\" does",
     .store = store_form<form::bridge_json>},
    {.name = "limit",
     .letter = 'l',
     .commands = asking,
     .value = "NUMBER",
     .help = "Print at most this number of items",
     .check = check_number,
     .store = store_number<&client_options::limit>,
     .max_number = UINT64_MAX},
    {.name = "strict",
     .commands = asking,
     .help = "Print nothing if the answer may be incomplete",
     .store = store_flag<&client_options::strict>},
    {.name = "color",
     .source = value_source::choices,
     .commands = every,
     .value = "WHEN",
     .help = "Colours: auto (on a terminal, unless NO_COLOR is set), always or never",
     .check = check_choice,
     .store = store_color,
     .choices = color_words,
     .fallback = "auto"},
    {.name = "no-pager",
     .commands = every,
     .help = "Never start a pager",
     .store = store_flag<&client_options::no_pager>},

    // Connection
    {.name = "socket",
     .group = connection,
     .source = value_source::files,
     .commands = asking,
     .value = "PATH",
     .help = "Socket of the daemon",
     .check = check_path,
     .store = store_text<&client_options::socket>,
     .fallback = default_socket,
     .environment = "L2FIBD_SOCKET"},
    {.name = "timeout",
     .group = connection,
     .commands = asking,
     .value = "SECONDS",
     .help = "Give up if nothing arrives for this long",
     .check = check_number,
     .store = store_number<&client_options::timeout_seconds>,
     .max_number = max_seconds,
     .fallback = "60"},
    {.name = "help", .letter = 'h', .group = connection, .commands = every, .help = "Print this help and exit"},
    {.name = "version", .group = connection, .commands = every, .help = "Print the version and exit"},
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
