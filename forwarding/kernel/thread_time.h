// SPDX-License-Identifier: Apache-2.0

// The processor time of the calling thread, in nanoseconds. The kernel answers netlink requests on the thread that
// sends or reads them, so its work is included.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <ctime>

namespace forwarding {

inline int64_t thread_time_ns()
{
    constexpr int64_t ns_per_second = 1'000'000'000;
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return ns_per_second * now.tv_sec + now.tv_nsec;
}

} // namespace forwarding
