// SPDX-License-Identifier: Apache-2.0

// The table that benchmarks work on: random unicast addresses over 10 bridge domains of 32 ports.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "host/objects/l2fib_objects.h"
#include "l2fib_mac_edm.h"

namespace bench {

inline constexpr uint16_t bridge_domains = 10;
inline constexpr uint32_t ports_of_bd = 32;

// An entry of a bridge domain is on one of the ports 1000 times its id and following.
inline std::vector<l2fib_mac_edm_entry_t> make_entries(size_t count)
{
    std::mt19937_64 random(1);
    std::vector<l2fib_mac_edm_entry_t> entries(count);
    for (l2fib_mac_edm_entry_t &entry : entries) {
        const uint64_t bits = random() & ~uint64_t{1}; // unicast
        entry.bridge_id = static_cast<uint16_t>(1 + random() % bridge_domains);
        entry.xcid = static_cast<uint32_t>(entry.bridge_id * uint64_t{1000} + random() % ports_of_bd);
        std::memcpy(entry.mac_addr, &bits, sizeof(entry.mac_addr));
    }
    return entries;
}

inline std::string domain_name(uint16_t bridge_id)
{
    return "bench:bd" + std::to_string(bridge_id);
}

inline void create_objects()
{
    for (uint16_t bridge_id = 1; bridge_id <= bridge_domains; bridge_id++) {
        host::bridge_domain_set(bridge_id, domain_name(bridge_id));
        for (uint32_t port = 0; port < ports_of_bd; port++) {
            host::cross_connect values;
            values.first.type = L2FIB_SEGMENT_INTERFACE;
            values.first.interface_handle = bridge_id * 1000u + port;
            host::cross_connect_set(bridge_id * 1000u + port, values);
        }
    }
}

} // namespace bench
