// SPDX-License-Identifier: Apache-2.0

// Looks into the module's table, files entries in it and takes them out, for the parts of the feeder. The functions
// know nothing of the shadow table.
//
// Threads: the cache thread, with the table lock held.
#pragma once

#include <cstdint>
#include <optional>

#include "forwarding/plane.h"
#include "l2fib_mac_edm.h"
#include "l2fm_edm_table.h"

namespace forwarding {

// Returns the entry of an address on a port, or null. `xcid` may be EDM_XCID_DUMMY.
l2fm_edm_mac_t *cached_entry(uint32_t bridge_id, uint32_t xcid, const mac_address &mac) L2FIB_REQUIRES_TABLE_LOCK;

// Returns how many entries the cache holds.
uint32_t cached_entries() L2FIB_REQUIRES_TABLE_LOCK;

// Files an entry in the cache. `is_of_device` says that it is a VXLAN device's own entry. Returns 0, or the status with
// which the module refused it.
uint32_t file_in_cache(const l2fib_mac_edm_entry_t &entry, bool is_of_device) L2FIB_REQUIRES_TABLE_LOCK;

// Destroys the tunnel end point of a port, if the cache holds it. `address` is in host byte order.
void destroy_cached_vtep(uint32_t xcid, uint32_t address) L2FIB_REQUIRES_TABLE_LOCK;

// The entry that a full cache evicts next.
struct newest_entry {
    uint32_t xcid;
    uint16_t bridge_id;
    mac_address mac;
    uint32_t total; // entries in the cache
};

// Returns the last entry of the cache's list, which is the newest one. Returns no value if the list is empty.
std::optional<newest_entry> newest_in_cache() L2FIB_REQUIRES_TABLE_LOCK;

} // namespace forwarding
