// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/answers/answers.h"

#include <algorithm>
#include <chrono>
#include <limits>

#include "forwarding/feeder/answers/row.h"

namespace forwarding {
namespace {

bool is_behind(const order_position &from, uint64_t value, uint32_t slot)
{
    return !from.holds_row || value > from.value || (value == from.value && slot > from.slot);
}

// Selects the first `max_keys` of the keys that it takes, with memory for half as many more. Whenever the memory is
// full, the largest keys go. From then on `last`, the largest key kept, rules out keys behind it. With `max_keys` = 2
// and the values 5 9 3 7 8 1:
//
//      5 9 3 7   full: keep 3 5, last = 5
//      3 5       8 is behind last and skipped
//      3 5 1     end: keep 1 3
class first_keys {
public:
    explicit first_keys(size_t max_keys)
        : max_keys_(max_keys)
        , capacity_(max_keys + max_keys / 2 + 1)
    {
        keys_.reserve(capacity_);
    }

    void take(const order_key &key)
    {
        if (last_ < key) {
            return;
        }
        keys_.push_back(key);
        if (keys_.size() == capacity_) {
            keep_first();
            last_ = std::ranges::max(keys_);
        }
    }

    // The first keys, sorted.
    std::vector<order_key> end()
    {
        keep_first();
        std::ranges::sort(keys_);
        return std::move(keys_);
    }

private:
    void keep_first()
    {
        if (keys_.size() > max_keys_) {
            std::ranges::nth_element(keys_, keys_.begin() + static_cast<ptrdiff_t>(max_keys_));
            keys_.resize(max_keys_);
        }
    }

    const size_t max_keys_;
    const size_t capacity_;
    std::vector<order_key> keys_;
    order_key last_{std::numeric_limits<uint64_t>::max(), no_slot};
};

} // namespace

table_answers::table_answers(feed_context &context, const registry &objects, const entry_counters &counters,
                             changes &live, const cache_feed &cache, doubt &questions, const history &past)
    : context_(context)
    , objects_(objects)
    , counters_(counters)
    , changes_(live)
    , cache_(cache)
    , doubt_(questions)
    , history_(past)
{}

// Returns the slot of a living entry, or no_slot.
uint32_t table_answers::find_living(const fdb_key &key) const
{
    const uint32_t entry = context_.shadow.find(key);
    return entry != no_slot && context_.shadow.entries[entry].alive ? entry : no_slot;
}

// ---- One address ----

std::vector<fdb_key> table_answers::places_of(const mac_address &mac, uint16_t bridge_id)
{
    context_.source.drain();
    changes_.settle_everything();
    std::vector<fdb_key> everywhere;
    std::vector<fdb_key> known;
    const auto look_in = [&](uint32_t at) {
        const shadow_domain &domain = context_.shadow.domains[at];
        everywhere.push_back({domain.bridge, false, domain.vlan, 0, mac, {}});
        if (find_living(everywhere.back()) != no_slot) {
            known.push_back(everywhere.back());
        }
    };
    if (const uint32_t one = objects_.find_domain(bridge_id); one != no_slot) {
        look_in(one);
    } else if (bridge_id == 0) {
        for (const auto &[id, domain] : objects_.domains_by_id()) {
            look_in(domain);
        }
    }
    return known.empty() || doubt_.is_degraded() ? everywhere : known;
}

void table_answers::confirm_places(std::span<const fdb_key> keys, std::span<const fdb_answer> answers,
                                   std::vector<mac_row> &rows)
{
    take_ages(keys, answers);
    changes_.settle_everything();
    for (const fdb_key &key : keys) {
        if (const uint32_t entry = find_living(key); entry != no_slot) {
            add_row(entry, rows);
        }
    }
}

// Adds a row if the entry is one that the feeder feeds.
void table_answers::add_row(uint32_t entry, std::vector<mac_row> &rows)
{
    l2fib_mac_edm_entry_t descriptor;
    if (describe(context_.shadow, entry, context_.epoch_offset_ms, descriptor) != standing::fed) {
        return;
    }
    rows.push_back(row_of(descriptor));
    if (context_.shadow.ports[context_.shadow.entries[entry].port].key.kind == link_kind::vxlan) {
        const entry_vnis vnis = cache_.vnis_of(entry); // tunnel_ends lacks the entry if the table has no room for it
        rows.back().vni = vnis.vni;
        rows.back().source_vni = vnis.source_vni;
    }
}

// A local address of a port sends nothing, so it has no tunnel end point. The first entry of a group is the device's
// own one if there is any (shadow_table.h).
void table_answers::add_ipv6_vteps(std::vector<mac_row> &rows) const
{
    const shadow_table &shadow = context_.shadow;
    for (mac_row &row : rows) {
        const bool is_sent = row.port != nullptr && row.port->kind == port_kind::vxlan;
        const uint32_t port =
            is_sent && (row.flags & (EDM_MAC_VNI | EDM_MAC_LOCAL)) == 0 ? objects_.find_port(row.xcid) : no_slot;
        const uint32_t entry =
            port != no_slot ? shadow.first_of_group(shadow.find_group(shadow.ports[port].key, row.mac)) : no_slot;
        if (entry == no_slot || !shadow.terms_of(entry).self) {
            continue;
        }
        const fdb_destination &destination = shadow.terms_of(entry).destination;
        row.ipv6_vtep = destination.kind == destination_kind::ipv6 ? destination.address : base::ip_address{};
    }
}

// ---- Orders ----

uint64_t table_answers::begin_order(row_order order)
{
    using namespace std::chrono;
    context_.source.drain();
    changes_.settle_everything();
    const auto now = duration_cast<milliseconds>(steady_clock::now().time_since_epoch());
    return order == row_order::created ? cache_.last_created() : static_cast<uint64_t>(now.count());
}

// Lists in an order show what the feeder has fed.
bool table_answers::is_in_orders(uint32_t entry) const
{
    const feed_record &record = context_.records[entry];
    return context_.shadow.entries[entry].alive && record.is_fed && record.now() == standing::fed;
}

// Judges all but the age. A flood list's row shows the destination that was fed last, so only the row shows whether it
// passes.
bool table_answers::may_pass(const row_filter &filter, uint32_t entry) const
{
    const fed_place &place = context_.records.place(entry);
    const mac_address &mac = context_.shadow.entries[entry].mac;
    if (!passes_place(filter, {place.bridge_id, place.xcid})) {
        return false;
    }
    if (mac == mac_address{}) {
        return passes_address(filter, mac);
    }
    const base::ip_address vtep = address_of(destination_of(context_.shadow, entry));
    const uint16_t flags = flags_of(context_.shadow, entry);
    return passes_values(filter, {mac, flags, context_.shadow.terms_of(entry).vlan, place.vni, vtep});
}

// Returns the slot of the port at a place, or no_slot. The bridge domain's own entries are on the port whose interface
// is the bridge.
uint32_t table_answers::port_at(const port_place &place) const
{
    if (place.second != EDM_XCID_DUMMY) {
        return objects_.find_port(place.second);
    }
    const shadow_table &shadow = context_.shadow;
    for (const uint32_t port : ports_of(place.first)) {
        if (shadow.ports[port].key.ifindex == shadow.ports[port].key.master) {
            return port;
        }
    }
    return no_slot;
}

// The slots of a bridge domain's ports; none if there is no such bridge domain.
std::span<const uint32_t> table_answers::ports_of(uint16_t bridge_id) const
{
    const uint32_t domain = objects_.find_domain(bridge_id);
    return domain != no_slot ? std::span<const uint32_t>(context_.shadow.domains[domain].ports)
                             : std::span<const uint32_t>();
}

// Visits the entries in orders that may pass: those of the filter's ports or bridge domains if it lists any, otherwise
// all.
template <typename Visit>
void table_answers::for_each_candidate(const row_filter &filter, Visit visit) const
{
    shadow_table &shadow = context_.shadow;
    const bool judges = filter != row_filter();
    const auto judge = [&](uint32_t entry) {
        if (is_in_orders(entry) && (!judges || may_pass(filter, entry))) {
            visit(entry);
        }
    };
    if (!filter.ports.is_exclusion) {
        for (const port_place &place : filter.ports.values) {
            if (const uint32_t port = port_at(place); port != no_slot) {
                shadow.for_each_entry_of_port(port, judge);
            }
        }
    } else if (!filter.domains.is_exclusion) {
        for (const uint16_t bridge_id : filter.domains.values) {
            for (const uint32_t port : ports_of(bridge_id)) {
                shadow.for_each_entry_of_port(port, judge);
            }
        }
    } else {
        shadow.for_each_entry(judge);
    }
}

// In the orders by time and creation.
uint64_t table_answers::time_value(row_order order, uint32_t entry) const
{
    if (order == row_order::created) {
        return context_.records[entry].created;
    }
    return entry_ages(context_.shadow, entry) ? static_cast<uint64_t>(context_.shadow.entries[entry].updated_ms)
                                              : does_not_age;
}

// In the other orders.
uint64_t table_answers::place_value(const order_terms &terms, uint32_t entry) const
{
    constexpr unsigned bridge_id_bits = 16;
    const uint64_t mac = base::number_of_mac(context_.shadow.entries[entry].mac);
    const fed_place &place = context_.records.place(entry);
    if (terms.wanted.order == row_order::mac) {
        return mac << bridge_id_bits | place.bridge_id;
    }
    if (terms.wanted.order == row_order::vlan) {
        return uint64_t{context_.shadow.terms_of(entry).vlan} << bits_behind_rank | mac;
    }
    const auto rank = std::ranges::lower_bound(terms.ranks, place.xcid, {}, &port_rank::xcid);
    const bool has_name = rank != terms.ranks.end() && rank->xcid == place.xcid;
    return uint64_t{has_name ? rank->rank : last_rank} << bits_behind_rank | mac;
}

// The place of an entry in a list. Times and creations above `began` count as `began + 1`, except does_not_age; see
// order_position.
order_key table_answers::key_in(const order_terms &terms, uint32_t entry) const
{
    const bool is_reversed = terms.wanted.is_reversed;
    if (!is_timed(terms.wanted.order)) {
        const uint64_t value = place_value(terms, entry);
        return {is_reversed ? ~value : value, entry};
    }
    const uint64_t value = time_value(terms.wanted.order, entry);
    return {value == does_not_age      ? value
            : value > terms.began      ? terms.began + 1
            : terms.wanted.is_reversed ? terms.began - value
                                       : value,
            entry};
}

// Selects in one pass over the shadow table.
std::vector<order_key> table_answers::select(const order_terms &terms, const order_position &from, uint32_t max_entries)
{
    context_.source.drain();
    changes_.settle_everything();
    first_keys keys(max_entries);
    for_each_candidate(terms.wanted.filter, [&](uint32_t entry) {
        if (const order_key key = key_in(terms, entry); is_behind(from, key.value, entry)) {
            keys.take(key);
        }
    });
    return keys.end();
}

// An entry whose place is now behind `last` is left out, because a later selection finds it there. In the orders by
// time and creation a smaller change does not matter: a plane that ages silently may report the same time with a
// difference of some milliseconds. In the other orders a changed place is that of another entry, or on another port.
bool table_answers::stays(const order_terms &terms, const order_key &key, const order_key &last) const
{
    if (!is_in_orders(key.slot)) {
        return false;
    }
    const order_key now = key_in(terms, key.slot);
    return is_timed(terms.wanted.order) ? now <= last : now == key;
}

std::vector<ordered_entry> table_answers::entries_at(const order_terms &terms, std::span<const order_key> keys,
                                                     const order_key &last) const
{
    constexpr size_t prefetch_distance = 8;
    std::vector<ordered_entry> found;
    found.reserve(keys.size());
    for (size_t at = 0; at < keys.size(); at++) {
        __builtin_prefetch(&context_.shadow.entries[keys[std::min(at + prefetch_distance, keys.size() - 1)].slot]);
        if (stays(terms, keys[at], last)) {
            found.push_back(ordered(keys[at]));
        }
    }
    return found;
}

ordered_entry table_answers::ordered(const order_key &place) const
{
    const fed_place &fed = context_.records.place(place.slot);
    return {place,
            fed.xcid,
            fed.bridge_id,
            entry_ages(context_.shadow, place.slot),
            context_.shadow.entries[place.slot].updated_ms,
            context_.shadow.key_of(place.slot)};
}

// ---- Ages ----

// Takes the times of last sight from answers that another thread got from the plane. An answer that contradicts the
// shadow table is not taken, because the plane may have reported a newer change since. Instead the plane is asked
// again.
size_t table_answers::take_ages(std::span<const fdb_key> keys, std::span<const fdb_answer> answers)
{
    size_t changed = 0;
    std::vector<fdb_key> contradicted;
    for (size_t at = 0; at < keys.size(); at++) {
        if (!take_age(keys[at], answers[at], changed)) {
            contradicted.push_back(keys[at]);
        }
    }
    for (std::span<const fdb_key> left = contradicted; !left.empty();) {
        const auto batch = left.first(std::min(query_batch, left.size()));
        doubt_.correct(batch);
        left = left.subspan(batch.size());
    }
    return changed + contradicted.size();
}

// Returns false if the answer contradicts the shadow table.
bool table_answers::take_age(const fdb_key &key, const fdb_answer &answer, size_t &changed)
{
    const uint32_t entry = find_living(key);
    const bool is_known = entry != no_slot;
    if (answer.presence != fdb_presence::present) {
        return answer.presence == fdb_presence::unknown || !is_known;
    }
    if (!is_known || !context_.shadow.equals_but_age(entry, answer.record)) {
        return false;
    }
    changed += context_.shadow.entries[entry].updated_ms != answer.record.updated_ms ? 1U : 0U;
    context_.shadow.fdb_changed(answer.record);
    return true;
}

std::vector<fdb_key> table_answers::ageing_keys(const row_filter &filter, uint32_t &slot, size_t max_keys) const
{
    const shadow_table &shadow = context_.shadow;
    std::vector<fdb_key> keys;
    for (; slot < shadow.entries.bound() && keys.size() < max_keys; slot++) {
        if (is_in_orders(slot) && entry_ages(context_.shadow, slot) && may_pass(filter, slot)) {
            keys.push_back(shadow.key_of(slot));
        }
    }
    return keys;
}

void table_answers::take_sights(std::span<const fdb_key> keys, std::span<const fdb_answer> answers)
{
    for (size_t at = 0; at < keys.size(); at++) {
        const uint32_t entry = find_living(keys[at]);
        if (entry != no_slot && answers[at].presence == fdb_presence::present) {
            shadow_entry &seen = context_.shadow.entries[entry];
            seen.updated_ms = std::max<int64_t>(seen.updated_ms, answers[at].record.updated_ms);
        }
    }
}

// ---- Counts ----

std::optional<edm_mac_counters_t> table_answers::count_of_port(uint32_t xcid)
{
    context_.source.drain();
    changes_.settle_everything();
    const uint32_t port = objects_.find_port(xcid);
    return port != no_slot ? std::optional(counters_.of_port(port)) : std::nullopt;
}

std::vector<object_activity> table_answers::domain_activity(std::span<const uint16_t> bridge_ids)
{
    context_.source.drain();
    changes_.settle_everything();
    std::vector<object_activity> found;
    for (const uint16_t bridge_id : bridge_ids) {
        found.push_back({counters_.all_of_domain(bridge_id), history_.log()->domain_changes(bridge_id)});
    }
    return found;
}

std::vector<object_activity> table_answers::port_activity(std::span<const uint32_t> xcids)
{
    context_.source.drain();
    changes_.settle_everything();
    std::vector<object_activity> found;
    for (const uint32_t xcid : xcids) {
        const uint32_t port = objects_.find_port(xcid);
        found.push_back({port != no_slot ? counters_.all_of_port(port) : 0, history_.log()->port_changes(xcid)});
    }
    return found;
}

// ---- Since when ----

// Returns the entry that a row of the table shows, or no_slot. A row of the zero address shows the first destination of
// its flood list.
uint32_t table_answers::entry_of(const mac_row &row) const
{
    if (row.mac == mac_address{}) {
        const uint32_t port = objects_.find_port(row.xcid);
        return port != no_slot ? context_.shadow.first_of_group(
                   context_.shadow.find_group(context_.shadow.ports[port].key, row.mac))
                               : no_slot;
    }
    const uint32_t at = objects_.find_domain(row.bridge_id);
    if (at == no_slot) {
        return no_slot;
    }
    const shadow_domain &domain = context_.shadow.domains[at];
    return context_.shadow.find({domain.bridge, false, domain.vlan, 0, row.mac, {}});
}

void table_answers::add_since(std::vector<mac_row> &rows) const
{
    for (mac_row &row : rows) {
        const uint32_t entry = entry_of(row);
        if (entry != no_slot && context_.records.place(entry).xcid == row.xcid) {
            row.since_ms = history_.since(entry);
        }
    }
}

// ---- Tunnel entries ----

std::vector<tunnel_entry> table_answers::tunnel_entries(uint32_t &cursor, size_t max_entries)
{
    context_.source.drain();
    const shadow_table &shadow = context_.shadow;
    std::vector<tunnel_entry> found;
    for (; cursor < shadow.entries.bound() && found.size() < max_entries; cursor++) {
        const shadow_entry &entry = shadow.entries[cursor];
        if (entry.alive && shadow.ports[entry.port].key.kind == link_kind::vxlan && shadow.terms_of(cursor).self) {
            found.push_back(tunnel_entry_of(cursor));
        }
    }
    return found;
}

tunnel_entry table_answers::tunnel_entry_of(uint32_t entry) const
{
    const shadow_table &shadow = context_.shadow;
    const shadow_port &port = shadow.ports[shadow.entries[entry].port];
    const shadow_link *device = shadow.find_link(port.key.ifindex);
    const shadow_domain domain = port.domain != no_slot ? shadow.domains[port.domain] : shadow_domain();
    return {domain.bridge_id,
            port.xcid,
            objects_.domain_name(domain.bridge_id),
            domain.vlan,
            device != nullptr ? device->record.name : "",
            cache_.vnis_of(entry).vni,
            shadow.record_of(entry)};
}

} // namespace forwarding
