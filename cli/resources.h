// What the API's items consist of, and how each member is shown: the one table behind text and JSON.
//
// A column with a title is shown in tables of text; JSON has every column. A member that an item lacks is "-" in a
// row, and left out of JSON and of records.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

namespace l2fibctl {

// Widths belong to the kind, not to what is shown, so that rows line up although each is printed as it arrives.
struct column_kind {
    unsigned width;
    bool right; // aligned
    std::string (*format)(const nlohmann::json &value);
};

struct resource;

struct column {
    std::string_view member;
    std::string_view title;     // empty: JSON only
    const column_kind *kind;    // how a value is shown
    const resource *parts = {}; // of values that are objects, or arrays of objects
};

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
extern const resource mac_counts;
extern const resource domains;
extern const resource ports;
extern const resource vteps;
extern const resource tunnel_entries;
extern const resource health;
extern const resource traces;

// The form in which `bridge -j fdb show` prints an entry.
extern const resource bridge_entries;

} // namespace l2fibctl
