#include "daemon/json_writer.h"

#include <algorithm>
#include <cstdio>

#include "daemon/text.h"

namespace l2fibd {

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd";

void put_character(std::string &out, char c)
{
    if (c == '"' || c == '\\') {
        out += '\\';
        out += c;
    } else if (static_cast<uint8_t>(c) < 0x20) {
        char code[8];
        std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(static_cast<uint8_t>(c)));
        out += code;
    } else {
        out += c;
    }
}

} // namespace

void json_writer::separate()
{
    if (needs_comma) {
        out += ',';
    }
    needs_comma = true;
}

void json_writer::begin(char bracket)
{
    separate();
    out += bracket;
    needs_comma = false;
}

void json_writer::end(char bracket)
{
    out += bracket;
    needs_comma = true;
}

void json_writer::quote(std::string_view value)
{
    out += '"';
    while (!value.empty()) {
        const size_t length = utf8_length(value);
        if (length == 1) {
            put_character(out, value.front());
        } else {
            out += length == 0 ? replacement : value.substr(0, length);
        }
        value.remove_prefix(std::max<size_t>(1, length));
    }
    out += '"';
}

void json_writer::name(std::string_view of_member)
{
    text(of_member);
    out += ':';
    needs_comma = false;
}

void json_writer::text(std::string_view value)
{
    separate();
    quote(value);
}

void json_writer::number(uint64_t value)
{
    separate();
    out += std::to_string(value);
}

void json_writer::boolean(bool value)
{
    separate();
    out += value ? "true" : "false";
}

void json_writer::member(std::string_view of_member, std::string_view value)
{
    name(of_member);
    text(value);
}

void json_writer::member(std::string_view of_member, uint32_t value)
{
    name(of_member);
    number(value);
}

void json_writer::member64(std::string_view of_member, uint64_t value)
{
    member(of_member, std::to_string(value));
}

void json_writer::begin_object(std::string_view of_member)
{
    name(of_member);
    begin_object();
}

void json_writer::begin_array(std::string_view of_member)
{
    name(of_member);
    begin_array();
}

} // namespace l2fibd
