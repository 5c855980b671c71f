// SPDX-License-Identifier: Apache-2.0

// The meaning of every trace id: which ring receives it, a text for the operator, and what its values are.
//
// An id can have several rows. The number of values in a point then decides which row describes the point. Rows are
// ordered by id.
//
// Threads: any. The catalogue is a constant.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>

#include "host/trace/trace_reader.h"

namespace host {

enum class trace_unit : uint8_t {
    number,
    hex,
    status,  // shown with its meaning if it has one
    address, // three values, two bytes of the address in each: 0x1b00, 0x04ff, 0x09a0 is 00:1b:ff:04:a0:09
};

inline constexpr uint32_t trace_address_values = 3;

struct trace_value {
    const char *name; // null ends the values of a row
    trace_unit unit;
};

struct trace_entry {
    uint32_t id;
    trace_ring ring;
    const char *text;
    trace_value values[EDM_TRACE_MAX_VALUES];
};

namespace trace_values {

inline constexpr trace_value status{"status", trace_unit::status};
inline constexpr trace_value xcid{"xcid", trace_unit::number};
inline constexpr trace_value bridge_id{"bridge id", trace_unit::number};
inline constexpr trace_value flags{"flags", trace_unit::hex};
inline constexpr trace_value address{"address", trace_unit::address};
inline constexpr trace_value request{"request (86 records, 87 names, 88 one record)", trace_unit::number};
inline constexpr trace_value entries{"entries counted", trace_unit::number};
inline constexpr trace_value plain{"learned", trace_unit::number};
inline constexpr trace_value fixed{"static", trace_unit::number};
inline constexpr trace_value local{"local", trace_unit::number};
inline constexpr trace_value bridge_domains{"bridge domains", trace_unit::number};
inline constexpr trace_value ports{"ports", trace_unit::number};

} // namespace trace_values

inline constexpr auto trace_catalogue = [] {
    using namespace trace_values;
    constexpr trace_ring normal = trace_ring::normal;
    constexpr trace_ring error = trace_ring::error;
    return std::to_array<trace_entry>({
        {1911,
         error,
         "MAC entry not created: its port already holds the address",
         {{"xcid, then status", trace_unit::status}}},
        {1912, error, "MAC entry not replaced", {xcid, status}},
        {1913, error, "feed: bridge port cannot be created", {xcid}},
        {1914, error, "feed: called without an entry", {}},
        {1915, error, "feed: bridge domain cannot be created", {bridge_id}},
        {1915, error, "feed: bridge port cannot be refreshed", {xcid, status}},
        {1916, error, "feed: entry not taken", {flags, xcid, bridge_id, address}},
        {1917, error, "sweep ended early: MAC entry cannot be destroyed", {xcid, status}},
        {1918, error, "MAC request: not answered, or an item left out", {request, status}},
        {1923, error, "notifications: subscription refused", {status}},
        {1924, error, "notifications: no connection to the service", {status}},
        {1925, error, "request thread ends: not registered with the operational database", {status}},
        {1928, error, "resync: request not sent, or not answered in time", {status}},
        {1929, error, "resync: unknown answer", {status}},
        {1930, error, "resync: request malformed, or its sender cannot be answered", {status}},
        {1931, error, "cache thread ends: set-up failed", {status}},
        {1932, error, "cache thread ends: its channel cannot be opened", {status}},
        {1935, error, "resync: waiting requester cannot be released", {status}},
        {1936, error, "bridge domain not destroyed", {bridge_id, status}},
        {1938, error, "table: a tree or the list of entries is not running, or cannot be started", {}},
        {1940, error, "bridge port: its cross-connect cannot be read", {xcid, status}},
        {1941, error, "bridge domain: its name cannot be read", {bridge_id, status}},
        {1942, error, "table: no room for a record", {}},
        {1944, normal, "request thread ready", {status}},
        {1945, normal, "cache thread ready, the table exists", {status}},
        {1948, error, "pool cannot be created", {status}},
        {1949, error, "pool is exhausted, or refuses an element that is not its own", {}},
        {1951, error, "start-up failed", {status}},
        {1953, error, "bridge port not moved: its old bridge domain does not hold it", {xcid, status}},
        {1954,
         error,
         "bridge port was not in a tree that should hold it (a dummy port never is in the global one)",
         {xcid, status}},
        {1955, error, "MAC entry was not in its port's tree when it was destroyed", {status}},
        {1956,
         normal,
         "resync done, the platform ended it with 1",
         {entries, plain, fixed, local, bridge_domains, ports}},
        {1957, normal, "resync done", {entries, plain, fixed, local, bridge_domains, ports}},
        {1958, error, "MAC entry: its node is unknown", {xcid, bridge_id, address}},
        {1959, error, "table lock: not taken or not released", {status}},
        {1960, error, "feed: entry not taken, with this status", {status}},
        {1964,
         error,
         "request not answered: resync failed",
         {{"bridge id, xcid, or 0 for all", trace_unit::number}, status}},
        {1965, error, "feed: dummy port cannot be created", {xcid}},
        {1966, error, "MAC entry not updated: it changes between bridge domain and port", {flags, bridge_id, address}},
        {1967, normal, "MAC request: walk begins", {bridge_id, xcid, address}},
        {1968, error, "VTEP tree of a port is not running, or cannot be started", {}},
        {1969, error, "VTEP was not in its port's tree when it was destroyed", {status}},
        {1970, error, "VTEP of a MAC entry not recorded", {xcid}},
        {1971, error, "sweep ended early: VTEP cannot be destroyed", {xcid, status}},
        {1972, error, "VTEP request: not answered", {request, status}},
        {1973, error, "resync: the platform reports that it failed", {}},
    });
}();

static_assert(std::ranges::is_sorted(trace_catalogue, {}, &trace_entry::id));
static_assert(trace_catalogue.front().id >= EDM_TRACE_ID_FIRST && trace_catalogue.back().id <= EDM_TRACE_ID_LAST);

// The number of values that a row describes.
constexpr uint32_t trace_value_count(const trace_entry &entry)
{
    uint32_t count = 0;
    for (const trace_value &value : entry.values) {
        count += value.name == nullptr ? 0 : value.unit == trace_unit::address ? trace_address_values : 1;
    }
    return count;
}

// The ring of each id in range, and in the last place the ring of all other ids.
inline constexpr auto trace_ring_by_place = [] {
    std::array<trace_ring, EDM_TRACE_ID_LAST - EDM_TRACE_ID_FIRST + 2> rings{};
    rings.fill(trace_ring::error);
    for (const trace_entry &entry : trace_catalogue) {
        rings[entry.id - EDM_TRACE_ID_FIRST] = entry.ring;
    }
    return rings;
}();

// The ring that receives an id. An id without a row is an error.
constexpr trace_ring trace_ring_of(uint32_t id)
{
    const bool is_in_range = id >= EDM_TRACE_ID_FIRST && id <= EDM_TRACE_ID_LAST;
    return is_in_range ? trace_ring_by_place[id - EDM_TRACE_ID_FIRST] : trace_ring_by_place.back();
}

} // namespace host
