// SPDX-License-Identifier: Apache-2.0

// Prints items one at a time, as text or JSON, in the columns of their resource (cli/query/resources.h).
//
//      item_printer printer(form::json, mac_entries, {}, out);
//      printer.item(value);    // once for each item
//      printer.end();
//
// The room cli/output has this printer, the form of `bridge -j fdb show`, and standard output with the progress line.
//
// Threads: the main thread only.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "cli/options.h"
#include "cli/output/columns.h"
#include "cli/output/output.h"
#include "cli/query/json.h"
#include "cli/query/resources.h"

namespace l2fibctl {

// The place of each name's column in a resource.
class column_places {
public:
    // Looks the names up unless that has been done.
    void follow(const json_names &names, const resource &shown);

    // Returns max_columns if the resource has no column for the member.
    size_t of(json_value member) const { return places_[member.name()]; }

private:
    const json_names *names_ = nullptr;
    unsigned generation_ = 0;
    std::vector<uint8_t> places_;
};

class item_printer {
public:
    // `printed` and `out` must outlive the printer. Throws a failure if `wanted` names a column that does not exist.
    item_printer(form shown_as, const resource &printed, const look &wanted, output &out);

    // Gives the items that follow the member `scope_member`, which the daemon does not send.
    void set_scope(std::string_view text);

    void item(json_value value);

    // Prints an item that is already JSON.
    void ready_item(std::string_view json);

    // Prints what follows the last item, and flushes.
    void end();

    uint64_t count() const { return items_; }

private:
    bool in_array() const;
    std::string_view separator() const;
    std::string_view terminator() const;
    void end_item();

    form shown_as_;
    const resource &resource_;
    const look look_;
    const selection selection_;
    output &out_;
    uint64_t items_ = 0;
    column_places places_;
    text_buffer scope_text_; // JSON
    json_document scope_document_;
    json_value scope_;
    std::vector<uint64_t> sums_; // of each selected column; empty: the resource has no sums
};

} // namespace l2fibctl
