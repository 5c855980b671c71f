// SPDX-License-Identifier: Apache-2.0

// Reads members of the daemon's JSON, and writes JSON in plain ASCII.
//
//      text_of(value, "port")      "eth1"; "" if the object has no such member; a failure if it is not a text
//
// Threads: pure functions. A value is valid as long as the parser that made it, until its next parse.
#pragma once

#include <cstdint>
#include <optional>
#include <simdjson.h>
#include <string>
#include <string_view>

namespace l2fibctl {

using json_value = simdjson::dom::element;

// Throws a failure: the daemon reports success, but the answer does not have the form of docs/api.md.
[[noreturn]] void fail_damaged();

// Returns nothing if the value is not an object or has no such member.
std::optional<json_value> find(const json_value &object, std::string_view member);

// Return the member; an empty text or 0 if the object has no such member. Throw a failure if it has another type.
std::string_view text_of(const json_value &object, std::string_view member);
uint64_t number_of(const json_value &object, std::string_view member);

// Append JSON to `to`. Control characters and everything beyond ASCII become escapes: they cannot disturb a terminal,
// and a parser reads the same text.
void put_text(std::string &to, std::string_view text);
void put_value(std::string &to, const json_value &value);

} // namespace l2fibctl
