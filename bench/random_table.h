// SPDX-License-Identifier: Apache-2.0

// The table of the benchmarks: random unicast addresses over 10 bridge domains with 32 ports each.
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

// Returns the xcid of a port of a bridge domain; `port` counts from 0. The ports of bridge domain 7 are 7000 to 7031.
inline uint32_t xcid_of(uint32_t bridge_id, uint32_t port)
{
    constexpr uint32_t xcids_of_bd = 1000;
    return bridge_id * xcids_of_bd + port;
}

// Returns `count` descriptors, always the same ones.
inline std::vector<l2fib_mac_edm_entry_t> make_entries(size_t count)
{
    std::mt19937_64 random(1);
    std::vector<l2fib_mac_edm_entry_t> entries(count);
    for (l2fib_mac_edm_entry_t &entry : entries) {
        const uint64_t bits = random() & ~uint64_t{1}; // the lowest bit of the first byte is clear: unicast
        entry.bridge_id = static_cast<uint16_t>(1 + random() % bridge_domains);
        entry.xcid = xcid_of(entry.bridge_id, static_cast<uint32_t>(random() % ports_of_bd));
        std::memcpy(entry.mac_addr, &bits, sizeof(entry.mac_addr));
    }
    return entries;
}

inline std::string domain_name(uint16_t bridge_id)
{
    return "bench:bd" + std::to_string(bridge_id);
}

// Creates the forwarding manager's objects for the bridge domains and ports.
inline void create_objects()
{
    for (uint16_t bridge_id = 1; bridge_id <= bridge_domains; bridge_id++) {
        host::bridge_domain_set(bridge_id, domain_name(bridge_id));
        for (uint32_t port = 0; port < ports_of_bd; port++) {
            host::cross_connect values;
            values.first.type = L2FIB_SEGMENT_INTERFACE;
            values.first.interface_handle = xcid_of(bridge_id, port);
            host::cross_connect_set(xcid_of(bridge_id, port), values);
        }
    }
}

} // namespace bench
