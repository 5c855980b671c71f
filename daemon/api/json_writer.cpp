// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/json_writer.h"

#include <algorithm>
#include <cstdio>

#include "base/text.h"

namespace l2fibd {

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd"; // U+FFFD

// Printable ASCII that JSON does not escape.
bool is_plain(char c)
{
    return c >= ' ' && c <= '~' && c != '"' && c != '\\';
}

// Writes the first character of the text, which is not plain. Returns its length in bytes.
size_t put_character(std::string &out, std::string_view text)
{
    const size_t length = base::utf8_length(text);
    const char first = text.front();
    if (length != 1) {
        out += length == 0 ? replacement : text.substr(0, length);
    } else if (first == '"' || first == '\\') {
        out.append("\\").append(1, first);
    } else {
        char code[8];
        std::snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned>(first));
        out += code;
    }
    return std::max<size_t>(1, length);
}

} // namespace

void json_writer::separate()
{
    if (needs_comma_) {
        out_ += ',';
    }
    needs_comma_ = true;
}

void json_writer::begin(char bracket)
{
    separate();
    out_ += bracket;
    needs_comma_ = false;
}

void json_writer::end(char bracket)
{
    out_ += bracket;
    needs_comma_ = true;
}

void json_writer::quote(std::string_view value)
{
    out_ += '"';
    while (!value.empty()) {
        const auto plain = static_cast<size_t>(std::ranges::find_if_not(value, is_plain) - value.begin());
        out_ += value.substr(0, plain);
        value.remove_prefix(plain);
        if (!value.empty()) {
            value.remove_prefix(put_character(out_, value));
        }
    }
    out_ += '"';
}

void json_writer::name(std::string_view member_name)
{
    text(member_name);
    out_ += ':';
    needs_comma_ = false;
}

void json_writer::text(std::string_view value)
{
    separate();
    quote(value);
}

void json_writer::number(uint64_t value)
{
    separate();
    out_ += std::to_string(value);
}

void json_writer::boolean(bool value)
{
    separate();
    out_ += value ? "true" : "false";
}

void json_writer::member(std::string_view member_name, std::string_view value)
{
    name(member_name);
    text(value);
}

void json_writer::member(std::string_view member_name, uint32_t value)
{
    name(member_name);
    number(value);
}

void json_writer::member64(std::string_view member_name, uint64_t value)
{
    member(member_name, std::to_string(value));
}

void json_writer::begin_object(std::string_view member_name)
{
    name(member_name);
    begin_object();
}

void json_writer::begin_array(std::string_view member_name)
{
    name(member_name);
    begin_array();
}

} // namespace l2fibd
