// SPDX-License-Identifier: Apache-2.0

// What the API's items consist of, and how each member is shown: the one table behind text and JSON.
//
// A column with a title is shown in tables of text; JSON has every column. A member that an item lacks is "-" in a
// row, and left out of JSON and of records.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "cli/query/json.h"

namespace l2fibctl {

// Widths belong to the kind and not to the values, so that rows line up although each is printed when its page arrives.
struct column_kind {
    unsigned width;
    bool right;                                               // aligned
    void (*format)(std::string &to, const json_value &value); // appends
};

struct resource;

struct column {
    std::string_view member;
    std::string_view title;     // empty: JSON only
    const column_kind *kind;    // how a value is shown
    const resource *parts = {}; // of values that are objects, or arrays of objects
};

inline constexpr size_t most_columns = 40; // of a resource

enum class layout {
    table,  // an item is a row below titles; JSON has an array
    record, // an item is a line per member; JSON has the object alone
};

struct resource {
    std::string_view name; // the last part of its path, and of the answer's member
    layout shown_as;
    std::span<const column> columns;
};

extern const resource mac_entries;
extern const resource aging_entries; // MAC entries in the order of their time last seen
extern const resource mac_counts;
extern const resource domains;
extern const resource ports;
extern const resource vteps;
extern const resource tunnel_entries;
extern const resource health;
extern const resource traces;

// Adds a member for `mac_counts`: which part of the table a count is of.
inline constexpr std::string_view scope_member = "scope";

} // namespace l2fibctl
