// SPDX-License-Identifier: Apache-2.0

// Questions that the feeder answers from the shadow table, on the cache thread.
#include <algorithm>
#include <chrono>
#include <limits>

#include "forwarding/feeder/feeder.h"
#include "forwarding/feeder/row.h"
#include "forwarding/feeder/table_hold.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

constexpr uint64_t does_not_age = std::numeric_limits<uint64_t>::max();

bool is_behind(const order_position &from, uint64_t value, uint32_t slot)
{
    return !from.holds_row || value > from.value || (value == from.value && slot > from.slot);
}

// What an order is decided by; small, since there is one for each entry that may come first.
struct order_key {
    uint64_t value;
    uint32_t slot;
    auto operator<=>(const order_key &) const = default;
};

// Keeps the first `most` in front, in no order, and drops the others.
void keep_first(std::vector<order_key> &keys, size_t most)
{
    if (keys.size() > most) {
        std::ranges::nth_element(keys, keys.begin() + static_cast<ptrdiff_t>(most));
        keys.resize(most);
    }
}

} // namespace

// ---- One address ----

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

void feeder::add_row(uint32_t at, std::vector<mac_row> &rows)
{
    l2fib_mac_edm_entry_t descriptor;
    if (describe(shadow_, at, epoch_offset_ms_, descriptor) != standing::fed) {
        return;
    }
    rows.push_back(row_of(descriptor));
    if (shadow_.ports[shadow_.entries[at].port].key.kind == link_kind::vxlan) {
        const own_vni vnis = vnis_of(at); // the table may have no room for it, and the views know none then
        rows.back().vni = vnis.vni;
        rows.back().source_vni = vnis.source_vni;
    }
}

// ---- Orders ----

// Whether it goes by itself when it is not seen for long.
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

uint64_t feeder::order_now(row_order order) const
{
    using namespace std::chrono;
    const auto now = duration_cast<milliseconds>(steady_clock::now().time_since_epoch());
    return order == row_order::created ? last_created_ : static_cast<uint64_t>(now.count());
}

std::vector<ordered_entry> feeder::select(row_order order, const order_position &from, uint32_t most)
{
    plane_.drain();
    if (removals_in_flight_ == 0) {
        settle_everything();
    }
    std::vector<order_key> keys;
    keys.reserve(2 * size_t{most});
    order_key last{std::numeric_limits<uint64_t>::max(), no_slot}; // what comes behind it cannot be among the first
    shadow_.for_each_entry([&](uint32_t at) {
        const shadow_entry &entry = shadow_.entries[at];
        const uint64_t value = order_value(order, entry);
        const order_key key{value != does_not_age ? std::min(value, from.began + 1) : value, at};
        if (entry.fed_xcid == 0 || static_cast<standing>(entry.standing) != standing::fed
            || !is_behind(from, key.value, at) || last < key) {
            return;
        }
        keys.push_back(key);
        if (keys.size() == 2 * size_t{most}) {
            keep_first(keys, most);
            last = std::ranges::max(keys);
        }
    });
    keep_first(keys, most);
    std::ranges::sort(keys);
    std::vector<ordered_entry> first;
    first.reserve(keys.size());
    for (const order_key &key : keys) {
        const shadow_entry &entry = shadow_.entries[key.slot];
        first.push_back({key.value, key.slot, entry.fed_xcid, entry.fed_bridge, entry_ages(entry),
                         entry.record.updated_ms, key_of(entry.record)});
    }
    return first;
}

// ---- Ages ----

// Takes ages. An answer that contradicts the shadow table is not taken, because what has changed since the question may
// have been reported already; the plane is asked again.
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

// Asks the plane and corrects the shadow table at once: nothing has been reported since these answers.
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
