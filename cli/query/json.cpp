// SPDX-License-Identifier: Apache-2.0

#include "cli/query/json.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "cli/failure.h"

namespace l2fibctl {

namespace {

using simdjson::dom::element_type;

constexpr size_t max_number_length = 32; // the longest number, a double, needs 24 characters
constexpr int in_one_line = -1;          // nlohmann's indentation

// Returns whether JSON can hold the character without an escape.
bool is_plain(char c)
{
    return c >= ' ' && c < '\x7f' && c != '"' && c != '\\';
}

template <typename Number>
void put_number(std::string &to, Number number)
{
    char digits[max_number_length];
    to.append(digits, std::to_chars(digits, digits + sizeof(digits), number).ptr);
}

void put_array(std::string &to, const simdjson::dom::array &values)
{
    std::string_view separator = "[";
    for (const json_value value : values) {
        to += separator;
        put_value(to, value);
        separator = ",";
    }
    to += separator == "[" ? "[]" : "]";
}

void put_object(std::string &to, const simdjson::dom::object &members)
{
    std::string_view separator = "{";
    for (const auto &[name, value] : members) {
        to += separator;
        put_text(to, name);
        to += ':';
        put_value(to, value);
        separator = ",";
    }
    to += separator == "{" ? "{}" : "}";
}

} // namespace

void fail_damaged()
{
    throw failure(
        exit_status::cut,
        "the daemon's answer is damaged: expected the JSON of the API; compare the versions of l2fibd and l2fibctl");
}

std::optional<json_value> find(const json_value &object, std::string_view member)
{
    json_value found;
    const bool has_member = object.is_object() && object.at_key(member).get(found) == simdjson::SUCCESS;
    return has_member ? std::optional(found) : std::nullopt;
}

std::string_view text_of(const json_value &object, std::string_view member)
{
    const auto found = find(object, member);
    std::string_view text;
    if (found && found->get(text) != simdjson::SUCCESS) {
        fail_damaged();
    }
    return text;
}

uint64_t number_of(const json_value &object, std::string_view member)
{
    const auto found = find(object, member);
    uint64_t number = 0;
    if (found && found->get(number) != simdjson::SUCCESS) {
        fail_damaged();
    }
    return number;
}

void put_text(std::string &to, std::string_view text)
{
    if (std::ranges::all_of(text, is_plain)) {
        to.append(1, '"').append(text).append(1, '"');
    } else {
        using nlohmann::json;
        to += json(text).dump(in_one_line, ' ', true, json::error_handler_t::replace);
    }
}

void put_value(std::string &to, const json_value &value)
{
    switch (value.type()) {
    case element_type::ARRAY: put_array(to, value); break;
    case element_type::OBJECT: put_object(to, value); break;
    case element_type::STRING: put_text(to, value); break;
    case element_type::INT64: put_number(to, int64_t(value)); break;
    case element_type::UINT64: put_number(to, uint64_t(value)); break;
    case element_type::DOUBLE: put_number(to, double(value)); break;
    case element_type::BOOL: to += bool(value) ? "true" : "false"; break;
    case element_type::NULL_VALUE: to += "null"; break;
    }
}

} // namespace l2fibctl
