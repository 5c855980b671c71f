// SPDX-License-Identifier: Apache-2.0

// What the rows of the benchmark feed and ask: random unicast addresses over the bridge domains and ports of a layout.
// The same layout and count always give the same descriptors, in the same order.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "l2fib_mac_edm.h"

namespace bench {

using entry = l2fib_mac_edm_entry_t;
using entries = std::span<const entry>;

struct layout {
    uint16_t domains;
    uint32_t ports; // of each bridge domain
};

inline constexpr layout main_layout = {10, 32};
inline constexpr layout one_domain = {1, 32};
inline constexpr layout wide_domain = {1, 1000};
inline constexpr layout layout_of_steps = {1, 256};

constexpr bool operator==(const layout &first, const layout &second)
{
    return first.domains == second.domains && first.ports == second.ports;
}

// The xcids of bridge domain 7 begin with 7000.
inline constexpr uint32_t xcids_of_domain = 1000;

constexpr uint32_t xcid_of(uint32_t domain, uint32_t port)
{
    return domain * xcids_of_domain + port;
}

// Of the first byte of an address. No fed address has it, so an address with this bit flipped is absent.
inline constexpr uint8_t multicast_bit = 1;

// The address as a number in the order of its bytes on the wire. Two loads: a copy of six bytes to memory would delay
// the load of the whole number.
inline uint64_t address_of(const uint8_t *bytes)
{
    constexpr uint32_t low_bits = 16;
    uint32_t high = 0;
    uint16_t low = 0;
    std::memcpy(&high, bytes, sizeof(high));
    std::memcpy(&low, bytes + sizeof(high), sizeof(low));
    return uint64_t{__builtin_bswap32(high)} << low_bits | __builtin_bswap16(low);
}

inline std::string name_of(uint32_t domain)
{
    return "bench:bd" + std::to_string(domain);
}

// What one population of the table consists of.
struct work {
    layout over;
    std::vector<entry> fed;      // in the order of their creation
    std::vector<entry> shuffled; // the same entries in another order
    std::vector<entry> absent;   // `shuffled` with addresses that are absent
};

work make_work(layout over, size_t count);

// Returns every tenth entry of `of`, on another port of its bridge domain.
std::vector<entry> moved_entries(const work &of);

} // namespace bench
