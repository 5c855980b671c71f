// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/feed_record.h"

namespace forwarding {

uint32_t hash_of(const fed_place &place)
{
    const uint64_t hash = mix(0, place.xcid | (uint64_t{place.vtep} << 32));
    const uint64_t bits = (place.is_tunnel ? 1U : 0U) ^ (place.has_own_vni ? 2U : 0U) ^ place.flags ^ place.ext_flags;
    return fold(mix(hash, place.vni | (uint64_t{place.bridge_id} << 32) | (bits << 48)));
}

void feed_records::clear(uint32_t entry)
{
    if (const uint32_t place = records_[entry].place; place != no_slot) {
        places_.leave(place);
    }
    records_[entry] = {};
}

void feed_records::set_place(uint32_t entry, const fed_place &place)
{
    feed_record &record = records_[entry];
    if (record.place != no_slot && places_[record.place] == place) {
        return;
    }
    const uint32_t before = std::exchange(record.place, places_.join(place));
    if (before != no_slot) {
        places_.leave(before);
    }
}

} // namespace forwarding
