// SPDX-License-Identifier: Apache-2.0

// A fabric that exists nowhere: bridges with ports, a VXLAN device each, addresses that are learned on them, and a
// churn of addresses that move, age out and come back. For demonstration and load; it needs no privilege.
//
// A seed decides everything: the same options give the same tables, and the same changes in the same order.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "forwarding/plane.h"

namespace forwarding {

struct fabric_options {
    uint32_t bridges = 4;
    uint32_t ports = 8;   // of each bridge, its VXLAN device not counted
    uint32_t macs = 2000; // over all bridges, the addresses of the ports and bridges not counted
    uint32_t vteps = 8;   // behind each VXLAN device; 0: no VXLAN devices
    uint32_t churn = 0;   // changes a second
    uint32_t seed = 1;
};

// Reads a text such as "bridges=10,ports=32,macs=100000,vteps=64,churn=1000/s,seed=1"; what is left out has its
// default. Returns nothing, or what is wrong and what was expected.
std::string parse_fabric(std::string_view text, fabric_options &options);

class generated_plane : public plane {
public:
    // Makes `changes` changes now; the churn does so by itself.
    virtual void churn(uint32_t changes) = 0;
};

std::unique_ptr<generated_plane> make_generated_plane(const fabric_options &options);

} // namespace forwarding
