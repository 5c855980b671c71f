// SPDX-License-Identifier: Apache-2.0

// Finds the command and the options of a command line. Completes names that are abbreviated and suggests names for
// those that do not exist:
//
//      sh mac --dom br0        show mac --domain br0
//      show mac --vlna 1       a failure: --vlna: show mac has no such option; did you mean --vlan?
//
// Threads: pure functions.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli/line/table.h"

namespace l2fibctl {

struct given_option {
    const option_row *row;
    std::string value; // empty for a flag
};

struct given_names {
    const command_row *command = nullptr;    // null: the command line names no command
    std::string_view group = {};             // the first of two words, if the second is missing
    std::vector<given_option> options = {};  // in the order of the command line
    std::vector<std::string> arguments = {}; // words behind the command
    const option_row *awaits = nullptr;      // the last word is this option, and its value is missing

    bool has(std::string_view name) const;
};

// Values are not checked. Throws a failure for a name that is unknown or ambiguous.
given_names read_names(std::span<const std::string> words);

struct found_command {
    const command_row *command; // null: the words name no whole command
    std::string_view group;     // the first of two words, if the second is missing
};

// Finds the command that the words name in full or abbreviated, such as {"sh", "mac"}.
found_command find_command(std::span<const std::string> words);

// Returns the candidate that is most like the word, or an empty text if none is much like it.
std::string_view closest(std::string_view word, std::span<const std::string_view> candidates);

} // namespace l2fibctl
