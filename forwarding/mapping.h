// SPDX-License-Identifier: Apache-2.0

// How the kernel's terms become the module's: flags, descriptors and names. Ids: ids.h.
//
//      bridge interface, VLAN      bridge id, full name
//      port interface, VLAN, VNI   xcid, cross-connect with its first segment
//      entry                       descriptor, or the reason why there is none
//
// Pure: what is stored where is the feeder's.
#pragma once

#include <string>
#include <string_view>

#include "forwarding/table_copy.h"
#include "host/objects/l2fib_objects.h"
#include "l2fib_mac_edm.h"

namespace forwarding {

// ---- Names ----

inline constexpr size_t max_group_name = 32;
inline constexpr size_t max_bridge_name = 27; // the second part of a full name

// What the keys of items can carry.
bool name_can_carry(char character);

// The second part of a full name; what cannot be carried becomes "_", and the part is cut to max_bridge_name.
// `vlan` is 0 or the VLAN of a VLAN-aware bridge.
std::string bridge_domain_part(std::string_view bridge, uint16_t vlan);

// ---- Ports ----

host::cross_connect cross_connect_of(const copy_port &port);

// ---- Entries ----

// What an entry of the copy is to the cache.
enum class standing : uint8_t {
    none, // it has gone
    fed,
    joined,         // a VXLAN device's own entry that is told with the bridge's
    of_flood_list,  // another destination of an address that is told already
    unpaired,       // a VXLAN device's own entry for an address that its bridge does not hold there
    receive_filter, // a device's own entry, and the device is not VXLAN
    without_bridge, // of a VXLAN device that is in no bridge
    without_name,   // its bridge has not been told, or could not be named
    without_id,     // of a bridge domain or port that has no id, or could not be stored
    count,
};

// For the health report; null for those that are nothing to report.
const char *text_of(standing standing);

// Builds the descriptor of an entry. It is built for `fed` and `of_flood_list`, which is fed, too, for its destination.
// `epoch_offset_ms` is what the steady clock lacks to the time since the epoch.
standing describe(const table_copy &copy, uint32_t entry, int64_t epoch_offset_ms, l2fib_mac_edm_entry_t &descriptor);

// As describe, without building.
standing standing_of(const table_copy &copy, uint32_t entry);

// What an entry on a VXLAN device sends by: the device's own record, or null when only the bridge knows the address.
const fdb_record *tunnel_record_of(const table_copy &copy, uint32_t entry);

// The EDM_MAC_ bits that an entry has for itself.
uint16_t flags_of(const fdb_record &record);

} // namespace forwarding
