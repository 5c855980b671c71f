// MAC entries as `bridge -j fdb show` prints them, so that scripts written for the one read the other.
//
// The kernel keeps an address behind a VXLAN tunnel twice, in the bridge and in the VXLAN device; so both are made from
// the one entry here. Receive filters, which are no forwarding entries, have no counterpart.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <unordered_map>
#include <vector>

namespace l2fibctl {

using bridge_names = std::unordered_map<uint64_t, std::string>; // by bridge id

std::vector<nlohmann::json> bridge_form(const nlohmann::json &entry, const bridge_names &bridges);

} // namespace l2fibctl
