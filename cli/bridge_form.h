// Entries as `bridge -j fdb show` prints them, so that scripts written for the one read the other.
//
// The kernel keeps an address behind a VXLAN tunnel twice: in the bridge, which the MAC table is about, and in the
// VXLAN device. Receive filters, which are no forwarding entries, have no counterpart.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <unordered_map>

namespace l2fibctl {

using bridge_names = std::unordered_map<uint64_t, std::string>; // by bridge id

// The bridge's entry, from a MAC entry; null when the bridge has none: a zero address is a device's flood list.
nlohmann::json bridge_entry_of(const nlohmann::json &mac_entry, const bridge_names &bridges);

// The device's own entry.
nlohmann::json device_entry_of(const nlohmann::json &tunnel_entry);

} // namespace l2fibctl
