// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/json/json_writer.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "base/text.h"

namespace l2fibd {

namespace {

constexpr size_t spare_bytes = 1024; // of the room that is made when there is too little

constexpr std::string_view replacement = "\xef\xbf\xbd"; // U+FFFD

// Printable ASCII that JSON does not escape, by character.
constexpr std::array<bool, UINT8_MAX + 1> plain = [] {
    std::array<bool, UINT8_MAX + 1> table{};
    for (char c = ' '; c <= '~'; c++) {
        table[static_cast<uint8_t>(c)] = c != '"' && c != '\\';
    }
    return table;
}();

// Writes the first character of the text, which is not plain, and removes it from the text.
char *put_character(char *at, std::string_view &text)
{
    const size_t length = base::utf8_length(text);
    const char first = text.front();
    if (length != 1) {
        at = std::ranges::copy(length == 0 ? replacement : text.substr(0, length), at).out;
    } else if (first == '"' || first == '\\') {
        *at++ = '\\';
        *at++ = first;
    } else {
        at += std::sprintf(at, "\\u%04x", static_cast<unsigned>(first));
    }
    text.remove_prefix(std::max<size_t>(1, length));
    return at;
}

} // namespace

// The caller has made room for quoted_bytes(value).
char *json_writer::put_quoted(char *at, std::string_view value)
{
    *at++ = '"';
    while (!value.empty()) {
        size_t count = 0;
        for (; count < value.size() && plain[static_cast<uint8_t>(value[count])]; count++) {
            at[count] = value[count];
        }
        at += count;
        value.remove_prefix(count);
        if (!value.empty()) {
            at = put_character(at, value);
        }
    }
    *at++ = '"';
    return at;
}

// Clears a little room only, because the next page may not need it. The text doubles its memory by itself.
void json_writer::grow(size_t bytes)
{
    text_.resize(used_ + bytes + spare_bytes);
}

std::string json_writer::take()
{
    text_.resize(std::exchange(used_, 0));
    return std::exchange(text_, {});
}

void json_writer::number(uint64_t value)
{
    set_end(put_number(separate(room(separator_bytes + max_number_bytes)), value));
}

void json_writer::boolean(bool value)
{
    constexpr std::string_view words[] = {"false", "true"};
    const std::string_view word = words[value ? 1 : 0];
    set_end(put(separate(room(separator_bytes + word.size())), word));
}

void json_writer::member64(std::string_view member_name, uint64_t value)
{
    formatted_member(member_name, [value](char *at) { return put_number(at, value); });
}

void json_writer::begin_object(std::string_view member_name)
{
    name(member_name);
    begin_object();
}

} // namespace l2fibd
