// SPDX-License-Identifier: Apache-2.0

// Answers questions of other threads from the shadow table: where an address is, the entries in an order, ages, counts
// of a port, and tunnel entries. Each question takes the plane's pending changes first.
//
// Threads: the cache thread, without the table lock. Other threads call it through on_cache_thread (asking.h).
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "forwarding/feeder/answers/reading.h"
#include "forwarding/feeder/changes.h"

namespace forwarding {

// A selected entry. It has all that a caller needs to read the row and to query the plane.
struct ordered_entry {
    order_key place;
    uint32_t xcid;
    uint16_t bridge_id;
    bool ages; // whether it disappears by itself when it is not seen for the ageing time
    int64_t updated_ms;
    fdb_key key;
};

// An order with all that gives an entry its place in it.
struct order_terms {
    const order_request &wanted;
    uint64_t began;                   // see order_position
    std::span<const port_rank> ranks; // see order_selection
};

// True for the orders in which an entry's place depends on a time or on its creation.
constexpr bool is_timed(row_order order)
{
    return order == row_order::created || order == row_order::last_seen;
}

// Value of an entry that does not age, in the order by last sight: such entries come last.
inline constexpr uint64_t does_not_age = UINT64_MAX;

// Value of a port name's entries: the rank, then the address.
inline constexpr unsigned bits_behind_rank = 48;
// Rank of the entries of bridge domains themselves, which have no port name. Names share the rank before it if there
// are more names than ranks.
inline constexpr uint16_t last_rank = UINT16_MAX;

class table_answers {
public:
    table_answers(feed_context &context, const registry &objects, const entry_counters &counters, changes &live,
                  const cache_feed &cache, doubt &questions, const history &past);

    // Returns the keys under which the plane may hold an address, in one bridge domain or in all (`bridge_id` 0). If
    // the shadow table holds the address and is not degraded, these are its keys only. Otherwise there is one key for
    // each bridge domain.
    std::vector<fdb_key> places_of(const mac_address &mac, uint16_t bridge_id);
    // Brings the shadow table up to date with the plane's answers for these keys. Adds a row for each entry that
    // exists.
    void confirm_places(std::span<const fdb_key> keys, std::span<const fdb_answer> answers, std::vector<mac_row> &rows);
    // Sets the IPv6 tunnel end points of rows that have their ports.
    void add_ipv6_vteps(std::vector<mac_row> &rows) const;

    // Takes the plane's pending changes, then returns the value that a new entry would have in an order by time or
    // creation.
    uint64_t begin_order(row_order order);
    // Returns the first `max_entries` entries that come after `from` and may pass the filter. Ages are not judged.
    std::vector<order_key> select(const order_terms &terms, const order_position &from, uint32_t max_entries);
    // Returns the entries of selected keys that have not moved behind `last`, the last key of their selection.
    std::vector<ordered_entry> entries_at(const order_terms &terms, std::span<const order_key> keys,
                                          const order_key &last) const;
    // Returns the keys of up to `max_keys` entries that age and may pass the filter. `slot` is 0 at first; the call
    // moves it behind the last slot that it looked at. Fewer than `max_keys` keys mean the end.
    std::vector<fdb_key> ageing_keys(const row_filter &filter, uint32_t &slot, size_t max_keys) const;
    // Moves the times of last sight forward to those of the plane's answers. Answers may be two seconds old.
    void take_sights(std::span<const fdb_key> keys, std::span<const fdb_answer> answers);
    // Brings the shadow table up to date with the plane's answers to another thread's query. Returns how many keys had
    // an answer that changed the entry's age or contradicted the shadow table.
    size_t take_ages(std::span<const fdb_key> keys, std::span<const fdb_answer> answers);

    // Returns the counters of a port, or nothing if there is no such port.
    std::optional<edm_mac_counters_t> count_of_port(uint32_t xcid);

    // Return the activity of bridge domains or ports (history.h).
    std::vector<object_activity> domain_activity(std::span<const uint16_t> bridge_ids);
    std::vector<object_activity> port_activity(std::span<const uint32_t> xcids);
    // Sets mac_row::since_ms of rows whose entry the table holds.
    void add_since(std::vector<mac_row> &rows) const;

    // Returns up to `max_entries` own entries of VXLAN devices. `cursor` is 0 at first; the call moves it behind the
    // last slot that it looked at. Fewer than `max_entries` entries mean the end.
    std::vector<tunnel_entry> tunnel_entries(uint32_t &cursor, size_t max_entries);

private:
    uint32_t entry_of(const mac_row &row) const;
    uint32_t find_living(const fdb_key &key) const;
    bool take_age(const fdb_key &key, const fdb_answer &answer, size_t &changed);
    void add_row(uint32_t entry, std::vector<mac_row> &rows);
    bool is_in_orders(uint32_t entry) const;
    bool may_pass(const row_filter &filter, uint32_t entry) const;
    uint32_t port_at(const port_place &place) const;
    std::span<const uint32_t> ports_of(uint16_t bridge_id) const;
    template <typename Visit>
    void for_each_candidate(const row_filter &filter, Visit visit) const;
    uint64_t time_value(row_order order, uint32_t entry) const;
    uint64_t place_value(const order_terms &terms, uint32_t entry) const;
    order_key key_in(const order_terms &terms, uint32_t entry) const;
    bool stays(const order_terms &terms, const order_key &key, const order_key &last) const;
    ordered_entry ordered(const order_key &place) const;
    tunnel_entry tunnel_entry_of(uint32_t entry) const;

    feed_context &context_;
    const registry &objects_;
    const entry_counters &counters_;
    changes &changes_;
    const cache_feed &cache_;
    doubt &doubt_;
    const history &history_;
};

} // namespace forwarding
