// SPDX-License-Identifier: Apache-2.0

// Writes JSON as a text, so that a page of items needs no tree in memory. The caller calls the functions in the order
// of the text. The writer adds the commas:
//
//      json_writer json;
//      json.begin_object();
//      json.member("xcid", 4);
//      json.begin_array("flags");
//      json.text("static");
//      json.end_array();
//      json.end_object();
//      return json.take();                     {"xcid":4,"flags":["static"]}
//
// The API defines the names of members, so they need no escapes. Texts may hold any bytes. The writer replaces a byte
// that is not valid UTF-8 by U+FFFD.
//
// Speed. A list may have a million rows, so the functions that write rows are inline. Before each write they make room
// for the longest text that it can produce. The write then needs no further checks.
//
// Threads: a writer and its text belong to one thread.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace l2fibd {

class json_writer {
public:
    // Longest text that the function of a formatted member may write, in bytes.
    static constexpr size_t max_formatted_bytes = 64;

    // Reuses the memory of `memory` and drops its text. With `follows_item` the text before this one ended with an
    // item, so the writer begins with a comma.
    explicit json_writer(std::string memory = {}, bool follows_item = false)
        : text_(std::move(memory))
        , needs_comma_(follows_item)
    {}

    // Ends the writing and returns the whole text.
    std::string take();

    void begin_object() { begin('{'); }
    void end_object() { end('}'); }
    void begin_array() { begin('['); }
    void end_array() { end(']'); }

    void name(std::string_view member_name) { set_end(put_name(room(name_bytes(member_name)), member_name)); }

    void text(std::string_view value)
    {
        set_end(put_quoted(separate(room(separator_bytes + quoted_bytes(value))), value));
    }
    void number(uint64_t value); // of at most 32 bits: RFC 7951 encodes larger ones as texts
    void boolean(bool value);

    void member(std::string_view member_name, std::string_view value);
    void member(std::string_view member_name, uint32_t value);
    void member64(std::string_view member_name, uint64_t value); // as a text
    void begin_object(std::string_view member_name);
    void begin_array(std::string_view member_name);

    // Writes a text that `format` puts at a place and that needs no escapes. `format` gets the place and returns the
    // end of its text, which has at most max_formatted_bytes.
    template <typename Format>
    void formatted_member(std::string_view member_name, Format format);

private:
    static constexpr size_t separator_bytes = 1;
    static constexpr size_t max_number_bytes = 20;
    static constexpr size_t max_escaped_bytes = 6; // of a byte: as \u001f

    static size_t name_bytes(std::string_view name) { return name.size() + sizeof(R"(,"":)"); }
    static size_t quoted_bytes(std::string_view value) { return max_escaped_bytes * value.size() + sizeof(R"("")"); }
    static char *put(char *at, std::string_view plain)
    {
        std::memcpy(at, plain.data(), plain.size());
        return at + plain.size();
    }
    static char *put_number(char *at, uint64_t value) { return std::to_chars(at, at + max_number_bytes, value).ptr; }
    static char *put_quoted(char *at, std::string_view value);

    // The end of the text, with room for `bytes` more.
    char *room(size_t bytes)
    {
        if (text_.size() - used_ < bytes) {
            grow(bytes);
        }
        return text_.data() + used_;
    }
    void set_end(const char *end) { used_ = static_cast<size_t>(end - text_.data()); }
    void grow(size_t bytes);

    // Writes the comma before a value or name, and asks for one behind it.
    char *separate(char *at)
    {
        *at = ',';
        return at + (std::exchange(needs_comma_, true) ? 1 : 0);
    }
    char *put_name(char *at, std::string_view member_name)
    {
        at = put(separate(at), "\"");
        at = put(put(at, member_name), "\":");
        needs_comma_ = false;
        return at;
    }
    void begin(char bracket);
    void end(char bracket);

    std::string text_; // its size is the room that there is
    size_t used_ = 0;  // bytes of the text that are written
    bool needs_comma_;
};

inline void json_writer::begin(char bracket)
{
    char *at = separate(room(separator_bytes + 1));
    *at++ = bracket;
    set_end(at);
    needs_comma_ = false;
}

inline void json_writer::end(char bracket)
{
    char *at = room(1);
    *at++ = bracket;
    set_end(at);
    needs_comma_ = true;
}

inline void json_writer::member(std::string_view member_name, std::string_view value)
{
    char *const at = put_name(room(name_bytes(member_name) + quoted_bytes(value)), member_name);
    set_end(put_quoted(at, value));
    needs_comma_ = true;
}

inline void json_writer::member(std::string_view member_name, uint32_t value)
{
    char *const at = put_name(room(name_bytes(member_name) + max_number_bytes), member_name);
    set_end(put_number(at, value));
    needs_comma_ = true;
}

inline void json_writer::begin_array(std::string_view member_name)
{
    name(member_name);
    begin_array();
}

template <typename Format>
void json_writer::formatted_member(std::string_view member_name, Format format)
{
    char *at = put_name(room(name_bytes(member_name) + quoted_bytes({}) + max_formatted_bytes), member_name);
    *at++ = '"';
    at = format(at);
    *at++ = '"';
    set_end(at);
    needs_comma_ = true;
}

} // namespace l2fibd
