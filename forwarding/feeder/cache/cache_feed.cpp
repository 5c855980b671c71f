// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/cache/cache_feed.h"

#include <cstring>

#include <arpa/inet.h>

#include "forwarding/feeder/cache/table_hold.h"

namespace forwarding {
namespace {

uint32_t vtep_of(const l2fib_mac_edm_entry_t &descriptor)
{
    uint32_t address = 0;
    if ((descriptor.flags & EDM_MAC_VNI) != 0) {
        std::memcpy(&address, descriptor.vtep_addr, sizeof(address));
    }
    return ntohl(address);
}

// Returns a number for the variant of a record: bit 0 for PBB, bit 1 for VNI. A variant never changes in place: the
// table replaces the entry.
uint8_t variant_of(const l2fib_mac_edm_entry_t &descriptor)
{
    const bool pbb = (descriptor.flags & EDM_MAC_PBB) != 0;
    const bool vni = (descriptor.flags & EDM_MAC_VNI) != 0;
    return static_cast<uint8_t>((pbb ? 1U : 0U) | (vni ? 2U : 0U));
}

bool is_fed_by(standing standing)
{
    return standing == standing::fed || standing == standing::of_flood_list;
}

} // namespace

cache_feed::cache_feed(feed_context &context, registry &objects, entry_counters &counters, placement &places,
                       cache_limit &room, change_queue &queue)
    : context_(context)
    , objects_(objects)
    , counters_(counters)
    , places_(places)
    , limit_(room)
    , queue_(queue)
{}

void cache_feed::settle(uint32_t entry)
{
    l2fib_mac_edm_entry_t descriptor;
    const standing now = describe(context_.shadow, entry, context_.epoch_offset_ms, descriptor);
    if (is_fed_by(now)) {
        feed(entry, descriptor);
        context_.records[entry].is_dirty = false;
        return;
    }
    withdraw(entry);
    counters_.count(entry, 0);
    limit_.note_present(entry);
    context_.records[entry].is_dirty = false;
    if (now == standing::none) {
        context_.records.clear(entry);
        context_.shadow.release(entry);
    }
}

void cache_feed::feed_again(uint32_t entry)
{
    l2fib_mac_edm_entry_t descriptor;
    const standing now = describe(context_.shadow, entry, context_.epoch_offset_ms, descriptor);
    if (context_.records[entry].is_fed && is_fed_by(now)) {
        feed(entry, descriptor);
    }
}

void cache_feed::feed_renamed(uint32_t domain)
{
    for (const uint32_t port : context_.shadow.domains[domain].ports) {
        context_.shadow.for_each_entry_of_port(port, [&](uint32_t entry) {
            const table_hold hold;
            if (!context_.records[entry].is_fed) {
                return;
            }
            places_.end(entry);
            l2fib_mac_edm_entry_t descriptor;
            if (is_fed_by(describe(context_.shadow, entry, context_.epoch_offset_ms, descriptor))) {
                feed(entry, descriptor);
            } else {
                counters_.count(entry, 0);
            }
        });
    }
}

// ---- Into the cache ----

void cache_feed::feed(uint32_t entry, const l2fib_mac_edm_entry_t &descriptor)
{
    const fed_place place = place_of(entry, descriptor);
    const fed_place &before = context_.records.place(entry);
    if (before.xcid != place.xcid || before.bridge_id != place.bridge_id) {
        withdraw(entry);
    }
    std::optional<newest_entry> newest = limit_.newest_of_full_cache();
    if (newest && cached_entry(place.bridge_id, place.xcid, context_.shadow.entries[entry].mac) != nullptr) {
        newest.reset(); // the place is taken already, so the entry needs no room and evicts nothing
    }
    feeds_++;
    const uint32_t status = file_in_cache(descriptor, context_.shadow.terms_of(entry).self);
    if (newest) {
        limit_.note_eviction(*newest, entry, place);
    }
    if (status != 0) {
        limit_.note_refusal(entry, place, descriptor.flags);
        return;
    }
    note_fed(entry, descriptor, place);
}

fed_place cache_feed::place_of(uint32_t entry, const l2fib_mac_edm_entry_t &descriptor) const
{
    const bool on_dummy = (descriptor.flags & EDM_MAC_ON_DUMMY_PORT) != 0;
    fed_place place{.xcid = on_dummy ? EDM_XCID_DUMMY : descriptor.xcid, .bridge_id = descriptor.bridge_id};
    const port_key &on = context_.shadow.ports[context_.shadow.entries[entry].port].key;
    if (on.kind == link_kind::vxlan) {
        const auto [vni, source_vni] = vnis_of(entry);
        place.is_tunnel = true;
        place.has_own_vni = vni != on.vni || source_vni != 0;
        place.vtep = vtep_of(descriptor);
        place.vni = vni;
    }
    return place;
}

void cache_feed::note_fed(uint32_t entry, const l2fib_mac_edm_entry_t &descriptor, const fed_place &place)
{
    feed_record &record = context_.records[entry];
    const uint8_t variant = variant_of(descriptor);
    const bool is_new = !record.is_fed;
    if (is_new || record.fed_variant != variant) {
        record.created = ++last_created_ & feed_record::max_created;
    }
    record.fed_variant = variant & 3U;
    places_.set(entry, place, place.has_own_vni ? vnis_of(entry) : entry_vnis{});
    counters_.count(entry, descriptor.flags);
    limit_.note_present(entry);
    if (is_new) {
        limit_.feed_rest_of_flood_list(entry);
    }
}

entry_vnis cache_feed::vnis_of(uint32_t entry) const
{
    const entry_terms *tunnel = tunnel_terms_of(context_.shadow, entry);
    const uint32_t source_vni = tunnel != nullptr ? tunnel->source_vni : 0;
    const uint32_t sent_with = tunnel != nullptr && tunnel->destination.vni != 0 ? tunnel->destination.vni : source_vni;
    const uint32_t port_vni = context_.shadow.ports[context_.shadow.entries[entry].port].key.vni;
    return {sent_with != 0 ? sent_with : port_vni, source_vni};
}

// ---- Out of the cache ----

// Returns another entry of the shadow table that has the same place in the cache, or no_slot. The destinations of a
// flood list share a place.
uint32_t cache_feed::sharing_entry(uint32_t entry) const
{
    const shadow_table &shadow = context_.shadow;
    const fed_place &place = context_.records.place(entry);
    const uint32_t port = objects_.find_port(place.xcid);
    if (port == no_slot || shadow.ports[port].key.kind != link_kind::vxlan) {
        return no_slot;
    }
    uint32_t other = shadow.first_of_group(shadow.find_group(shadow.ports[port].key, shadow.entries[entry].mac));
    for (; other != no_slot; other = shadow.next_of_group(other)) {
        const fed_place &of_other = context_.records.place(other);
        if (other != entry && context_.records[other].is_fed && of_other.xcid == place.xcid
            && of_other.bridge_id == place.bridge_id) {
            return other;
        }
    }
    return no_slot;
}

void cache_feed::withdraw(uint32_t entry)
{
    if (!context_.records[entry].is_fed) {
        return;
    }
    const fed_place &place = context_.records.place(entry);
    const uint32_t sharing = sharing_entry(entry);
    if (sharing == no_slot) {
        l2fm_edm_table_mac_destroy(cached_entry(place.bridge_id, place.xcid, context_.shadow.entries[entry].mac));
    } else {
        // The place may show this entry's destination; feeding the other one replaces it.
        counters_.follow_standing(sharing);
        queue_.add(sharing);
    }
    places_.end(entry);
}

} // namespace forwarding
