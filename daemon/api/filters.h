// SPDX-License-Identifier: Apache-2.0

// The filters of lists and of events: from the parameters of a request to conditions. docs/api.md describes them.
//
//      const filters given = parse_filters(to, filters_of_entries);     "domain=br0&not-vlan=1&not-vlan=10"
//
//      forwarding::row_filter of_rows = resolve(given);                 rows of the table as it is now: by ids
//      passes_names(given, {.domain = "lab:br0", .port = "p1"})         events and moves: by names
//
// A row has ids, so resolve() looks the names up. An event has the names of its own moment, and its bridge domain or
// port may be gone or not there yet. So passes_names() compares names and needs no object.
//
// A domain is named by its full name (lab:br0.10), by the part behind the group (br0.10), or by its bridge's name
// (br0), which names all domains of the bridge. A port is named by its interface or its xcid.
//
// Threads: pure functions, but resolve() takes the lock of the forwarding plane's objects for a moment. Any thread may
// call them without the table lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/http/target.h"
#include "forwarding/feeder/answers/row_filter.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

// The filters that a resource may have, as bits. Each stands for its parameter and for the one with "not-".
enum filter_kind : uint16_t {
    by_domain = 0x01,
    by_port = 0x02,
    by_vlan = 0x04,
    by_vni = 0x08,
    by_vtep = 0x10,
    by_type = 0x20,
    by_prefix = 0x40, // mac-prefix
    by_age = 0x80,    // older-than and newer-than
};

inline constexpr unsigned filters_of_entries =
    by_domain | by_port | by_vlan | by_vni | by_vtep | by_type | by_prefix | by_age;

// Names that a condition lets pass: the given one if there is one, and none of the excluded ones.
struct name_condition {
    std::optional<std::string> only = std::nullopt;
    std::vector<std::string> except = {};
};

struct filters {
    name_condition domain = {};
    name_condition port = {};
    forwarding::row_filter rest = {}; // all other conditions; `domains` and `ports` hold everything
};

// A place by its names. An empty port is the bridge domain itself, which has no port name and no xcid.
struct named_place {
    std::string_view domain = {}; // full name
    uint16_t vlan = 0;            // of the bridge domain; 0: none
    std::string_view port = {};
    uint32_t xcid = 0;
    std::string_view bridge = {}; // its name in the kernel, if it is known
};

// The views outlive the place.
named_place place_of(const forwarding::domain_view &domain);
named_place place_of(const forwarding::port_view &port);

// True for the name of a filter of these kinds, with or without "not-".
bool is_filter(std::string_view parameter, unsigned kinds);
// How often the parameter may be given. Each repetition costs time for each entry, so their number is bounded.
size_t max_repetitions(std::string_view parameter);
// The names of the filters of these kinds, for messages.
std::vector<std::string> names_of_filters(unsigned kinds);

// Parses the parameters that are filters of these kinds, and leaves others out. Throws api_error if a value does not
// parse, or if no entry can meet all conditions.
filters parse_filters(const target &to, unsigned kinds);

// The conditions on rows of the table. Throws api_error (404) if a bridge domain or port does not exist.
forwarding::row_filter resolve(const filters &given);

// Judges the conditions on domain and port.
bool passes_names(const filters &given, const named_place &at);

} // namespace l2fibd
