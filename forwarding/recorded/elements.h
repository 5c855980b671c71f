// SPDX-License-Identifier: Apache-2.0

// Reads a file that holds a JSON list of objects, one element at a time. The parser streams, so the memory in use is
// that of one element, whatever the size of the file.
//
//      read_elements("fdb.json", [](const element &entry) {
//          const value *mac = entry.member("mac");
//          ...
//      });
//
// Threads: any thread may call these functions; an element belongs to the call that passed it on.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace forwarding {

// A file or an element that breaks the rules of its form. Readers of an element name the member; read_elements adds
// the file and the element. It does not leave this room.
struct malformed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class value_kind : uint8_t {
    other, // null, a negative number or a fraction
    truth,
    number, // unsigned
    text,
    list,
    object,
};

// A value of an element. All values of an element lie in one vector, each ahead of the values that it contains.
struct value {
    value_kind kind = value_kind::other;
    uint64_t number = 0; // also of a truth: 0 or 1
    uint32_t end = 0;    // place behind the last value that it contains
    // Texts lie one after the other in one string: the key first, if the value is a member, then the text itself.
    uint32_t key_at = 0;
    uint32_t text_at = 0;
    uint32_t text_end = 0;
};

class element {
public:
    // The member of an object, or null if it has none. Of several with the same key the last one counts.
    const value *member(const value &object, std::string_view key) const;

    // The values of a list, one after the other: first, then next until it returns null.
    const value *first(const value &list) const { return at(list, place_of(list) + 1); }
    const value *next(const value &list, const value &before) const { return at(list, before.end); }

    const value &whole() const { return values_.front(); }
    std::string_view key(const value &of) const { return between(of.key_at, of.text_at); }
    std::string_view text(const value &of) const { return between(of.text_at, of.text_end); }

private:
    friend class element_reader;

    uint32_t place_of(const value &of) const { return static_cast<uint32_t>(&of - values_.data()); }
    const value *at(const value &list, uint32_t place) const { return place < list.end ? &values_[place] : nullptr; }
    std::string_view between(uint32_t from, uint32_t to) const
    {
        return std::string_view(texts_).substr(from, to - from);
    }

    std::vector<value> values_;
    std::string texts_;
};

// Calls `read(element)` for each element of the list in a file, in its order. Throws `malformed` if the file cannot be
// read, is not a list of objects or is cut off, and when `read` throws it. The elements ahead of the fault were read.
void read_elements(const std::string &path, const std::function<void(const element &each)> &read);

} // namespace forwarding
