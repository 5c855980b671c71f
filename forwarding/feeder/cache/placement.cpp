// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/cache/placement.h"

#include "forwarding/feeder/cache/cached.h"

namespace forwarding {

void placement::set(uint32_t entry, const fed_place &place, const entry_vnis &vnis)
{
    const mac_address &mac = context_.shadow.entries[entry].mac;
    if (place.has_own_vni) {
        ends_.show_vnis(place, mac, vnis);
    } else if (place.is_tunnel) {
        ends_.show_port_vni(place, mac);
    }
    feed_record &record = context_.records[entry];
    const fed_place before = record.is_fed ? context_.records.place(entry) : fed_place{};
    if (before == place) {
        return;
    }
    ends_.use(place);
    counters_.move(entry, place);
    record.is_fed = true;
    leave(before, mac, before.vtep == place.vtep);
}

void placement::end(uint32_t entry)
{
    feed_record &record = context_.records[entry];
    if (record.is_fed) {
        leave(context_.records.place(entry), context_.shadow.entries[entry].mac, false);
        record.is_fed = false;
    }
}

// Ends an entry's use of its tunnel end point. By itself the table keeps a tunnel end point until a sweep, so the last
// use destroys it. If `keeps_row`, the VNIs of the row stay, because a newer feed has just set them.
void placement::leave(const fed_place &place, const mac_address &mac, bool keeps_row)
{
    if (!place.is_tunnel) {
        return;
    }
    if (place.has_own_vni && !keeps_row) {
        ends_.show_port_vni(place, mac);
    }
    if (ends_.leave(place)) {
        destroy_cached_vtep(place.xcid, place.vtep);
    }
}

} // namespace forwarding
