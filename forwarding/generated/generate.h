// SPDX-License-Identifier: Apache-2.0

// This room is the plane of a generated fabric, for demonstration and load: bridges with ports, a VXLAN device on each,
// and addresses on them that move, age out and come back. It needs no privilege.
//
// The seed decides everything: equal options give equal tables, and equal changes in the same order.
//
// Threads: as in plane.h.
//
// Example:
//
//      fabric_options options;
//      if (const base::result parsed = parse_fabric("bridges=10,churn=1000/s", options); parsed.ok()) {
//          const auto plane = make_generated_plane(options);
//      }
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "forwarding/plane.h"

namespace forwarding {

struct fabric_options {
    uint32_t bridges = 4;
    uint32_t ports = 8;   // of each bridge, without its VXLAN device
    uint32_t macs = 2000; // learned and static ones of all bridges, without the addresses of ports and bridges
    uint32_t vteps = 8;   // of each VXLAN device; 0: no VXLAN devices
    uint32_t churn = 0;   // changes a second
    uint32_t seed = 1;
};

// Reads a text such as "bridges=10,ports=32,macs=100000,vteps=64,churn=1000/s,seed=1". `options` keeps its value of
// each item that is left out. A failure names the item and what was expected.
base::result parse_fabric(std::string_view text, fabric_options &options);

// `options` are within the limits that parse_fabric checks.
std::unique_ptr<plane> make_generated_plane(const fabric_options &options);

} // namespace forwarding
