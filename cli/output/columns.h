// SPDX-License-Identifier: Apache-2.0

// The columns that a command prints, and how cells of text look.
//
//      const selection shown = select_columns(mac_entries, form::text, {.columns = {"port", "age"}});
//
// Threads: pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/options.h"
#include "cli/query/resources.h"

namespace l2fibctl {

// What the operator and the place of the output decide.
struct look {
    std::vector<std::string> columns = {}; // members of the items; empty: the usual ones
    bool is_wide = false;
    bool has_titles = true;
    bool has_colors = false;
    bool cuts_names = false; // names that are longer than their column
};

// The look that the command line, standard output and the environment decide.
look look_of(const client_options &options);

struct shown_column {
    const column *shown;
    size_t place;   // in the columns of the resource
    unsigned width; // in characters
};

using selection = std::vector<shown_column>;

// Throws a failure if the resource has no such column; the failure lists the columns.
selection select_columns(const resource &printed, form shown_as, const look &wanted);

// Shortens the text behind `start`, `width` characters of UTF-8, to `max_width` characters: "comp…-100". Returns
// the new width.
size_t cut_middle(text_buffer &to, size_t start, size_t width, size_t max_width);

} // namespace l2fibctl
