// SPDX-License-Identifier: Apache-2.0

// The places that kept events and moves name, each with its names of one moment. Records hold the number of a place,
// because many share one.
//
//      place_book book([](const fed_place &place) { ... return view; });
//      const uint32_t place = book.join(fed);      // one more user of the place; describes it if it is new
//      book[place]->port                           // "eth1"
//      book.leave(place);                          // one user less
//      book.begin_naming();                        // something has another name now: describe places again
//
// Threads: no lock; the owner has one. The views may be shared with any thread, because they never change.
#pragma once

#include <functional>
#include <memory>

#include "forwarding/feeder/answers/history.h"
#include "forwarding/feeder/feed_record.h"

namespace forwarding {

// Describes a place with the names that its bridge domain and port have now.
using place_describer = std::function<place_view(const fed_place &place)>;

class place_book {
public:
    explicit place_book(place_describer describe)
        : describe_(std::move(describe))
    {}

    // Throws std::bad_alloc without a change if memory runs out.
    uint32_t join(const fed_place &place);
    // One more user of a place that has one.
    void share(uint32_t slot) { keys_.share(slot); }
    void leave(uint32_t slot) { keys_.leave(slot); }
    void begin_naming() { naming_++; }

    const std::shared_ptr<const place_view> &operator[](uint32_t slot) const { return views_[slot].view; }

private:
    // A place within the time between two changes of names.
    struct key {
        uint32_t xcid;
        uint16_t bridge_id;
        uint32_t vtep;
        uint32_t vni;
        uint32_t naming;
        bool operator==(const key &) const = default;
        friend uint32_t hash_of(const key &of)
        {
            const uint64_t hash = mix(0, of.xcid | (uint64_t{of.vtep} << 32));
            return fold(mix(mix(hash, of.bridge_id | (uint64_t{of.vni} << 32)), of.naming));
        }
    };

    struct described {
        key of = {};
        std::shared_ptr<const place_view> view; // kept without users, until another place gets the slot
    };

    place_describer describe_;
    shared_values<key> keys_;
    slot_records<described> views_;
    uint32_t naming_ = 0;
};

} // namespace forwarding
