// SPDX-License-Identifier: Apache-2.0

// The conditions that a list's rows must meet, all of them. A default-constructed filter lets every row pass.
//
//     row_filter filter;
//     filter.vlans.keep_only({10});                  // VLAN 10
//     filter.origins.exclude({row_origin::local});   // without addresses of ports
//     passes_values(filter, {.mac = mac, .flags = flags, .vlan = 10})
//
// Threads: plain data. Any thread may read a filter that nobody changes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "base/text.h"
#include "forwarding/plane.h"

namespace forwarding {

// Values that pass: those listed, or all but those listed. A default-constructed set has all values.
template <typename Value>
struct value_set {
    std::vector<Value> values = {}; // sorted, each once
    bool is_exclusion = true;       // all but `values`

    bool holds(const Value &value) const { return std::ranges::binary_search(values, value) != is_exclusion; }
    bool holds_all() const { return is_exclusion && values.empty(); }
    bool holds_none() const { return !is_exclusion && values.empty(); }
    bool operator==(const value_set &) const = default;

    // Leaves only values that are in `wanted` too.
    void keep_only(std::vector<Value> wanted)
    {
        std::ranges::sort(wanted);
        std::erase_if(wanted, [this](const Value &each) { return !holds(each); });
        values = std::move(wanted);
        values.erase(std::unique(values.begin(), values.end()), values.end());
        is_exclusion = false;
    }

    void exclude(const std::vector<Value> &unwanted)
    {
        for (const Value &each : unwanted) {
            const auto at = std::ranges::lower_bound(values, each);
            const bool is_listed = at != values.end() && *at == each;
            if (is_exclusion && !is_listed) {
                values.insert(at, each);
            } else if (!is_exclusion && is_listed) {
                values.erase(at);
            }
        }
    }
};

// A bridge id and an xcid. EDM_XCID_DUMMY stands for the bridge domain's own entries, behind those of all ports.
using port_place = std::pair<uint16_t, uint32_t>;

// The member `origin` of rows.
enum class row_origin : uint8_t { learned, fixed, local }; // fixed: static
inline constexpr size_t row_origins = 3;

// `flags` are EDM_MAC_ bits.
row_origin origin_of(uint16_t flags);

// The address of a destination, as rows have it; zero if it has none.
base::ip_address address_of(const fdb_destination &destination);

// Seconds since an address was last seen.
struct age_range {
    int64_t min = 0;
    int64_t max = UINT32_MAX;

    bool holds(uint32_t age) const { return min <= age && age <= max; }
    bool operator==(const age_range &) const = default;
};

struct row_filter {
    value_set<uint16_t> domains = {}; // bridge ids
    value_set<port_place> ports = {};
    value_set<uint16_t> vlans = {};
    value_set<uint32_t> vnis = {};          // with which frames to the address are sent; 0: none
    value_set<base::ip_address> vteps = {}; // zero: none
    value_set<row_origin> origins = {};
    base::mac_range addresses = {};
    std::vector<base::mac_range> not_addresses = {};
    age_range ages = {};
    uint16_t flags = 0; // EDM_MAC_ bits, of which the row must have at least one; 0: any

    bool operator==(const row_filter &) const = default;
};

// What the filter judges, apart from the place and the age.
struct filtered_values {
    mac_address mac = {};
    uint16_t flags = 0; // EDM_MAC_ bits
    uint16_t vlan = 0;
    uint32_t vni = 0;
    base::ip_address vtep = {};
};

bool passes_place(const row_filter &filter, const port_place &at);
bool passes_address(const row_filter &filter, const mac_address &mac);

// Judges all values: the address, the flags, the VLAN, the VNI and the tunnel end point.
bool passes_values(const row_filter &filter, const filtered_values &values);

// True if the filter names an IPv6 address, which rows of the table do not show.
bool has_ipv6(const row_filter &filter);

} // namespace forwarding
