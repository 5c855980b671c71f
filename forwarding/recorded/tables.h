// SPDX-License-Identifier: Apache-2.0

// Reads the tables of a directory into records. For this room only; replay.h describes the files.
#pragma once

#include <string>
#include <vector>

#include "forwarding/plane.h"
#include "forwarding/recorded/entries.h"

namespace forwarding {

struct recorded_tables {
    std::vector<link_record> links;
    recorded_entries entries;
};

// Any thread. Throws `malformed` (elements.h), which names the file, the element and what was expected.
recorded_tables read_tables(const std::string &directory);

} // namespace forwarding
