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
                       cache_limit &room, change_queue &queue, history &past)
    : context_(context)
    , objects_(objects)
    , counters_(counters)
    , places_(places)
    , limit_(room)
    , queue_(queue)
    , history_(past)
{}

// ---- Settling ----

void cache_feed::settle(uint32_t entry)
{
    l2fib_mac_edm_entry_t descriptor;
    const step planned = plan(entry, descriptor);
    settle_alone(planned, descriptor);
}

void cache_feed::settle_queued(std::span<const uint32_t> entries)
{
    batch_.step_count = batch_.descriptor_count = 0;
    for (const uint32_t entry : entries) {
        l2fib_mac_edm_entry_t &descriptor = batch_.descriptors[batch_.descriptor_count];
        const step next = plan(entry, descriptor);
        if (joins_batch(next, descriptor)) {
            batch_.steps[batch_.step_count++] = next;
            batch_.descriptor_count += is_fed_by(next.now) ? 1U : 0U;
            continue;
        }
        settle_batch();
        settle_alone(next, descriptor);
        queue_.settled();
    }
    settle_batch();
}

cache_feed::step cache_feed::plan(uint32_t entry, l2fib_mac_edm_entry_t &descriptor) const
{
    const standing now = describe(context_.shadow, entry, context_.epoch_offset_ms, descriptor);
    return {entry, now, context_.records[entry].is_fed != 0,
            is_fed_by(now) ? place_of(entry, descriptor) : fed_place{}};
}

bool cache_feed::joins_batch(const step &next, const l2fib_mac_edm_entry_t &descriptor) const
{
    if (!is_fed_by(next.now)) {
        return !next.was_fed && next.now != standing::none;
    }
    return (!next.was_fed || context_.records.place(next.entry) == next.place)
           && (descriptor.flags & EDM_MAC_ON_DUMMY_PORT) == 0 && !context_.shadow.terms_of(next.entry).self
           && limit_.has_room_for(batch_.descriptor_count + 1);
}

void cache_feed::settle_batch()
{
    std::array<uint32_t, max_batch> statuses;
    l2fib_mac_edm_add_batch(batch_.descriptors.data(), batch_.descriptor_count, statuses.data());
    feeds_ += batch_.descriptor_count;
    size_t fed = 0;
    for (size_t at = 0; at < batch_.step_count; at++) {
        const step &settled = batch_.steps[at];
        if (is_fed_by(settled.now)) {
            note_status(settled, batch_.descriptors[fed], statuses[fed]);
            if (!settled.was_fed && statuses[fed] == 0) {
                history_.follow_new(settled.entry, settled.place);
            }
            fed++;
        } else {
            keep_out(settled);
        }
        context_.records[settled.entry].is_dirty = false;
        queue_.settled();
    }
    batch_.step_count = batch_.descriptor_count = 0;
}

void cache_feed::settle_alone(const step &planned, const l2fib_mac_edm_entry_t &descriptor)
{
    const held_entry before = history_.held(planned.entry);
    if (is_fed_by(planned.now)) {
        feed(planned, descriptor);
    } else {
        withdraw(planned.entry);
        keep_out(planned);
    }
    history_.follow(planned.entry, before);
    context_.records[planned.entry].is_dirty = false;
    if (planned.now == standing::none) {
        context_.records.clear(planned.entry);
        context_.shadow.release(planned.entry);
    }
}

// Notes that the cache does not hold an entry, and need not.
void cache_feed::keep_out(const step &planned)
{
    counters_.count(planned.entry, 0);
    limit_.note_present(planned.entry);
}

void cache_feed::feed_renamed(uint32_t domain)
{
    for (const uint32_t port : context_.shadow.domains[domain].ports) {
        context_.shadow.for_each_entry_of_port(port, [&](uint32_t entry) {
            const table_hold hold;
            if (context_.records[entry].is_fed) {
                feed_renamed_entry(entry);
            }
        });
    }
}

// The entry keeps its number of creation, because nothing but the name has changed.
void cache_feed::feed_renamed_entry(uint32_t entry)
{
    const held_entry before = history_.held(entry);
    feed_record &record = context_.records[entry];
    places_.end(entry);
    l2fib_mac_edm_entry_t descriptor;
    if (const step planned = plan(entry, descriptor); is_fed_by(planned.now)) {
        feed(planned, descriptor);
        const bool is_back = record.is_fed && context_.records.place(entry) == before.place;
        record.created = (is_back ? before.created : record.created) & feed_record::max_created;
    } else {
        counters_.count(entry, 0);
    }
    history_.follow(entry, before);
}

// ---- Into the cache ----

void cache_feed::feed(const step &planned, const l2fib_mac_edm_entry_t &descriptor)
{
    const auto &[entry, now, was_fed, place] = planned;
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
    note_status(planned, descriptor, status);
}

void cache_feed::note_status(const step &planned, const l2fib_mac_edm_entry_t &descriptor, uint32_t status)
{
    if (status != 0) {
        limit_.note_refusal(planned.entry, planned.place, descriptor.flags);
    } else {
        note_fed(planned.entry, descriptor, planned.place);
    }
}

fed_place cache_feed::place_of(uint32_t entry, const l2fib_mac_edm_entry_t &descriptor) const
{
    const bool on_dummy = (descriptor.flags & EDM_MAC_ON_DUMMY_PORT) != 0;
    fed_place place{.xcid = on_dummy ? EDM_XCID_DUMMY : descriptor.xcid,
                    .bridge_id = descriptor.bridge_id,
                    .flags = static_cast<uint16_t>(descriptor.flags & ~EDM_MAC_TIMESTAMP_VALID),
                    .ext_flags = descriptor.ext_flags};
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
    if (is_new || record.fed_variant != variant || context_.records.place(entry).vtep != place.vtep) {
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
