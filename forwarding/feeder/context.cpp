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

int64_t ms_of(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

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
    return static_cast<uint32_t>(ms_of(CLOCK_MONOTONIC_COARSE));
}

int64_t epoch_ms()
{
    return ms_of(CLOCK_REALTIME_COARSE);
}

bool entry_ages(const shadow_table &shadow, uint32_t entry)
{
    const shadow_entry &of = shadow.entries[entry];
    return (of.state & (fdb_permanent | fdb_noarp)) == 0 && (of.flags & fdb_extern_learn) == 0 && of.updated_ms > 0
           && !shadow.terms_of(entry).self;
}

std::string count_of_ies(uint64_t count, const char *what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "y" : "ies");
}

} // namespace forwarding
