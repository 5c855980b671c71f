// SPDX-License-Identifier: Apache-2.0

// Rows of the MAC table for answers, read page by page.
//
//     forwarding::row_filter filter;
//     forwarding::row_position at;
//     do {
//         const forwarding::row_page page = forwarding::read_rows(filter, at, 200);
//         ... page.rows ...
//         at = page.end;
//     } while (page.more);
//
// The order is that of numbers that never change while an object lives: bridge id, port (xcid; the bridge domain's own
// entries come last), address. A page holds the table lock in short pieces and keeps no pointer. It begins behind a
// position, whether or not what stood there still exists. So no walk ends because entries went, and renaming a bridge
// moves nothing. An entry that stays on its port is read exactly once; one that moves meanwhile may be read twice or
// not at all.
//
// Ages. A plane that ages silently is asked about the rows of the page and nothing else. An entry that it no longer
// holds is left out.
//
// Threads: any but the cache thread, without the table lock. While nothing runs, pages are empty.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "forwarding/forwarding.h"

namespace forwarding {

// Behind which entries follow in an order: the number that decides, and the slot in the shadow table. `began` is the
// number that a new entry would have had when the reading began. What has come, or was seen again, since then has one
// place, by its slot alone. So each entry that stays is read once or, if it was seen again behind its back, twice, and
// a reading ends.
struct order_position {
    uint64_t value = 0;
    uint32_t slot = 0;
    bool holds_row = false;
    uint64_t began = 0; // 0: the reading begins here
};

struct mac_row {
    uint16_t bridge_id = 0;
    uint32_t xcid = 0; // EDM_XCID_DUMMY: of the bridge domain itself
    mac_address mac = {};
    uint16_t flags = 0; // EDM_MAC_ bits
    uint16_t ext_flags = 0;
    uint16_t vlan = 0;
    uint32_t node_id = 0;
    mac_address backbone = {};         // with EDM_MAC_PBB
    std::array<uint8_t, 4> vtep = {};  // with EDM_MAC_VNI; network byte order
    uint32_t vni = 0;                  // what the entry's frames are sent with; 0: none
    uint32_t source_vni = 0;           // of an external VXLAN device
    int64_t last_seen = 0;             // seconds since the epoch; 0: the plane does not say
    uint32_t age = 0;                  // seconds since it was last seen, or since the table updated it
    std::optional<uint32_t> time_left; // seconds until it ages out, when it ages and the bridge's ageing time is known
    const domain_view *domain = nullptr; // of the page's objects
    const port_view *port = nullptr;     // null for the bridge domain's own
    order_position place = {};           // in an order, when it was read in one
};

// What a row has to be. Empty members let every row pass.
struct row_filter {
    uint16_t bridge_id = 0;
    uint32_t xcid = 0;
    uint16_t flags = 0; // any of these EDM_MAC_ bits
    std::optional<std::array<uint8_t, 4>> vtep = std::nullopt;
};

bool passes(const row_filter &filter, const mac_row &row);

// Behind which rows follow; as it is made, before all.
struct row_position {
    uint16_t bridge_id = 0;
    uint32_t xcid = 0;
    mac_address mac = {};
    bool holds_row = false; // the row at this place was read
};

struct row_page {
    std::shared_ptr<const object_views> objects = nullptr; // what the rows point into
    std::vector<mac_row> rows = {};
    row_position end = {};
    bool more = false; // rows may follow
};

// At most `most` rows, which is at least 1. A page may have none although more follow.
row_page read_rows(const row_filter &filter, const row_position &from, uint32_t most);

// All rows of one address, in all bridge domains or in one: those that the plane holds, whether or not the table has
// room for them. The shadow table says where to look and the plane is asked for each. When the shadow table knows none,
// or is degraded, the plane is asked in every bridge domain. `bridge_id` 0: all.
row_page find_rows(const mac_address &mac, uint16_t bridge_id);

// ---- In another order ----

enum class row_order : uint8_t {
    created,   // in the table: the order in which the table's own list has them
    last_seen, // who ages out next comes first; entries that do not age come last
};

struct ordered_page {
    row_page page = {}; // its `end` is not used
    order_position end = {};
};

// The next `most` rows. Memory is bounded by `most`; each page looks at all entries of the shadow table.
ordered_page read_ordered(row_order order, const order_position &from, uint32_t most);

// ---- Counts ----

struct entry_counts {
    uint32_t total = 0; // learned and static
    uint32_t learned = 0;
    uint32_t fixed = 0;
    uint32_t local = 0;
    uint32_t bridge_own = 0; // of the whole table only
};

entry_counts count_all();
std::optional<entry_counts> count_domain(uint16_t bridge_id);
std::optional<entry_counts> count_port(uint32_t xcid);

// ---- Tunnel end points ----

struct vtep_view {
    uint16_t bridge_id = 0;
    uint32_t xcid = 0;
    std::array<uint8_t, 4> address = {}; // network byte order
    uint32_t vni = 0;
};

// Behind `after`, at most `most`: by xcid, address and VNI, once for each VNI that an entry sends with.
std::vector<vtep_view> read_vteps(const vtep_view &after, uint32_t most);

} // namespace forwarding
