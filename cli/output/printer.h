// SPDX-License-Identifier: Apache-2.0

// Prints items one at a time, as text or JSON, by the columns of their resource.
//
// Threads: the main one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cli/output/output.h"
#include "cli/query/json.h"
#include "cli/query/resources.h"

namespace l2fibctl {

enum class form : uint8_t {
    text,
    json,       // one array, or a record's object
    json_lines, // an item a line
    bridge_json // as json, of entries that bridge_form made
};

class printer {
public:
    // What is printed must outlive the printer.
    printer(form in_form, const resource &of, output &to)
        : shown_in_(in_form)
        , what_(of)
        , out_(to)
    {}

    // Sets the member `scope_member` of the items that follow, which the client adds itself.
    void set_scope(std::string_view text);

    void item(const json_value &value);

    // An item that is JSON already.
    void ready_item(std::string_view json);

    // After the last item; flushes.
    void end();

    uint64_t printed() const { return items_; }

private:
    bool in_array() const;
    std::string_view separator() const;

    form shown_in_;
    const resource &what_;
    output &out_;
    uint64_t items_ = 0;
    simdjson::dom::parser scope_parser_;
    std::optional<json_value> scope_;
    std::string line_; // kept between items for its memory
};

} // namespace l2fibctl
