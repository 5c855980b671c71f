// SPDX-License-Identifier: Apache-2.0

#include "bench/table/work.h"

#include <algorithm>
#include <random>

namespace bench {

namespace {

std::vector<entry> random_entries(layout over, size_t count)
{
    std::mt19937_64 random(1);
    std::vector<entry> made(count);
    for (entry &each : made) {
        const uint64_t bits = random() & ~uint64_t{multicast_bit};
        each.bridge_id = static_cast<uint16_t>(1 + random() % over.domains);
        each.xcid = xcid_of(each.bridge_id, static_cast<uint32_t>(random() % over.ports));
        std::memcpy(each.mac_addr, &bits, sizeof(each.mac_addr));
    }
    return made;
}

} // namespace

work make_work(layout over, size_t count)
{
    work made = {over, random_entries(over, count), {}, {}};
    made.shuffled = made.fed;
    std::shuffle(made.shuffled.begin(), made.shuffled.end(), std::mt19937_64(2));
    made.absent = made.shuffled;
    for (entry &each : made.absent) {
        each.mac_addr[0] ^= multicast_bit;
    }
    return made;
}

std::vector<entry> moved_entries(const work &of)
{
    constexpr size_t distance = 10;
    std::vector<entry> moved;
    for (size_t i = 0; i < of.fed.size(); i += distance) {
        moved.push_back(of.fed[i]);
        const uint32_t port = moved.back().xcid % xcids_of_domain;
        moved.back().xcid = xcid_of(moved.back().bridge_id, (port + 1) % of.over.ports);
    }
    return moved;
}

} // namespace bench
