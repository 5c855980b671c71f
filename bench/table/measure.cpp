// SPDX-License-Identifier: Apache-2.0

#include "bench/table/measure.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <numeric>
#include <random>

namespace bench {

namespace {

constexpr double quiet_factor = 1.15; // of the fastest probe

// A ring through memory that no second-level cache holds, in random order.
std::vector<uint32_t> make_ring()
{
    constexpr size_t ring_size = size_t{4} << 20; // of four bytes each
    std::vector<uint32_t> order(ring_size);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    std::vector<uint32_t> ring(ring_size);
    for (size_t i = 0; i < ring_size; i++) {
        ring[order[i]] = order[(i + 1) % ring_size];
    }
    return ring;
}

uint32_t spin(uint32_t value)
{
    constexpr int rounds = 100'000;
    for (int i = 0; i < rounds; i++) {
        value = value * 1664525U + 1013904223U;
    }
    return value;
}

uint32_t chase(uint32_t at)
{
    constexpr int accesses = 2'000;
    static const std::vector<uint32_t> ring = make_ring();
    for (int i = 0; i < accesses; i++) {
        at = ring[at];
    }
    return at;
}

} // namespace

double thread_nanoseconds()
{
    constexpr double nanoseconds = 1e9;
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * nanoseconds + static_cast<double>(now.tv_nsec);
}

double probe()
{
    static volatile uint32_t value = 0;
    static uint32_t at = 0;
    chase(at); // the first call makes the ring
    const auto start = std::chrono::steady_clock::now();
    value = spin(value);
    at = chase(at);
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

summary summarize(const std::vector<sample> &samples, double fastest_probe)
{
    std::vector<double> values;
    size_t quiet = 0;
    for (const sample &each : samples) {
        values.push_back(each.value);
        quiet += each.slowest_probe <= quiet_factor * fastest_probe ? 1U : 0U;
    }
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return {*middle, samples.size(), quiet};
}

} // namespace bench
