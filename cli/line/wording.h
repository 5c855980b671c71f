// SPDX-License-Identifier: Apache-2.0

// What messages about the command line have in common.
//
// Threads: pure functions.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace l2fibctl {

// Throws a failure with the status wrong usage. The message gets a line that points at --help.
[[noreturn]] void fail_usage(const std::string &message);

// Returns the text in quotation marks, safe for a terminal.
std::string in_quotes(std::string_view text);

// listed({"vlan", "vni", "vtep"}, " or ", "--")      "--vlan, --vni or --vtep"
std::string listed(std::span<const std::string_view> words, std::string_view last_separator,
                   std::string_view prefix = {});

} // namespace l2fibctl
