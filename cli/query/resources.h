// SPDX-License-Identifier: Apache-2.0

// The resources of the API: the members of each item, and how text shows each member.
//
// Text and JSON both come from these tables. JSON has every column, text only the usual ones, --wide has all of them
// and
// --columns those that it names. If an item has no such member, a row shows "-"; JSON and records leave the member out.
//
// To show a new member of the API, add a column to its resource in resources.cpp.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "cli/query/json.h"

namespace l2fibctl {

// The width belongs to the kind and not to the values: rows are printed before the values of later pages are known.
struct column_kind {
    unsigned width; // in characters; a longer value shifts the rest of its row
    bool is_right_aligned;
    size_t (*format)(text_buffer &to, json_value value);   // appends; returns the width in characters
    unsigned wide_width = 0;                               // with --wide; 0: the same
    bool is_name = false;                                  // on a terminal a longer value is cut in its middle
    std::string_view (*color)(json_value value) = nullptr; // what switches the colour on; empty: none
    bool is_summed = false;                                // a last row has the sum
};

struct resource;

struct column {
    std::string_view member;
    std::string_view title;
    const column_kind *kind;
    const resource *parts = {}; // the columns of a value that is an object or an array of objects
    bool is_usual = true;       // false: in text only with --wide and --columns
};

inline constexpr size_t max_columns = 40; // of a resource

enum class layout {
    table,  // text has a row per item below the titles; JSON has an array
    record, // text has a line per member; JSON has the object alone
};

struct resource {
    std::string_view name; // the last element of its path; "l2fib-mac:" and this is the member of the answer
    layout shown_as;
    std::span<const column> columns;
    std::string_view note = {}; // below the rows of text: what they count
};

extern const resource mac_entries;
extern const resource aging_entries; // MAC entries by the time last seen
extern const resource mac_counts;    // of a whole part of the table
extern const resource mac_groups;    // of groups: one item for each domain, port, VLAN, tunnel end point or type
extern const resource domains;
extern const resource ports;
extern const resource vteps;
extern const resource tunnel_entries;
extern const resource health;
extern const resource traces;
extern const resource events;
extern const resource moves;
extern const resource flaps;
extern const resource found_places; // of `find`: a place as a record, and the places before it
extern const resource found_moves;
extern const resource top_ports;
extern const resource top_domains;

// The client adds this member to each of `mac_counts`. It names the part of the table that the count covers.
inline constexpr std::string_view scope_member = "scope";

} // namespace l2fibctl
