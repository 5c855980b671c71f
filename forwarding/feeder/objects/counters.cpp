// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/objects/counters.h"

#include "forwarding/feeder/objects/registry.h"

namespace forwarding {
namespace {

// Values of feed_record::counted_as; 0: not counted.
constexpr uint8_t counted_plain = 1;
constexpr uint8_t counted_static = 2;
constexpr uint8_t counted_local = 3;
constexpr uint8_t counted_static_local = 4;

constexpr uint32_t minus_one = static_cast<uint32_t>(-1);

uint8_t counted_as(uint16_t flags)
{
    const bool is_static = (flags & EDM_MAC_STATIC) != 0;
    const bool is_local = (flags & EDM_MAC_LOCAL) != 0;
    if (is_static) {
        return is_local ? counted_static_local : counted_static;
    }
    return is_local ? counted_local : counted_plain;
}

} // namespace

entry_counters::entry_counters(feed_context &context, const registry &objects)
    : context_(context)
    , objects_(objects)
    , of_domains_(size_t{max_domains} + 1)
{}

void entry_counters::begin_port(uint32_t port)
{
    of_ports_.reach(port);
    of_ports_[port] = {};
}

std::atomic<uint32_t> &entry_counters::domain_counter(uint16_t bridge_id, uint8_t counted)
{
    domain_counters &counters = of_domains_[bridge_id];
    switch (counted) {
    case counted_static: return counters.fixed;
    case counted_local: return counters.local;
    case counted_static_local: return counters.both;
    default: return counters.plain;
    }
}

// Adds `by` (1 or minus_one) to all counters that count the entry: those of its bridge domain and its port, and the
// total of the cache. Unsigned arithmetic wraps, so adding minus_one subtracts 1.
void entry_counters::change(uint32_t entry, uint32_t by)
{
    const uint8_t kind = context_.records[entry].counted_as;
    const fed_place &at = context_.records.place(entry);
    const bool is_static = kind == counted_static || kind == counted_static_local;
    const bool is_local = kind == counted_local || kind == counted_static_local;
    domain_counter(at.bridge_id, kind) += by;
    total_ += by == minus_one ? ~uint64_t{0} : by;
    const uint32_t port = objects_.find_port(at.xcid);
    if (port == no_slot) {
        return;
    }
    edm_mac_counters_t &counters = of_ports_[port];
    counters.mac_cnt_f4 += is_local ? by : 0;
    counters.mac_cnt_f2 += is_static && !is_local ? by : 0;
    counters.mac_cnt_plain += !is_static && !is_local ? by : 0;
    counters.mac_cnt_sum = counters.mac_cnt_plain + counters.mac_cnt_f2;
}

void entry_counters::count(uint32_t entry, uint16_t flags)
{
    feed_record &record = context_.records[entry];
    const bool counts = record.is_fed && record.now() == standing::fed;
    const uint8_t kind = counts ? counted_as(flags) : uint8_t{0};
    if (record.counted_as == kind) {
        return;
    }
    if (record.counted_as != 0) {
        change(entry, minus_one);
    }
    record.counted_as = kind & 7U;
    if (kind != 0) {
        change(entry, 1);
    }
}

void entry_counters::move(uint32_t entry, const fed_place &to)
{
    feed_record &record = context_.records[entry];
    const fed_place &from = context_.records.place(entry);
    if (record.counted_as != 0 && (from.xcid != to.xcid || from.bridge_id != to.bridge_id)) {
        change(entry, minus_one);
        record.counted_as = 0;
    }
    context_.records.set_place(entry, to);
}

void entry_counters::follow_standing(uint32_t entry)
{
    feed_record &record = context_.records[entry];
    const standing now = standing_of(context_.shadow, entry);
    standings_[record.standing_bits]--;
    standings_[static_cast<size_t>(now)]++;
    record.standing_bits = static_cast<uint8_t>(now) & 15U;
    const bool alive = context_.shadow.entries[entry].alive;
    const destination_kind kind = alive ? context_.shadow.terms_of(entry).destination.kind : destination_kind::none;
    destinations_[record.foreign]--;
    destinations_[static_cast<size_t>(kind)]++;
    record.foreign = static_cast<uint8_t>(kind) & 7U;
}

void entry_counters::read_domain(uint16_t bridge_id, edm_mac_counters_t &counters) const
{
    const domain_counters &of = of_domains_[bridge_id];
    const uint32_t both = of.both;
    counters.mac_cnt_plain = of.plain;
    counters.mac_cnt_f2 = of.fixed + both;
    counters.mac_cnt_f4 = of.local + both;
    counters.mac_cnt_sum = counters.mac_cnt_plain + counters.mac_cnt_f2;
}

uint64_t entry_counters::all_of_domain(uint16_t bridge_id) const
{
    const domain_counters &of = of_domains_[bridge_id];
    return uint64_t{of.plain} + of.fixed + of.local + of.both;
}

kind_counts entry_counters::kinds_of_domain(uint16_t bridge_id) const
{
    const domain_counters &of = of_domains_[bridge_id];
    return {.learned = of.plain, .fixed = of.fixed + of.both, .local = of.local};
}

uint64_t entry_counters::all_of_port(uint32_t port) const
{
    const edm_mac_counters_t &of = of_ports_[port];
    return uint64_t{of.mac_cnt_sum} + of.mac_cnt_f4;
}

void entry_counters::add_to(health_view &view) const
{
    for (size_t at = 0; at < standings_.size(); at++) {
        if (const char *text = text_of(static_cast<standing>(at)); text != nullptr && standings_[at] != 0) {
            view.unmapped.push_back({text, standings_[at]});
        }
    }
}

} // namespace forwarding
