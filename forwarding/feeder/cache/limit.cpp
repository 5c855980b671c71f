// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/cache/limit.h"

namespace forwarding {
namespace {

// unfed_ is rebuilt when its length exceeds twice the number of missing entries by more than this. The spare keeps
// rebuilds rare, because each one visits every entry of the shadow table.
constexpr size_t spare_slots = 4096;

} // namespace

cache_limit::cache_limit(feed_context &context, registry &objects, entry_counters &counters, placement &places,
                         change_queue &queue, history &past)
    : context_(context)
    , objects_(objects)
    , counters_(counters)
    , places_(places)
    , queue_(queue)
    , history_(past)
{}

bool cache_limit::cache_is_full() const
{
    return cached_entries() >= context_.settings.mac_limit;
}

bool cache_limit::has_room_for(size_t entries) const
{
    return cached_entries() + entries <= context_.settings.mac_limit;
}

std::optional<newest_entry> cache_limit::newest_of_full_cache() const
{
    return cache_is_full() ? newest_in_cache() : std::nullopt;
}

// `before` was evicted in two cases:
//  - `fed` is the newest entry now, and the total is the same as before;
//  - the total has fallen: the cache evicted `before`, but did not create an entry for `fed`.
void cache_limit::note_eviction(const newest_entry &before, uint32_t fed, const fed_place &place)
{
    const std::optional<newest_entry> now = newest_of_full_cache();
    const bool was_created = now && now->xcid == place.xcid && now->bridge_id == place.bridge_id
                             && now->mac == context_.shadow.entries[fed].mac && now->total == before.total;
    const bool was_lost_for_nothing = cached_entries() < before.total;
    if (was_created || was_lost_for_nothing) {
        lose_evicted(before);
    }
}

// Finds the entries of the shadow table that the cache evicted with `victim`, and notes each as lost. The cache holds a
// flood list as one entry, so evicting it loses all its destinations.
void cache_limit::lose_evicted(const newest_entry &victim)
{
    const shadow_table &shadow = context_.shadow;
    evictions_++;
    const uint32_t port = objects_.find_port(victim.xcid);
    if (victim.mac == mac_address{} && port != no_slot) {
        uint32_t at = shadow.first_of_group(shadow.find_group(shadow.ports[port].key, victim.mac));
        for (; at != no_slot; at = shadow.next_of_group(at)) {
            evict(at, victim);
        }
        return;
    }
    const uint32_t domain = objects_.find_domain(victim.bridge_id);
    if (domain == no_slot) {
        return;
    }
    const shadow_domain &in = shadow.domains[domain];
    if (const uint32_t at = shadow.find({in.bridge, false, in.vlan, 0, victim.mac, {}}); at != no_slot) {
        evict(at, victim);
    }
}

// Notes an entry as evicted, if the cache held it at the place of `victim`.
void cache_limit::evict(uint32_t entry, const newest_entry &victim)
{
    if (!context_.records[entry].is_fed || context_.records.place(entry).xcid != victim.xcid) {
        return;
    }
    const held_entry before = history_.held(entry);
    places_.end(entry);
    lose(entry, 0);
    history_.follow(entry, before);
    objects_.lose(victim.bridge_id, victim.xcid, loss::evicted);
}

void cache_limit::note_refusal(uint32_t entry, const fed_place &place, uint16_t flags)
{
    objects_.refuse(refusal::feed);
    refused_++;
    lose(entry, flags);
    objects_.lose(place.bridge_id, place.xcid, loss::refused);
}

// Notes that the cache lacks an entry of the shadow table, and lists a living one to be fed again.
void cache_limit::lose(uint32_t entry, uint16_t flags)
{
    counters_.count(entry, flags);
    feed_record &record = context_.records[entry];
    if (context_.shadow.entries[entry].alive && !record.is_missing) {
        record.is_missing = true;
        limitations_ += missing_++ == 0 ? 1 : 0;
        unfed_.push_back(entry);
    }
    if (unfed_.size() > 2 * missing_ + spare_slots) {
        collect_unfed();
    }
}

void cache_limit::note_present(uint32_t entry)
{
    feed_record &record = context_.records[entry];
    if (record.is_missing) {
        record.is_missing = false;
        missing_--;
    }
}

void cache_limit::feed_rest_of_flood_list(uint32_t entry)
{
    if (missing_ == 0 || context_.shadow.entries[entry].mac != mac_address{}) {
        return;
    }
    uint32_t at = context_.shadow.first_of_group(context_.shadow.group_of(entry));
    for (; at != no_slot; at = context_.shadow.next_of_group(at)) {
        if (context_.records[at].is_missing) {
            counters_.follow_standing(at);
            queue_.add(at);
        }
    }
}

bool cache_limit::has_unfed()
{
    if (missing_ == 0) {
        unfed_.clear();
    }
    return !unfed_.empty();
}

uint32_t cache_limit::take_unfed()
{
    const uint32_t entry = unfed_.front();
    unfed_.pop_front();
    return entry;
}

// Rebuilds unfed_ from the missing entries. It drops the slots of entries that went, or that were fed, after they were
// listed.
void cache_limit::collect_unfed()
{
    unfed_.clear();
    context_.shadow.for_each_entry([&](uint32_t at) {
        if (context_.records[at].is_missing) {
            unfed_.push_back(at);
        }
    });
}

} // namespace forwarding
