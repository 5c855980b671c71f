// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/history/move_log.h"

#include <bit>
#include <cstring>

namespace forwarding {

size_t move_log::bucket_of(const mac_address &mac) const
{
    uint64_t number = 0;
    std::memcpy(&number, mac.data(), mac.size());
    return fold(mix(0, number)) & (buckets_.size() - 1);
}

void move_log::reserve()
{
    if (buckets_.empty()) {
        buckets_.resize(std::bit_floor(ring_.limit()));
    }
    ring_.reserve();
}

void move_log::add(kept_move move)
{
    uint64_t &latest = buckets_[bucket_of(move.mac)];
    const uint64_t distance = latest != 0 ? ring_.newest() + 1 - latest : 0;
    move.chain = distance < ring_.limit() ? static_cast<uint32_t>(distance) : 0;
    latest = ring_.add(move);
}

uint64_t move_log::latest_of(const mac_address &mac, uint64_t before) const
{
    uint64_t number = buckets_.empty() ? 0 : first_of_chain(bucket_of(mac), before);
    while (number != 0 && (number >= before || ring_[number].mac != mac)) {
        number = next_of_chain(number);
    }
    return number;
}

// The first number of a chain from which a search below `before` needs to begin. A reader of many records passes the
// last one that it read, so the search continues there.
uint64_t move_log::first_of_chain(size_t bucket, uint64_t before) const
{
    const bool is_kept = before >= ring_.oldest() && before <= ring_.newest();
    if (is_kept && bucket_of(ring_[before].mac) == bucket) {
        return before;
    }
    return buckets_[bucket] >= ring_.oldest() ? buckets_[bucket] : 0;
}

uint64_t move_log::next_of_chain(uint64_t number) const
{
    const uint32_t chain = ring_[number].chain;
    return chain != 0 && number - chain >= ring_.oldest() ? number - chain : 0;
}

} // namespace forwarding
