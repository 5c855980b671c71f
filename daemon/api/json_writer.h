// SPDX-License-Identifier: Apache-2.0

// Writes JSON straight into a text, so that a page of items needs no tree in memory. The caller calls the functions in
// the order of the text. The writer adds the commas:
//
//      std::string body;
//      json_writer json(body);
//      json.begin_object();
//      json.member("xcid", 4);
//      json.begin_array("flags");
//      json.text("static");
//      json.end_array();
//      json.end_object();                      {"xcid":4,"flags":["static"]}
//
// Texts may hold any bytes. A byte that is not valid UTF-8 is written as U+FFFD.
//
// Threads: a writer and its text belong to one thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace l2fibd {

class json_writer {
public:
    // With `follows_item` the writer continues a text that ends with an item, and begins with a comma.
    explicit json_writer(std::string &to, bool follows_item = false)
        : out_(to)
        , needs_comma_(follows_item)
    {}

    void begin_object() { begin('{'); }
    void end_object() { end('}'); }
    void begin_array() { begin('['); }
    void end_array() { end(']'); }

    void name(std::string_view member_name);

    void text(std::string_view value);
    void number(uint64_t value); // of at most 32 bits: RFC 7951 encodes larger ones as texts
    void boolean(bool value);

    void member(std::string_view member_name, std::string_view value);
    void member(std::string_view member_name, uint32_t value);
    void member64(std::string_view member_name, uint64_t value); // as a text
    void begin_object(std::string_view member_name);
    void begin_array(std::string_view member_name);

private:
    void begin(char bracket);
    void end(char bracket);
    void separate();
    void quote(std::string_view value);

    std::string &out_;
    bool needs_comma_;
};

} // namespace l2fibd
