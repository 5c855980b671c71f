// SPDX-License-Identifier: Apache-2.0

// Reads the daemon's JSON, and writes JSON in plain ASCII.
//
//      json_document document;
//      const json_value root = document.parse(R"({"port":"eth1","xcid":4})");
//      text_of(root, "port")       "eth1"; "" if the object has no such member; a failure if it is not a text
//
// A parsed text is one array of nodes in the order of the text. A container's node says where the nodes of its elements
// end, so a reader steps over an element without looking into it. An object has two nodes for each member:
//
//      {"port":"eth1","flags":[]}      object of 5 nodes, "port", "eth1", "flags", array of 1 node
//
// Threads: pure functions. One thread at a time uses a document.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/text_buffer.h"

namespace l2fibctl {

enum class json_kind : uint8_t {
    null,
    boolean,
    natural,  // 0 or more
    negative, // a whole number below 0
    real,
    text,
    array,
    object
};

// Private to json_document and json_value.
struct json_node {
    union content {
        bool boolean;
        uint64_t natural;
        int64_t negative;
        double real;
        const char *text;
    };

    content value = {.natural = 0};
    uint32_t size = 0; // bytes of a text, nodes of a container with its own
    json_kind kind = json_kind::null;
};

// A value of a document. Valid until the document's next `parse`, and as long as the parsed text stays in its place.
class json_value {
public:
    json_value() = default; // no value
    explicit json_value(const json_node *node)
        : node_(node)
    {}

    explicit operator bool() const { return node_ != nullptr; }

    json_kind kind() const { return node_->kind; }
    bool is_object() const { return kind() == json_kind::object; }
    bool is_array() const { return kind() == json_kind::array; }
    bool is_text() const { return kind() == json_kind::text; }

    // The caller has checked the kind.
    std::string_view text() const { return {node_->value.text, node_->size}; }
    bool boolean() const { return node_->value.boolean; }
    uint64_t natural() const { return node_->value.natural; }
    int64_t negative() const { return node_->value.negative; }
    double real() const { return node_->value.real; }

    // Walks the elements of an array or, name by name and value by value, the members of an object:
    //
    //      for (json_value element = list.first(); element != list.end(); element = element.next())
    json_value first() const { return json_value(node_ + 1); }
    json_value end() const { return json_value(node_ + node_->size); }
    json_value next() const { return kind() >= json_kind::array ? end() : first(); }
    bool is_empty() const { return first() == end(); }

    bool operator==(const json_value &) const = default;

private:
    const json_node *node_ = nullptr;
};

class json_document {
public:
    // Returns the value of the whole text, or no value if the text is not JSON. The values refer to `text`.
    json_value parse(std::string_view text);

private:
    struct builder;

    std::vector<json_node> nodes_;
    std::vector<size_t> open_;          // places of the containers that have not ended
    std::deque<std::string> unescaped_; // the texts that hold escapes
};

// Throws a failure: the daemon reports success, but the answer does not have the form of docs/api.md.
[[noreturn]] void fail_damaged();

// Returns no value if `object` is not an object or has no such member.
json_value find(json_value object, std::string_view member);

// Return the member; an empty text or 0 if the object has no such member. Throw a failure if it has another type.
std::string_view text_of(json_value object, std::string_view member);
uint64_t number_of(json_value object, std::string_view member);

// Append JSON to `to`. Control characters and everything beyond ASCII become escapes: they cannot disturb a terminal,
// and a parser reads the same text.
void put_text(text_buffer &to, std::string_view text);
void put_value(text_buffer &to, json_value value);

} // namespace l2fibctl
