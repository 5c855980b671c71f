// SPDX-License-Identifier: Apache-2.0

// Reads the rows, counts and tunnel end points that answers show. Rows come page by page.
//
//     const forwarding::row_filter filter; // all rows
//     forwarding::row_position at;
//     do {
//         const forwarding::row_page page = forwarding::read_rows(filter, at, 200);
//         ... page.rows ...
//         at = page.end;
//     } while (page.more);
//
// Order. Rows come by bridge id, then by xcid, then by address. The bridge domain's own entries come last, because
// their xcid is the largest number:
//
//      bridge id   xcid         address
//      1           7            02:00:00:00:00:01
//      1           7            02:00:00:00:00:05
//      1           9            02:00:00:00:00:02
//      1           0xffffffff   02:00:00:00:00:09    bridge-own entry
//      2           3            ...
//
// These numbers stay the same while an object lives, so renaming a bridge moves no row. A page begins behind a
// position, even if the entry at that position is gone. A read therefore continues when entries go. An entry that stays
// on its port is read exactly once. An entry that moves meanwhile may be read twice or not at all.
//
// Filters. A read looks only at the bridge domains, ports and addresses that its filter lets pass. It judges all other
// conditions on each entry there.
//
// Ages. If the plane ages silently, read_rows asks it about the rows of the page that age. It leaves out a row that the
// plane no longer holds.
//
// Threads. Call these functions on any thread but the cache thread, without the table lock. They take the lock in short
// holds, and their results point to nothing in the table. If nothing runs, they return empty pages and no counts;
// count_all then reads what the table holds.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "forwarding/feeder/answers/row_filter.h"
#include "forwarding/forwarding.h"

namespace forwarding {

// A position in an order (row_order). The next page holds the entries behind it. Entries are ordered by their value,
// and by slot if the values are equal.
//
// In the orders by creation and by last sight, an entry that came, or was seen again, since the read began counts as
// `began + 1`, whatever its own value is:
//
//      began = 100      values now:  20  40  100  130  170
//                       order:       20  40  100  101  101     the last two by slot
//
// Entries that do not age come behind these. So new values cannot prolong a read without end. An entry that stays is
// read once, or twice if it was seen again after its page. If such an order is reversed, only values up to `began` are:
//
//      values now:  20  40  100  130  170       reversed:  0 (100)  60 (40)  80 (20)  101  101
struct order_position {
    uint64_t value = 0;     // see row_order
    uint32_t slot = 0;      // in the shadow table
    bool holds_row = false; // false: before all entries
    uint64_t began = 0;     // the latest value (creation number or time) when the read began; 0: the read begins now

    std::string port = {}; // in the order by port: name of the row's port; empty: the bridge domain itself

    bool operator==(const order_position &) const = default;
};

// The place of an entry in an order: `value` and `slot` of order_position.
struct order_key {
    uint64_t value = 0;
    uint32_t slot = 0;
    auto operator<=>(const order_key &) const = default;
};

struct mac_row {
    uint16_t bridge_id = 0;
    uint32_t xcid = 0; // EDM_XCID_DUMMY: an entry of the bridge domain itself
    mac_address mac = {};
    uint16_t flags = 0; // EDM_MAC_ bits
    uint16_t ext_flags = 0;
    uint16_t vlan = 0;
    uint32_t node_id = 0;
    mac_address backbone = {};           // with EDM_MAC_PBB
    std::array<uint8_t, 4> vtep = {};    // with EDM_MAC_VNI; network byte order
    base::ip_address ipv6_vtep = {};     // zero: none, or not asked for; see add_ipv6_vteps
    uint32_t vni = 0;                    // VNI with which frames to the address are sent; 0: none
    uint32_t source_vni = 0;             // external VXLAN devices only
    int64_t last_seen = 0;               // seconds since the epoch; 0: unknown
    int64_t since_ms = 0;                // see row_details; 0: not asked for, or unknown
    uint32_t age = 0;                    // seconds since it was last seen; if unknown, since the table updated it
    std::optional<uint32_t> time_left;   // seconds until it ages out; none if it does not age or the time is unknown
    const domain_view *domain = nullptr; // points into row_page::objects
    const port_view *port = nullptr;     // likewise; null for entries of the bridge domain itself
    order_key place = {};                // set by read_selection only
};

// The tunnel end point of a row: IPv6 as far as it was asked for; zero if there is none.
base::ip_address vtep_of(const mac_row &row);

// Judges all conditions on a row that a page shows. A filter with an IPv6 address needs add_ipv6_vteps before.
bool passes(const row_filter &filter, const mac_row &row);

// Members of rows that cost extra, so that readers ask for them.
struct row_details {
    // mac_row::since_ms: when the table took the entry at its present place (port, or VTEP), since the epoch. It is
    // exact to the second for the last hour, and to the 2,048th part of the time that has passed for earlier ones.
    // Unknown for entries that were there at the start. Waits for the cache thread.
    bool since = false;
};

// A position in the order by bridge id, xcid and address. The next page holds the rows behind it. A default-constructed
// position lies before all rows.
struct row_position {
    uint16_t bridge_id = 0;
    uint32_t xcid = 0;
    mac_address mac = {};
    bool holds_row = false; // true: rows up to `mac` were read; false: none of this port were, and `mac` is unused
};

struct row_page {
    std::shared_ptr<const object_views> objects = nullptr; // the rows point into it
    std::vector<mac_row> rows = {};
    row_position end = {};
    bool more = false; // true: rows may follow behind `end`
};

// Reads up to `max_rows` rows behind `from`; it is at least 1. A page may be empty although `more` is true, because the
// plane may no longer hold any of its rows.
row_page read_rows(const row_filter &filter, const row_position &from, uint32_t max_rows,
                   const row_details &details = {});

// Sets the IPv6 tunnel end points of a page's rows, which the table does not hold. Waits for the cache thread.
void add_ipv6_vteps(row_page &page);

// Finds all rows of one address in one bridge domain, or in all if `bridge_id` is 0. They have their IPv6 tunnel end
// points. The plane decides which entries
// exist, so the page also has entries for which the table has no room.
//
// The plane is asked in each bridge domain in which the shadow table holds the address. If the shadow table holds it
// nowhere, or is degraded, the plane is asked in every bridge domain. The rows of the zero address (flood lists) come
// from the table alone.
row_page find_rows(const mac_address &mac, uint16_t bridge_id, const row_details &details = {});

// ---- In another order ----

// An order has a value for each entry. Bits that it does not use are 0.
enum class row_order : uint8_t {
    created, // the time when the table took an entry at its present port and VTEP, the earliest first. Value: a number
    last_seen, // last sight, the earliest first; entries that do not age come last. Value: ms of the steady clock
    mac,       // address, then bridge domain. Value: the address (48 bits), then the bridge id
    vlan,      // VLAN, then address. Value: the VLAN, then the address (48 bits)
    port,      // name of the port with numbers in it by their value, then address; entries of bridge domains themselves
               // come last. Value: the rank of the name among all names of ports, then the address (48 bits)
};

// An order of the entries that pass a filter.
struct order_request {
    row_order order = row_order::created;
    bool is_reversed = false; // in the orders by creation and by last sight, what comes last stays last
    row_filter filter = {};

    bool operator==(const order_request &) const = default;
};

// The rank of a port's name among all names of ports.
struct port_rank {
    uint32_t xcid;
    uint16_t rank;
};

// For the order by port: the names of ports in their order, and the rank of each port. Otherwise empty.
struct ranked_ports {
    std::vector<std::string> names = {}; // by rank
    std::vector<port_rank> ranks = {};   // by xcid
};

struct ordered_page {
    row_page page = {}; // `page.end` is unused
    order_position end = {};
};

// A part of an order: the keys of consecutive entries. A selection looks at all entries of the shadow table, so a list
// selects many keys at once and reads their rows in pages:
//
//     order_selection selection = select_ahead({row_order::last_seen}, {}, 100'000);
//     do {
//         const ordered_page page = read_selection(selection, 200);
//         ... page.page.rows ...
//     } while (page.page.more);
//
// Select the next part behind page.end when the selection is read, or no longer fresh.
//
// An entry whose place is behind the selection when its page is read gets no row there. If it came again or was seen
// again, its new place is behind all places of entries that were seen before the read began. No selection holds places
// of both kinds, and `more` is set when an entry has no row, so a later selection has the new place.
//
// A selection belongs to one thread at a time.
struct order_selection {
    order_request wanted = {};
    order_position at = {}; // the rows up to here were read
    ranked_ports ports = {};
    std::vector<order_key> keys = {};
    size_t next = 0;         // index of the first key behind `at`
    bool more = false;       // entries follow behind the last key
    int64_t selected_ms = 0; // steady clock
};

// Selects up to `max_rows` entries behind `from`; `max_rows` is at least 1. Waits for the cache thread.
//
// Entries are selected by all conditions of the filter but that on their ages; read_selection drops the rows that do
// not pass. `from` may belong to an earlier selection: names of ports may have changed since, so `at` of the result has
// another value then. In the order by last sight, a plane that ages silently is asked about the first entries. If the
// order is reversed, it is asked about all of them, because any of them may have been seen last.
order_selection select_ahead(const order_request &wanted, const order_position &from, uint32_t max_rows);

// True if keys are left, and the selection is at most a second old. An older one may lack entries that came since.
bool is_fresh(const order_selection &selection);

// Moves the selection to a position in it, such as that of a row that was read.
void seek(order_selection &selection, const order_position &to);

// The position of a key of the selection, such as that of a row.
order_position position_of(const order_selection &selection, const order_key &key);

// Reads the rows of the next keys, up to `max_rows`, and moves the selection behind them. Waits for the cache thread.
// `page.more` is true if entries follow, in the selection or behind it.
ordered_page read_selection(order_selection &selection, uint32_t max_rows, const row_details &details = {});

// ---- Counts ----

struct entry_counts {
    uint32_t total = 0; // learned and static
    uint32_t learned = 0;
    uint32_t fixed = 0;
    uint32_t local = 0;
    uint32_t bridge_own = 0; // count_all only; otherwise 0
};

// Counts the entries of the whole table, of a bridge domain or of a port. The last two return no value if there is no
// such object.
entry_counts count_all();
std::optional<entry_counts> count_domain(uint16_t bridge_id);
std::optional<entry_counts> count_port(uint32_t xcid);

// By what rows are counted.
enum class count_group : uint8_t { domain, port, vlan, vtep, type };

// Names a group; members that do not name it are empty.
struct group_key {
    port_place place = {}; // by domain, without an xcid; by port
    uint16_t vlan = 0;
    base::ip_address vtep = {};
    row_origin type = row_origin::learned;

    auto operator<=>(const group_key &) const = default;
};

struct group_count {
    group_key key = {};
    uint32_t entries = 0;
    std::array<uint32_t, row_origins> by_origin = {}; // by row_origin; together `entries`
};

struct group_counts {
    std::shared_ptr<const object_views> objects = nullptr; // names of the places; null if nothing runs
    std::vector<group_count> groups = {};                  // by key
};

// Counts the rows that pass the filter, page by page. A plane that ages silently is asked only if the filter judges
// ages. So the counts include an entry that has gone and whose removal the plane has not reported yet.
group_counts count_rows(const row_filter &filter, count_group by);

// ---- Tunnel end points ----

struct vtep_view {
    uint16_t bridge_id = 0;
    uint32_t xcid = 0;
    std::array<uint8_t, 4> address = {}; // network byte order
    uint32_t vni = 0;
};

// Reads up to `max_rows` tunnel end points behind `after`, by xcid, address and VNI. An address is there once for each
// VNI with which an entry sends to it.
std::vector<vtep_view> read_vteps(const vtep_view &after, uint32_t max_rows);

} // namespace forwarding
