// SPDX-License-Identifier: Apache-2.0

// The part of the feeder that answers questions of other threads from the shadow table: where an address is, the
// entries in an order, ages, and counts of a port.
//
// Threads: the cache thread, without the table lock. Other threads call it through on_cache_thread (asking.h).
#include <algorithm>
#include <chrono>
#include <limits>

#include "forwarding/feeder/feeder.h"
#include "forwarding/feeder/row.h"
#include "forwarding/feeder/table_hold.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

// Value of an entry that does not age, in the order by last sight: such entries come last.
constexpr uint64_t does_not_age = std::numeric_limits<uint64_t>::max();

bool is_behind(const order_position &from, uint64_t value, uint32_t slot)
{
    return !from.holds_row || value > from.value || (value == from.value && slot > from.slot);
}

// Lists in an order show what the feeder has fed.
bool is_in_orders(const shadow_entry &entry)
{
    return entry.alive && entry.fed_xcid != 0 && static_cast<standing>(entry.standing) == standing::fed;
}

// Keeps the `most` smallest keys, unsorted, and drops the others.
void keep_first(std::vector<order_key> &keys, size_t most)
{
    if (keys.size() > most) {
        std::ranges::nth_element(keys, keys.begin() + static_cast<ptrdiff_t>(most));
        keys.resize(most);
    }
}

} // namespace

// ---- One address ----

// Returns the keys by which to ask the plane about an address, in one bridge domain or in all (0). If the shadow table
// holds the address somewhere and is not degraded, only those places are returned; otherwise every bridge domain is.
std::vector<fdb_key> feeder::places_of(const mac_address &mac, uint16_t bridge_id)
{
    plane_.drain();
    if (removals_in_flight_ == 0) {
        settle_everything();
    }
    std::vector<fdb_key> everywhere;
    std::vector<fdb_key> known;
    const auto look_in = [&](uint32_t domain) {
        const fdb_key key{shadow_.domains[domain].bridge, false, shadow_.domains[domain].vlan, 0, mac, {}};
        everywhere.push_back(key);
        if (const uint32_t at = shadow_.find(key); at != no_slot && shadow_.entries[at].alive) {
            known.push_back(key);
        }
    };
    if (const auto one = domains_by_id_.find(bridge_id); one != domains_by_id_.end()) {
        look_in(one->second);
    } else if (bridge_id == 0) {
        for (const auto &[id, domain] : domains_by_id_) {
            look_in(domain);
        }
    }
    return known.empty() || state() == completeness::degraded ? everywhere : known;
}

// Takes the plane's answers, then adds a row for each place at which the shadow table holds the entry.
void feeder::confirm_places(std::span<const fdb_key> keys, std::span<const fdb_answer> answers,
                            std::vector<mac_row> &rows)
{
    take_ages(keys, answers);
    if (removals_in_flight_ == 0) {
        settle_everything();
    }
    for (const fdb_key &key : keys) {
        if (const uint32_t at = shadow_.find(key); at != no_slot && shadow_.entries[at].alive) {
            add_row(at, rows);
        }
    }
}

// Adds a row if the entry is one that the feeder feeds.
void feeder::add_row(uint32_t at, std::vector<mac_row> &rows)
{
    l2fib_mac_edm_entry_t descriptor;
    if (describe(shadow_, at, epoch_offset_ms_, descriptor) != standing::fed) {
        return;
    }
    rows.push_back(row_of(descriptor));
    if (shadow_.ports[shadow_.entries[at].port].key.kind == link_kind::vxlan) {
        const own_vni vnis = vnis_of(at); // not from the views: they lack the entry if the table has no room for it
        rows.back().vni = vnis.vni;
        rows.back().source_vni = vnis.source_vni;
    }
}

// ---- Orders ----

// True if the entry ages out when its address is not seen for the bridge's ageing time.
bool feeder::entry_ages(const shadow_entry &entry) const
{
    return !entry.record.self && (entry.record.state & (fdb_permanent | fdb_noarp)) == 0
           && (entry.record.flags & fdb_extern_learn) == 0 && entry.record.updated_ms > 0;
}

uint64_t feeder::order_value(row_order order, const shadow_entry &entry) const
{
    if (order == row_order::created) {
        return entry.created;
    }
    return entry_ages(entry) ? static_cast<uint64_t>(entry.record.updated_ms) : does_not_age;
}

// The place of an entry in a list that began at `began`. Values above `began` count as `began + 1`, except
// does_not_age; see order_position.
order_key feeder::key_in(row_order order, uint32_t slot, uint64_t began) const
{
    const uint64_t value = order_value(order, shadow_.entries[slot]);
    return {value != does_not_age ? std::min(value, began + 1) : value, slot};
}

uint64_t feeder::order_now(row_order order) const
{
    using namespace std::chrono;
    const auto now = duration_cast<milliseconds>(steady_clock::now().time_since_epoch());
    return order == row_order::created ? last_created_ : static_cast<uint64_t>(now.count());
}

// Selects the first `most` fed entries behind `from` in one pass over the shadow table, with memory for half as many
// keys more. Whenever the memory is full, the largest keys go. From then on `last`, the largest key kept, rules out
// entries behind it. With `most` = 2 and the values 5 9 3 7 8 1:
//
//      5 9 3 7   full: keep 3 5, last = 5
//      3 5       8 is behind last and skipped
//      3 5 1     end: keep 1 3
std::vector<order_key> feeder::select(row_order order, const order_position &from, uint32_t most)
{
    plane_.drain();
    if (removals_in_flight_ == 0) {
        settle_everything();
    }
    std::vector<order_key> keys;
    const size_t max_keys = size_t{most} + most / 2 + 1;
    keys.reserve(max_keys);
    order_key last{std::numeric_limits<uint64_t>::max(), no_slot}; // entries behind it are not among the first
    shadow_.for_each_entry([&](uint32_t at) {
        const order_key key = key_in(order, at, from.began);
        if (!is_in_orders(shadow_.entries[at]) || !is_behind(from, key.value, at) || last < key) {
            return;
        }
        keys.push_back(key);
        if (keys.size() == max_keys) {
            keep_first(keys, most);
            last = std::ranges::max(keys);
        }
    });
    keep_first(keys, most);
    std::ranges::sort(keys);
    return keys;
}

// An entry whose place is now behind `last` is left out, because a later selection finds it there. A smaller change
// does not matter: a plane that ages silently may report the same time with a difference of some milliseconds.
std::vector<ordered_entry> feeder::entries_at(row_order order, std::span<const order_key> keys, const order_key &last,
                                              uint64_t began) const
{
    constexpr size_t prefetch_distance = 8;
    std::vector<ordered_entry> found;
    found.reserve(keys.size());
    for (size_t at = 0; at < keys.size(); at++) {
        __builtin_prefetch(&shadow_.entries[keys[std::min(at + prefetch_distance, keys.size() - 1)].slot]);
        const shadow_entry &entry = shadow_.entries[keys[at].slot];
        if (is_in_orders(entry) && key_in(order, keys[at].slot, began) <= last) {
            found.push_back({keys[at], entry.fed_xcid, entry.fed_bridge, entry_ages(entry), entry.record.updated_ms,
                             key_of(entry.record)});
        }
    }
    return found;
}

// ---- Ages ----

// Takes the times of last sight from answers that another thread got from the plane. An answer that contradicts the
// shadow table is not taken, because the plane may have reported a newer change since. Instead the plane is asked
// again. Returns how many entries got another time or were asked about again.
size_t feeder::take_ages(std::span<const fdb_key> keys, std::span<const fdb_answer> answers)
{
    size_t changed = 0;
    std::vector<fdb_key> contradicted;
    for (size_t at = 0; at < keys.size(); at++) {
        const fdb_answer &answer = answers[at];
        const uint32_t slot = shadow_.find(keys[at]);
        const bool is_known = slot != no_slot && shadow_.entries[slot].alive;
        if (answer.presence == fdb_presence::present && is_known
            && equal_but_age(shadow_.entries[slot].record, answer.record)) {
            changed += shadow_.entries[slot].record.updated_ms != answer.record.updated_ms ? 1U : 0U;
            shadow_.fdb_changed(answer.record);
        } else if (answer.presence == fdb_presence::present || (answer.presence == fdb_presence::absent && is_known)) {
            contradicted.push_back(keys[at]);
        }
    }
    for (std::span<const fdb_key> left = contradicted; !left.empty();) {
        const auto batch = left.first(std::min(query_batch, left.size()));
        correct(batch);
        left = left.subspan(batch.size());
    }
    return changed + contradicted.size();
}

// Asks the plane about at most query_batch keys and corrects the shadow table by the answers. No report can come in
// between, because the plane reports on this thread.
void feeder::correct(std::span<const fdb_key> keys)
{
    std::vector<fdb_answer> answers(keys.size());
    plane_.query(keys, answers);
    for (size_t at = 0; at < keys.size(); at++) {
        const uint32_t slot = shadow_.find(keys[at]);
        if (answers[at].presence == fdb_presence::absent && slot != no_slot && shadow_.entries[slot].alive) {
            remove_surely(slot);
        } else if (answers[at].presence == fdb_presence::present
                   && shadow_.find_link(answers[at].record.ifindex) != nullptr) {
            shadow_.fdb_changed(answers[at].record);
        }
    }
}

// ---- Counts ----

// Returns no value if there is no such port.
std::optional<edm_mac_counters_t> feeder::count_of_port(uint32_t xcid)
{
    plane_.drain();
    if (removals_in_flight_ == 0) {
        settle_everything();
    }
    const auto port = ports_by_xcid_.find(xcid);
    return port != ports_by_xcid_.end() ? std::optional(shadow_.ports[port->second].counters) : std::nullopt;
}

} // namespace forwarding
