// SPDX-License-Identifier: Apache-2.0

// Reads the system's clocks in nanoseconds.
#pragma once

#include <cstdint>
#include <time.h>

namespace host {

inline constexpr uint64_t ns_per_second = 1'000'000'000;

inline uint64_t clock_ns(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * ns_per_second + static_cast<uint64_t>(now.tv_nsec);
}

} // namespace host
