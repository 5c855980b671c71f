// SPDX-License-Identifier: Apache-2.0

// What the feeder keeps for each entry of the shadow table: where the cache holds it, how it is counted, and in which
// queues it waits. A record has the slot number of its entry.
//
//      feed_records records;
//      records.reach(entry);                           // once the shadow table has reported the entry
//      records[entry].is_fed = true;
//      records.set_place(entry, {.xcid = 7, .bridge_id = 1});
//      records.place(entry).xcid                       // 7
//      records.clear(entry);                           // before the slot goes back to the shadow table
//
// Many entries share a place, so a record holds the number of its place only.
//
// Threads: the cache thread, without a lock. Running out of memory throws std::bad_alloc.
#pragma once

#include <cstdint>

#include "forwarding/mapping.h"
#include "forwarding/slots.h"

namespace forwarding {

// Where and how the cache holds entries: what a row of the table shows beside the address and its age.
struct fed_place {
    uint32_t xcid = 0; // 0: no place
    uint16_t bridge_id = 0;
    bool is_tunnel = false;   // on a VXLAN port; otherwise `vtep` and `vni` are 0
    bool has_own_vni = false; // sends with another VNI than its port, or has a source VNI
    uint32_t vtep = 0;        // in host byte order, so that numbers sort as addresses do; 0: none
    uint32_t vni = 0;
    uint16_t flags = 0;     // EDM_MAC_ bits, without EDM_MAC_TIMESTAMP_VALID
    uint16_t ext_flags = 0; // EDM_MAC_EXT_ bits

    bool operator==(const fed_place &) const = default;
};

uint32_t hash_of(const fed_place &place);

struct feed_record {
    // 100,000 creations a second use these up in five years.
    static constexpr unsigned created_bits = 44;
    static constexpr uint64_t max_created = (uint64_t{1} << created_bits) - 1;

    // Its number in the order in which the cache took entries at their present places.
    uint64_t created : created_bits = 0;
    uint64_t standing_bits : 4 = 0;
    uint64_t foreign : 3 = 0;        // destination kind under which the health report counts it
    uint64_t counted_as : 3 = 0;     // the counter at its place to which it adds (counters.h); 0: none
    uint64_t fed_variant : 2 = 0;    // the flags that choose the variant of its record in the cache
    uint64_t is_fed : 1 = 0;         // the cache holds it, at its place
    uint64_t is_dirty : 1 = 0;       // waits in the queue of changes
    uint64_t is_contested : 1 = 0;   // came and went within 50 ms, so that two reports may be in the wrong order
    uint64_t was_alive : 1 = 0;      // whether it was alive when the shadow table last reported it as touched
    uint64_t is_surely_gone : 1 = 0; // it is certain that the plane no longer holds it
    uint64_t is_in_doubt : 1 = 0;    // waits in the queue of questions to the plane
    uint64_t is_missing : 1 = 0;     // the cache should hold it and does not
    uint64_t has_aged : 1 = 0;       // the plane reported it gone, and its ageing time had passed
    uint32_t touched_ms = 0;         // time of the last report, steady clock in ms, low 32 bits; 0: none yet
    uint32_t place = no_slot;        // see feed_records; it stays after a withdrawal until the next feed

    standing now() const { return static_cast<standing>(standing_bits); }
};

static_assert(sizeof(feed_record) == 16, "a million of these exist");
static_assert(static_cast<uint8_t>(standing::count) <= 16);

class feed_records {
public:
    // Makes the record of an entry reachable. A new record is empty.
    void reach(uint32_t entry) { records_.reach(entry); }
    // Empties a record and gives its place back.
    void clear(uint32_t entry);

    feed_record &operator[](uint32_t entry) { return records_[entry]; }
    const feed_record &operator[](uint32_t entry) const { return records_[entry]; }

    // The place at which the cache holds the entry or held it last; an empty place if it never did. The reference is
    // valid until the next set_place or clear.
    const fed_place &place(uint32_t entry) const
    {
        static constexpr fed_place none;
        const uint32_t place = records_[entry].place;
        return place != no_slot ? places_[place] : none;
    }
    void set_place(uint32_t entry, const fed_place &place);

private:
    slot_records<feed_record> records_;
    shared_values<fed_place> places_;
};

} // namespace forwarding
