// SPDX-License-Identifier: Apache-2.0

// Reads members of the daemon's JSON and writes JSON as plain ASCII.
//
// Threads: pure functions. A value belongs to the parser that made it.
#pragma once

#include <cstdint>
#include <optional>
#include <simdjson.h>
#include <string>
#include <string_view>

namespace l2fibctl {

using json_value = simdjson::dom::element;

// Ends the client: an answer that claims success is not what the API promises.
[[noreturn]] void fail_damaged();

// Nothing when the value is no object or lacks the member.
std::optional<json_value> find(const json_value &object, std::string_view member);

// The member, or an empty text or 0 when the object lacks it. Throws a failure when it has another type.
std::string_view text_of(const json_value &object, std::string_view member);
uint64_t number_of(const json_value &object, std::string_view member);

// Append JSON. Characters beyond ASCII are escaped, which keeps a terminal safe and the text the same.
void put_text(std::string &to, std::string_view text);
void put_value(std::string &to, const json_value &value);

} // namespace l2fibctl
