// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/history/place_book.h"

namespace forwarding {

uint32_t place_book::join(const fed_place &place)
{
    const key of{place.xcid, place.bridge_id, place.vtep, place.vni, naming_};
    const uint32_t slot = keys_.join(of);
    try {
        views_.reach(slot);
        described &found = views_[slot];
        if (found.view == nullptr || found.of != of) {
            found = {of, std::make_shared<const place_view>(describe_(place))};
        }
    } catch (...) {
        keys_.leave(slot);
        throw;
    }
    return slot;
}

} // namespace forwarding
