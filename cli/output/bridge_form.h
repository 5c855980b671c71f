// SPDX-License-Identifier: Apache-2.0

// Entries as `bridge -j fdb show` prints them, so that scripts written for the one read the other.
//
// The kernel keeps an address behind a VXLAN tunnel twice: in the bridge, which the MAC table is about, and in the
// VXLAN device. Receive filters are not forwarding entries and have no counterpart.
//
// Threads: pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "cli/query/json.h"

namespace l2fibctl {

using bridge_names = std::unordered_map<uint64_t, std::string>; // by bridge id

// The bridge's entry as JSON, from a MAC entry. Empty when the bridge has none: a zero address is a device's flood
// list.
std::string bridge_entry_of(const json_value &mac_entry, const bridge_names &bridges);

// The VXLAN device's own entry as JSON, from a tunnel entry.
std::string device_entry_of(const json_value &tunnel_entry);

} // namespace l2fibctl
