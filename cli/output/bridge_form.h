// SPDX-License-Identifier: Apache-2.0

// Entries in the form of `bridge -j fdb show`, so that a script for that command can read ours.
//
// The kernel keeps an address behind a VXLAN tunnel twice, and so does this form:
//
//      {"mac":"02:...:01","ifname":"vxlan7","flags":[],"master":"br0","state":""}            the bridge's entry
//      {"mac":"02:...:01","ifname":"vxlan7","dst":"192.0.2.1","flags":["self"],"state":""}   the VXLAN device's entry
//
// The first comes from the MAC table, the second from the tunnel entries. Receive filters are not forwarding entries
// and have no counterpart here.
//
// Threads: pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "cli/query/json.h"

namespace l2fibctl {

using bridge_names = std::unordered_map<uint64_t, std::string>; // by bridge id

// Returns the bridge's entry as JSON. Returns an empty text for the zero address: it stands for a VXLAN device's flood
// list, which the bridge does not have.
std::string bridge_entry_of(json_value mac_entry, const bridge_names &bridges);

// Returns the VXLAN device's own entry as JSON.
std::string device_entry_of(json_value tunnel_entry);

} // namespace l2fibctl
