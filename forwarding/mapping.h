// SPDX-License-Identifier: Apache-2.0

// Conversion of the kernel's terms to the module's: flags, descriptors and names. Ids are handed out by
// feeder/objects/ids.h.
//
//      kernel                      module
//      bridge, VLAN                bridge id, full name
//      port, VLAN, VNI             xcid, cross-connect with its first segment
//      entry                       descriptor, or the reason why the entry is not fed
//
// Nothing is stored here; the feeder stores ids and names in the shadow table.
//
// Threads: the functions only read their arguments. The caller keeps the shadow table unchanged meanwhile, which the
// feeder's thread does by itself.
#pragma once

#include <string>
#include <string_view>

#include "forwarding/shadow_table.h"
#include "host/objects/l2fib_objects.h"
#include "l2fib_mac_edm.h"

namespace forwarding {

// ---- Names ----

inline constexpr size_t max_group_name = 32;  // characters of a full name's first part
inline constexpr size_t max_bridge_name = 27; // characters of its second part

// Returns false for characters that would break an item key: separators, white space and control characters.
bool name_can_carry(char character);

// Returns the second part of a full name. Characters that a name cannot carry become "_". The bridge's name is cut so
// that the part has at most max_bridge_name characters. `vlan` is the VLAN of a VLAN-aware bridge, or 0.
//
//      "br 0", 12 -> "br_0.12"
std::string bridge_domain_part(std::string_view bridge, uint16_t vlan);

// ---- Ports ----

// Returns the cross-connect of a port, with its first segment: a VXLAN segment, a tunnel, or an interface.
host::cross_connect cross_connect_of(const shadow_port &port);

// ---- Entries ----

// Whether an entry of the shadow table is fed, joined with another one, or left out, and why.
enum class standing : uint8_t {
    none, // no longer an entry
    fed,
    joined,         // a VXLAN device's own entry, fed together with the bridge's entry for the same address
    of_flood_list,  // another destination of an address that is fed already
    unpaired,       // a VXLAN device's own entry for an address that its bridge does not hold there
    receive_filter, // the own entry of a device that is not VXLAN
    without_bridge, // its VXLAN device is in no bridge
    without_name,   // its bridge is not reported yet, or could not be named
    without_id,     // its bridge domain or port has no id, or could not be stored
    count,
};

// Returns the text for the health report; null for standings that need no report.
const char *text_of(standing standing);

// Returns the standing of an entry. Builds its descriptor if it is `fed` or `of_flood_list`: the feeder also feeds the
// latter, for its destination. `epoch_offset_ms` is the time since the epoch minus the steady clock.
standing describe(const shadow_table &shadow, uint32_t entry, int64_t epoch_offset_ms,
                  l2fib_mac_edm_entry_t &descriptor);

// As describe, without a descriptor.
standing standing_of(const shadow_table &shadow, uint32_t entry);

// Returns the EDM_MAC_ bits that an entry gets, without those of its destination and time.
uint16_t flags_of(const shadow_table &shadow, uint32_t entry);

// Returns the destination to which an entry is sent; its kind is `none` if there is none.
const fdb_destination &destination_of(const shadow_table &shadow, uint32_t entry);

// Returns the terms of the device's own entry by which an entry on a VXLAN device is sent; null if only the bridge
// holds the address.
const entry_terms *tunnel_terms_of(const shadow_table &shadow, uint32_t entry);

} // namespace forwarding
