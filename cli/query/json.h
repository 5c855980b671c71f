// SPDX-License-Identifier: Apache-2.0

// Reads the daemon's JSON, and writes JSON in plain ASCII.
//
//      json_document document;
//      const json_value root = document.parse(R"({"port":"eth1","xcid":4})");
//      text_of(root, "port")       "eth1"; "" if the object has no such member; a failure if it is not a text
//
// A parsed text is one array of nodes in the order of the text. A container's node says where the nodes of its elements
// end, so a reader steps over an element without looking into it. A member of an object is the node of its value, with
// the number of its name:
//
//      {"port":"eth1","flags":[]}      object of 3 nodes; name 0, "eth1"; name 1, array of 1 node
//
// Threads: pure functions. One thread at a time uses a document.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
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

// The names of members that a document has seen. A name keeps its number until `clear`.
class json_names {
public:
    static constexpr size_t max_names = 1024; // ten times as many as the API has

    size_t size() const { return quoted_.size(); }
    bool is_full() const { return size() == max_names; }

    // Counts the calls of `clear`.
    unsigned generation() const { return generation_; }

    void clear()
    {
        quoted_.clear();
        generation_++;
    }

    // Returns the name as JSON with its colon: "port":
    std::string_view quoted(size_t number) const { return quoted_[number]; }

    std::string_view operator[](size_t number) const
    {
        const std::string_view name = quoted_[number];
        return name.substr(1, name.size() - sizeof("\"\":") + 1);
    }

    // Returns the number of the name, a new one if the name is new, or max_names if the names are full.
    size_t number_of(std::string_view name);

private:
    std::vector<std::string> quoted_;
    unsigned generation_ = 0;
};

// Private to json_document and json_value.
struct json_node {
    union content {
        const char *source;      // of a text without its quotation marks, or the digits of a plain natural number
        const json_names *names; // of an object's members
        uint64_t natural;
        int64_t negative;
        double real;
        bool boolean;
    };

    content value = {.natural = 0};
    uint32_t size = 1; // bytes of the source, nodes of a container with its own
    json_kind kind = json_kind::null;
    bool is_plain = false;                 // of a text or a natural number: put_value writes what stands in the source
    uint16_t name = json_names::max_names; // of a member of an object
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

    // A plain text is printable ASCII without quotation marks and backslashes. A plain natural number is known by its
    // digits. A value that is not plain may be of the same form.
    bool is_plain() const { return node_->is_plain; }
    std::string_view digits() const { return source(); }

    // The caller has checked the kind.
    std::string_view text() const { return source(); }
    bool boolean() const { return node_->value.boolean; }
    uint64_t natural() const;
    int64_t negative() const { return node_->value.negative; }
    double real() const { return node_->value.real; }

    // Walks the elements of an array or the values of an object's members:
    //
    //      for (json_value element = list.first(); element != list.end(); element = element.next())
    json_value first() const { return json_value(node_ + 1); }
    json_value end() const { return json_value(node_ + node_->size); }
    json_value next() const { return kind() >= json_kind::array ? end() : first(); }
    bool is_empty() const { return first() == end(); }

    // Of an object's member: the number of its name in the names of the object.
    size_t name() const { return node_->name; }
    const json_names &names() const { return *node_->value.names; }

    // Returns how a member with this name stands in the source: "port":"eth1" . Returns an empty text unless put_name
    // and put_value would write the same.
    std::string_view plain_member(std::string_view name) const;

    bool operator==(const json_value &) const = default;

private:
    std::string_view source() const { return {node_->value.source, node_->size}; }

    const json_node *node_ = nullptr;
};

inline std::string_view json_value::plain_member(std::string_view name) const
{
    if (!is_plain() || node_->name == json_names::max_names) {
        return {};
    }
    const size_t quote = is_text() ? 1 : 0;
    const size_t size_before = name.size() + sizeof("\"\":") - 1 + quote;
    return {node_->value.source - size_before, size_before + node_->size + quote};
}

// Private to json_document. A vector whose `push_back` does less: a page has a hundred thousand nodes.
class json_nodes {
public:
    size_t size() const { return size_; }
    json_value root() const { return json_value(nodes_.data()); }
    void clear() { size_ = 0; }

    void add(const json_node &node)
    {
        if (size_ == nodes_.size()) {
            grow();
        }
        nodes_[size_++] = node;
    }

    // The nodes behind `start` are those of the container there.
    void end_container(size_t start) { nodes_[start].size = static_cast<uint32_t>(size_ - start); }

private:
    void grow();

    std::vector<json_node> nodes_;
    size_t size_ = 0;
};

// Values refer to the document that parsed them, so it stays in its place.
class json_document {
public:
    json_document() { following_.fill(json_names::max_names); }
    json_document(const json_document &) = delete;
    json_document &operator=(const json_document &) = delete;

    // Parses the whole text. Returns a value that tests false if the text is not JSON, has a whole number of more than
    // 64 bits, is nested too deep, or has more than max_names different names. Values refer to `text` and to this
    // document; the next `parse` ends them.
    json_value parse(std::string_view text);

private:
    class plain_reader;
    struct builder;

    bool read(std::string_view text);
    bool read_by_library(std::string_view text);

    json_names names_;
    json_nodes nodes_;
    std::deque<std::string> texts_; // that the library found, because in the source they may have escapes
    // The number of the name that each name preceded in the latest object, or max_names. The last place has the first
    // name. These names stood in a source without escapes, so JSON has them as they are.
    std::array<uint16_t, json_names::max_names + 1> following_;
};

// Returns the first character that is not printable ASCII, or is a quotation mark or a backslash.
const char *skip_plain(const char *at, const char *end);

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

// The same as put_value, as a text of its own.
std::string json_text(json_value value);

// Appends the separator and the name of a member: ,"name": . The name needs no escapes.
void put_name(text_buffer &to, char separator, std::string_view name);

} // namespace l2fibctl
