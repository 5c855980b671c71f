// Prints items one at a time, as text or JSON, by the columns of their resource.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "cli/output.h"
#include "cli/resources.h"

namespace l2fibctl {

enum class form : uint8_t {
    text,
    json,       // one array, or a record's object
    json_lines, // an item a line
    bridge_json // as json, of entries in the form of bridge_entries
};

class printer {
public:
    // What is printed must outlive the printer.
    printer(form in_form, const resource &of, output &to)
        : shown_in_(in_form)
        , what_(of)
        , out_(to)
    {}

    void item(const nlohmann::json &value);

    // After the last item; flushes.
    void end();

    uint64_t printed() const { return items_; }

private:
    form shown_in_;
    const resource &what_;
    output &out_;
    uint64_t items_ = 0;
    std::string line_; // kept between items for its memory
};

} // namespace l2fibctl
