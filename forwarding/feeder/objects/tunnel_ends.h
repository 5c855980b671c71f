// SPDX-License-Identifier: Apache-2.0

// The tunnel end points that fed entries use, and the VNIs of rows that show other VNIs than their port's.
//
// The table keeps a tunnel end point until a sweep. So the feeder counts the entries that use one, and the caller
// destroys it in the table after its last use.
//
//      tunnel_ends ends;
//      ends.use(place, mac, vnis);                     // after the feed
//      if (ends.leave(place, mac, false)) { ... }      // true: destroy the tunnel end point of place.vtep
//
// Threads: the cache thread changes it; any thread reads it. It has a lock of its own, under which nothing else is
// taken. The table lock may be held around it.
#pragma once

#include <map>
#include <vector>

#include "base/mutex.h"
#include "forwarding/feeder/answers/reading.h"
#include "forwarding/feeder/feed_record.h"

namespace forwarding {

// The VNIs with which an entry on a VXLAN port sends and receives.
struct entry_vnis {
    uint32_t vni = 0;
    uint32_t source_vni = 0; // external devices
};

class tunnel_ends {
public:
    // Counts one more use of a place's tunnel end point.
    void use(const fed_place &place);
    // Ends a use. Returns true if no entry uses the tunnel end point any more, whatever the VNI.
    bool leave(const fed_place &place);

    // Sets the VNIs that the row of an address shows instead of its port's. The row shows the destination that was fed
    // last. Destinations of one flood list may share a tunnel end point and differ in the VNI, so each feed sets them.
    void show_vnis(const fed_place &place, const mac_address &mac, const entry_vnis &vnis);
    // The row shows its port's VNI.
    void show_port_vni(const fed_place &place, const mac_address &mac);

    // ---- Any thread ----

    // Returns up to `max_ends` tunnel end points that come after `after`.
    std::vector<vtep_view> list(const vtep_view &after, uint32_t max_ends) const;
    // Sets the VNIs of rows of VXLAN ports: the entry's own, or its port's. Rows that have a VNI keep it.
    void add_vnis(std::vector<mac_row> &rows) const;

private:
    // A tunnel end point with the VNI with which an entry sends to it.
    struct vtep_use {
        uint32_t xcid;
        uint32_t address; // host byte order
        uint32_t vni;
        auto operator<=>(const vtep_use &) const = default;
    };

    struct vtep_users {
        uint32_t count = 0; // entries that use it
        uint16_t bridge_id = 0;
    };

    // Place of a row that shows VNIs of its own instead of its port's.
    struct row_place {
        uint32_t xcid;
        uint32_t vtep; // host byte order; 0: none
        mac_address mac;
        auto operator<=>(const row_place &) const = default;
    };

    mutable base::mutex mutex_;
    std::map<vtep_use, vtep_users> vteps_ L2FIB_GUARDED_BY(mutex_);
    std::map<row_place, entry_vnis> own_vnis_ L2FIB_GUARDED_BY(mutex_);
};

} // namespace forwarding
