// SPDX-License-Identifier: Apache-2.0

#include "cli/query/json.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <nlohmann/json.hpp>

#include "cli/failure.h"

namespace l2fibctl {

namespace {

constexpr size_t max_number_length = 32; // the longest number, a double, needs 24 characters
constexpr int in_one_line = -1;          // nlohmann's indentation

template <typename Number>
void put_number(text_buffer &to, Number number)
{
    char *digits = to.room_for(max_number_length);
    to.end_at(std::to_chars(digits, digits + max_number_length, number).ptr);
}

// The text needs no escapes. Returns the end.
char *write_quoted(char *at, std::string_view text)
{
    *at++ = '"';
    at = std::copy(text.begin(), text.end(), at);
    *at++ = '"';
    return at;
}

void put_quoted(text_buffer &to, std::string_view text)
{
    char *room = to.room_for(text.size() + sizeof("\"\"") - 1);
    assert(room != nullptr);
    to.end_at(write_quoted(room, text));
}

void put_array(text_buffer &to, json_value array)
{
    char separator = '[';
    for (json_value element = array.first(); element != array.end(); element = element.next()) {
        to.put(separator);
        put_value(to, element);
        separator = ',';
    }
    to.put(array.is_empty() ? "[]" : "]");
}

void put_object(text_buffer &to, json_value object)
{
    char separator = '{';
    for (json_value member = object.first(); member != object.end(); member = member.next()) {
        to.put(separator);
        put_text(to, object.names()[member.name()]);
        to.put(':');
        put_value(to, member);
        separator = ',';
    }
    to.put(object.is_empty() ? "{}" : "}");
}

} // namespace

void fail_damaged()
{
    throw failure(
        exit_status::cut,
        "the daemon's answer is damaged: expected the JSON of the API; compare the versions of l2fibd and l2fibctl");
}

json_value find(json_value object, std::string_view member)
{
    if (!object.is_object()) {
        return {};
    }
    json_value found = object.first();
    while (found != object.end() && object.names()[found.name()] != member) {
        found = found.next();
    }
    return found != object.end() ? found : json_value();
}

std::string_view text_of(json_value object, std::string_view member)
{
    const json_value found = find(object, member);
    if (found && !found.is_text()) {
        fail_damaged();
    }
    return found ? found.text() : "";
}

uint64_t number_of(json_value object, std::string_view member)
{
    const json_value found = find(object, member);
    if (found && found.kind() != json_kind::natural) {
        fail_damaged();
    }
    return found ? found.natural() : 0;
}

void put_text(text_buffer &to, std::string_view text)
{
    const char *end = text.data() + text.size();
    if (skip_plain(text.data(), end) == end) {
        put_quoted(to, text);
    } else {
        using nlohmann::json;
        to.put(json(text).dump(in_one_line, ' ', true, json::error_handler_t::replace));
    }
}

void put_name(text_buffer &to, char separator, std::string_view name)
{
    char *at = to.room_for(sizeof(separator) + name.size() + sizeof("\"\":") - 1);
    *at++ = separator;
    at = write_quoted(at, name);
    *at++ = ':';
    to.end_at(at);
}

void put_value(text_buffer &to, json_value value)
{
    switch (value.kind()) {
    case json_kind::array: put_array(to, value); break;
    case json_kind::object: put_object(to, value); break;
    case json_kind::text: value.is_plain() ? put_quoted(to, value.text()) : put_text(to, value.text()); break;
    case json_kind::natural: value.is_plain() ? to.put(value.digits()) : put_number(to, value.natural()); break;
    case json_kind::negative: put_number(to, value.negative()); break;
    case json_kind::real: put_number(to, value.real()); break;
    case json_kind::boolean: to.put(value.boolean() ? "true" : "false"); break;
    case json_kind::null: to.put("null"); break;
    }
}

std::string json_text(json_value value)
{
    text_buffer text;
    put_value(text, value);
    return std::string(text.text());
}

} // namespace l2fibctl
