// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/context.h"

#include <chrono>
#include <cstdlib>
#include <ctime>

namespace forwarding {
namespace {

// How far the offset between the system's clock and the steady clock may drift before the feeder adopts the new value.
// The two clocks are read one after the other, so each reading gives a slightly different offset. Without a tolerance
// the displayed time of an untouched entry would jump back and forth by a second.
constexpr int64_t clock_tolerance_ms = 500;

} // namespace

void feed_context::follow_clock()
{
    using namespace std::chrono;
    const auto epoch = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    const auto steady = duration_cast<milliseconds>(steady_clock::now().time_since_epoch());
    const int64_t offset_ms = (epoch - steady).count();
    if (std::abs(offset_ms - epoch_offset_ms) > clock_tolerance_ms) {
        epoch_offset_ms = offset_ms;
    }
}

void feed_context::report(severity how_bad, const std::string &text) const
{
    if (settings.report != nullptr) {
        settings.report(how_bad, text);
    }
}

uint32_t coarse_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint32_t>(now.tv_sec * 1000 + now.tv_nsec / 1'000'000);
}

std::string count_of_ies(uint64_t count, const char *what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "y" : "ies");
}

} // namespace forwarding
