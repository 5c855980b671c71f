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
        {EDM_TRACE_MAC_NOT_INSERTED,
         error,
         "MAC entry not created: its port already holds the address",
         {{"xcid, then status", trace_unit::status}}},
        {EDM_TRACE_MAC_NOT_REPLACED, error, "MAC entry not replaced", {xcid, status}},
        {EDM_TRACE_FEED_NO_PORT, error, "feed: bridge port cannot be created", {xcid}},
        {EDM_TRACE_FEED_NO_ENTRY, error, "feed: called without an entry", {}},
        {EDM_TRACE_FEED_NO_BD, error, "feed: bridge domain cannot be created", {bridge_id}},
        {EDM_TRACE_FEED_PORT_NOT_REFRESHED, error, "feed: bridge port cannot be refreshed", {xcid, status}},
        {EDM_TRACE_FEED_REFUSED, error, "feed: entry not taken", {flags, xcid, bridge_id, address}},
        {EDM_TRACE_SWEEP_MAC_STOPPED, error, "sweep ended early: MAC entry cannot be destroyed", {xcid, status}},
        {EDM_TRACE_MAC_REQUEST_FAILED, error, "MAC request: not answered, or an item left out", {request, status}},
        {EDM_TRACE_NOT_SUBSCRIBED, error, "notifications: subscription refused", {status}},
        {EDM_TRACE_NOT_CONNECTED, error, "notifications: no connection to the service", {status}},
        {EDM_TRACE_REQUEST_THREAD_ENDED,
         error,
         "request thread ends: not registered with the operational database",
         {status}},
        {EDM_TRACE_RESYNC_NOT_SENT, error, "resync: request not sent, or not answered in time", {status}},
        {EDM_TRACE_RESYNC_UNKNOWN_REPLY, error, "resync: unknown answer", {status}},
        {EDM_TRACE_RESYNC_NOT_SERVED, error, "resync: request malformed, or its sender cannot be answered", {status}},
        {EDM_TRACE_CACHE_THREAD_ENDED, error, "cache thread ends: set-up failed", {status}},
        {EDM_TRACE_CACHE_CHANNEL_FAILED, error, "cache thread ends: its channel cannot be opened", {status}},
        {EDM_TRACE_REQUESTER_NOT_RELEASED, error, "resync: waiting requester cannot be released", {status}},
        {EDM_TRACE_BD_NOT_DESTROYED, error, "bridge domain not destroyed", {bridge_id, status}},
        {EDM_TRACE_TREE_NOT_RUNNING,
         error,
         "table: a tree or the list of entries is not running, or cannot be started",
         {}},
        {EDM_TRACE_BP_NOT_READ, error, "bridge port: its cross-connect cannot be read", {xcid, status}},
        {EDM_TRACE_BD_NAME_NOT_READ, error, "bridge domain: its name cannot be read", {bridge_id, status}},
        {EDM_TRACE_NO_ROOM, error, "table: no room for a record", {}},
        {EDM_TRACE_REQUEST_THREAD_READY, normal, "request thread ready", {status}},
        {EDM_TRACE_CACHE_THREAD_READY, normal, "cache thread ready, the table exists", {status}},
        {EDM_TRACE_POOL_NOT_CREATED, error, "pool cannot be created", {status}},
        {EDM_TRACE_POOL_REFUSED, error, "pool is exhausted, or refuses an element that is not its own", {}},
        {EDM_TRACE_START_FAILED, error, "start-up failed", {status}},
        {EDM_TRACE_BP_NOT_MOVED,
         error,
         "bridge port not moved: its old bridge domain does not hold it",
         {xcid, status}},
        {EDM_TRACE_BP_NOT_IN_TREE,
         error,
         "bridge port was not in a tree that should hold it (a dummy port never is in the global one)",
         {xcid, status}},
        {EDM_TRACE_MAC_NOT_IN_TREE, error, "MAC entry was not in its port's tree when it was destroyed", {status}},
        {EDM_TRACE_RESYNC_DONE_1,
         normal,
         "resync done, the platform ended it with 1",
         {entries, plain, fixed, local, bridge_domains, ports}},
        {EDM_TRACE_RESYNC_DONE, normal, "resync done", {entries, plain, fixed, local, bridge_domains, ports}},
        {EDM_TRACE_NODE_UNKNOWN, error, "MAC entry: its node is unknown", {xcid, bridge_id, address}},
        {EDM_TRACE_LOCK_FAILED, error, "table lock: not taken or not released", {status}},
        {EDM_TRACE_FEED_STATUS, error, "feed: entry not taken, with this status", {status}},
        {EDM_TRACE_REQUEST_RESYNC_FAILED,
         error,
         "request not answered: resync failed",
         {{"bridge id, xcid, or 0 for all", trace_unit::number}, status}},
        {EDM_TRACE_FEED_NO_DUMMY_PORT, error, "feed: dummy port cannot be created", {xcid}},
        {EDM_TRACE_BD_MAC_NOT_UPDATED,
         error,
         "MAC entry not updated: it changes between bridge domain and port",
         {flags, bridge_id, address}},
        {EDM_TRACE_WALK_STARTED, normal, "MAC request: walk begins", {bridge_id, xcid, address}},
        {EDM_TRACE_VTEP_TREE_NOT_RUNNING, error, "VTEP tree of a port is not running, or cannot be started", {}},
        {EDM_TRACE_VTEP_NOT_IN_TREE, error, "VTEP was not in its port's tree when it was destroyed", {status}},
        {EDM_TRACE_VTEP_NOT_REGISTERED, error, "VTEP of a MAC entry not recorded", {xcid}},
        {EDM_TRACE_SWEEP_VTEP_STOPPED, error, "sweep ended early: VTEP cannot be destroyed", {xcid, status}},
        {EDM_TRACE_VTEP_REQUEST_FAILED, error, "VTEP request: not answered", {request, status}},
        {EDM_TRACE_RESYNC_FAILED, error, "resync: the platform reports that it failed", {}},
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
