// SPDX-License-Identifier: Apache-2.0

// Writes JSON straight into a text, so that a page of items costs no tree. The caller keeps brackets and commas in
// their order by calling what comes next; commas are written by themselves.
//
// Texts may hold any bytes: what is no UTF-8 is written as U+FFFD.
//
// A writer that goes on after items of an earlier one begins with a comma.
//
// Threads: a writer and its text belong to one thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace l2fibd {

class json_writer {
public:
    explicit json_writer(std::string &to, bool goes_on = false)
        : out_(to)
        , needs_comma_(goes_on)
    {}

    void begin_object() { begin('{'); }
    void end_object() { end('}'); }
    void begin_array() { begin('['); }
    void end_array() { end(']'); }

    void name(std::string_view of_member);

    void text(std::string_view value);
    void number(uint64_t value); // as a JSON number: of at most 32 bits by the rules of the encoding
    void boolean(bool value);

    void member(std::string_view of_member, std::string_view value);
    void member(std::string_view of_member, uint32_t value);
    void member64(std::string_view of_member, uint64_t value); // a text
    void begin_object(std::string_view of_member);
    void begin_array(std::string_view of_member);

private:
    void begin(char bracket);
    void end(char bracket);
    void separate();
    void quote(std::string_view value);

    std::string &out_;
    bool needs_comma_;
};

} // namespace l2fibd
