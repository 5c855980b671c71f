// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/history/creation_times.h"

#include <algorithm>

namespace forwarding {
namespace {

constexpr int64_t resolution_ms = 1000;
constexpr size_t max_points = 65'536;
// Points lie apart by at least this part of the time that has passed since. That leaves 51,000 points for ten years of
// creations: 4,096 of the latest 4,096 seconds, and 4,096 for each factor of e of the time before.
constexpr int64_t precision = 4096;

} // namespace

void creation_times::begin(uint64_t number)
{
    begun_at_ = number;
    has_begun_ = true;
}

void creation_times::add(uint64_t number, int64_t now_ms)
{
    if (points_.size() == max_points) {
        thin(now_ms);
    }
    points_.push_back({number, now_ms});
    next_ms_ = now_ms + resolution_ms;
}

// Keeps the first point, and of the others those that are far enough behind the latest one kept.
void creation_times::thin(int64_t now_ms)
{
    int64_t kept_ms = points_.front().time_ms;
    const auto is_close = [&](const point &each) {
        if (each.time_ms >= kept_ms && each.time_ms - kept_ms < (now_ms - each.time_ms) / precision) {
            return true;
        }
        kept_ms = each.time_ms;
        return false;
    };
    points_.erase(std::remove_if(points_.begin() + 1, points_.end(), is_close), points_.end());
    if (points_.size() > max_points * 7 / 8) {
        size_t at = 0;
        std::erase_if(points_, [&at](const point &) { return at++ % 2 != 0; });
    }
}

int64_t creation_times::at(uint64_t number) const
{
    const auto behind = std::ranges::upper_bound(points_, number, {}, &point::number);
    return number > begun_at_ && behind != points_.begin() ? (behind - 1)->time_ms : 0;
}

} // namespace forwarding
