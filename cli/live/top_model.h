// SPDX-License-Identifier: Apache-2.0

// The rows of `top` and what its keys do. Nothing here needs a terminal or a daemon.
//
//      add_rates(now, before, seconds);                        changes a second, from two samples
//      const auto shown = pick_rows(now, state);               filtered, in order
//      apply(state, pressed, shown.size(), page_height);
//
// Threads: plain values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/live/full_screen.h"
#include "cli/query/json.h"

namespace l2fibctl {

enum class top_order : uint8_t { changes, entries, name };

struct top_row {
    std::string key;    // the same in every sample
    std::string name;   // of a port or domain, or an address
    std::string domain; // the rows' second name
    uint64_t entries = 0;
    uint64_t changes = 0;            // of an address: moves in the window of time
    std::optional<double> rate = {}; // changes a second; of an address: moves a minute
    std::string searched = {};       // all its names in lower case, for the filter
    std::string item = {};           // the daemon's item, as JSON
};

using top_sample = std::vector<top_row>;

struct top_state {
    top_order order = top_order::changes;
    bool has_entries = true; // false: the rows have no number of entries, so there is no such order
    std::string filter = {}; // rows have this text in a name; upper and lower case are the same
    bool is_typing = false;  // characters go to the filter
    size_t offset = 0;       // of the first row on the screen
    bool has_ended = false;
};

// Row of an item of `ports`, `domains` or `flaps`. The name is the item's first member of these: mac-address, name.
top_row row_of(json_value item);

// Sets the rates of rows that both samples have. If a counter went down, the daemon was restarted: no rate then.
void add_rates(top_sample &now, const top_sample &before, double seconds);

// Returns the rows with the filter's text, in the state's order. Numbers in names count by their value.
std::vector<const top_row *> pick_rows(const top_sample &sample, const top_state &state);

// "12.3"
std::string one_decimal(double number);

// Returns the row's item with the member "changes-per-second", as JSON.
std::string item_with_rate(const top_row &row);

// The word of an order, for the operator and for the option --by.
const char *word_of(top_order order);

// `rows` is the number of rows that pick_rows returns, `page` the number of rows on the screen.
void apply(top_state &state, const key &pressed, size_t rows, size_t page);

// Keeps the offset where the screen is full, if there are enough rows.
void clamp_offset(top_state &state, size_t rows, size_t page);

} // namespace l2fibctl
