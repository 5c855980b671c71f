// SPDX-License-Identifier: Apache-2.0

// Counts durations by size, for the metrics: how long requests and resyncs took.
//
//      duration_histogram waits;
//      waits.add(std::chrono::milliseconds(7));
//      waits.read().counts[2]                      // 1: above 0.003 s, and at most 0.01 s
//
// Threads: any thread may call every function. There is no lock: each counter is right by itself, and a reading may
// lack a part of a duration that is added meanwhile.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace l2fibd {

struct duration_bound {
    std::chrono::milliseconds at_most;
    std::string_view text; // in seconds, as the metrics show it
};

// Two bounds for each decade, because each bound costs a series for each resource.
inline constexpr duration_bound duration_bounds[] = {
    {std::chrono::milliseconds(1), "0.001"},    {std::chrono::milliseconds(3), "0.003"},
    {std::chrono::milliseconds(10), "0.01"},    {std::chrono::milliseconds(30), "0.03"},
    {std::chrono::milliseconds(100), "0.1"},    {std::chrono::milliseconds(300), "0.3"},
    {std::chrono::milliseconds(1000), "1.0"},   {std::chrono::milliseconds(3000), "3.0"},
    {std::chrono::milliseconds(10000), "10.0"},
};

class duration_histogram {
public:
    struct reading {
        // By bound, each duration in one of them; the last one counts durations above all bounds.
        std::array<uint64_t, std::size(duration_bounds) + 1> counts = {};
        std::chrono::nanoseconds sum{0};
    };

    void add(std::chrono::nanoseconds duration)
    {
        size_t at = 0;
        while (at < std::size(duration_bounds) && duration > duration_bounds[at].at_most) {
            at++;
        }
        counts_[at].fetch_add(1, std::memory_order_relaxed);
        sum_ns_.fetch_add(duration.count(), std::memory_order_relaxed);
    }

    reading read() const
    {
        reading now;
        for (size_t at = 0; at < counts_.size(); at++) {
            now.counts[at] = counts_[at].load(std::memory_order_relaxed);
        }
        now.sum = std::chrono::nanoseconds(sum_ns_.load(std::memory_order_relaxed));
        return now;
    }

private:
    std::array<std::atomic<uint64_t>, std::size(duration_bounds) + 1> counts_ = {};
    std::atomic<int64_t> sum_ns_{0};
};

} // namespace l2fibd
