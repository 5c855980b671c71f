// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/history/creation_times.h"

#include <algorithm>

namespace forwarding {
namespace {

constexpr int64_t resolution_ms = 1000;
constexpr size_t max_points = 65'536;
// Times of the last hour stay exact. Before, a time may be too early by this part of the time that has passed since.
// Two points in a row then span at least that part, so ten years of creations leave 51,000 points: 3,600 of the last
// hour, and twice 2,048 for each factor of e of the time before.
constexpr int64_t exact_ms = int64_t{3600} * 1000;
constexpr int64_t precision = 2048;
constexpr size_t max_thinned = max_points / 8 * 7;

// True if a point that is followed by one of `next_ms` may go, and `kept_ms` stand for it.
bool may_stand_for(int64_t kept_ms, int64_t next_ms, int64_t now_ms)
{
    const int64_t age_ms = now_ms - next_ms;
    return age_ms > exact_ms && next_ms >= kept_ms && next_ms - kept_ms < age_ms / precision;
}

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

void creation_times::thin(int64_t now_ms)
{
    size_t kept = 0;
    for (size_t at = 1; at < points_.size(); at++) {
        const int64_t next_ms = at + 1 < points_.size() ? points_[at + 1].time_ms : now_ms;
        if (!may_stand_for(points_[kept].time_ms, next_ms, now_ms)) {
            points_[++kept] = points_[at];
        }
    }
    points_.resize(kept + 1);
    if (points_.size() > max_thinned) {
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
