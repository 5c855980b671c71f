// SPDX-License-Identifier: Apache-2.0

// The one table of commands and options. The parser, --help, the help topics, suggestions, abbreviations and the
// completion of shells all come from it.
//
//      To add an option: a member in client_options (cli/options.h) and a row in `option_rows` (table.cpp).
//      To add a command: a row in `command_rows`, its bit in the options that it takes, and a function in
//      cli/commands.cpp.
//
// The room cli/line reads the command line: names.h completes names, values.h checks values, parser.h makes the record
// of cli/options.h. The room includes from cli/ only.
//
// Threads: constant data.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "cli/options.h"

namespace l2fibctl {

// A set of commands: a bit for each command_kind.
using command_set = uint32_t;

constexpr command_set only(command_kind command)
{
    return command_set(1) << static_cast<unsigned>(command);
}

template <typename... kinds>
constexpr command_set set_of(kinds... commands)
{
    return (only(commands) | ...);
}

constexpr bool has(command_set set, command_kind command)
{
    return (set & only(command)) != 0;
}

// Where the completion finds values.
enum class value_source : uint8_t {
    nowhere,
    choices,   // the row's words
    domains,   // names from the daemon
    ports,     // names from the daemon
    vteps,     // addresses from the daemon
    addresses, // MAC addresses from the daemon that begin as typed
    files,
    filters, // NAME=VALUE of an option that is a filter
    columns, // members of the items that the command shows, separated by commas
    topics   // commands and help topics
};

// The headings of --help.
enum class option_group : uint8_t { filters, output, command, connection };

struct option_row;

// What a check of a value may look at.
struct value_place {
    const option_row &row;
    command_kind command;
};

// Returns an error that names the value and what was expected. May rewrite the value.
using value_check = base::result (*)(const value_place &place, std::string &value);
using value_store = void (*)(client_options &to, const option_row &row, const std::string &value);

using word_list = std::span<const std::string_view>;

// An option, or the argument of a command.
struct option_row {
    std::string_view name; // without dashes
    char letter = '\0';    // '\0': the option has no short form
    bool repeats = false;  // it may be given more than once
    option_group group = option_group::output;
    value_source source = value_source::nowhere;
    command_set commands = 0;
    std::string_view value = {}; // how --help names the value; empty: the option is a flag
    std::string_view help;
    value_check check = nullptr; // null: every value is good, or there is none
    value_store store = nullptr; // null: --help and --version, which the parser looks for itself
    word_list choices = {};
    uint64_t max_number = 0;        // of check_number
    std::string_view fallback = {}; // what --help shows as the value without the option
    std::string_view environment = {};
    std::string_view parameter = {}; // of the API, if the option is a filter

    bool is_flag() const { return value.empty(); }
    bool is_filter() const { return !parameter.empty(); }
};

enum class argument_count : uint8_t { none, optional, required, any };

struct command_row {
    command_kind kind;
    argument_count arguments;
    std::string_view group; // the first word of two; empty: the command is one word
    std::string_view name;
    std::string_view help = {}; // empty: the command is hidden
    option_row argument = {};
    std::string_view alias = {}; // a short name, although it abbreviates another command as well

    bool is_hidden() const { return help.empty(); }
};

// Two options that exclude each other in these commands.
struct exclusion {
    std::string_view one;
    std::string_view other;
    command_set commands;
};

std::span<const command_row> all_commands();
std::span<const option_row> all_options();
std::span<const exclusion> all_exclusions();

// `kind` is not none.
const command_row &row_of(command_kind kind);

// The words of a command as they are typed: "show mac".
std::string words_of(const command_row &command);

// The options of a command, in the order of --help. With command_kind::none the options of all commands, each name
// once.
std::vector<const option_row *> options_of(command_kind command);

// Returns null if the command has no option with this whole name or this letter. command_kind::none stands for any
// command: rows with the same name agree on whether they take a value.
const option_row *find_option(std::string_view name, command_kind command);
const option_row *find_option(char letter, command_kind command);

} // namespace l2fibctl
