// SPDX-License-Identifier: Apache-2.0

// Time on the processor: on a machine that others use, the time on the wall says little.
#pragma once

#include <benchmark/benchmark.h>

#include <ctime>

namespace bench {

inline double thread_seconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Makes one pass of some work an iteration of a benchmark with manual time.
template <typename Pass>
void measure(benchmark::State &state, Pass pass)
{
    const double start = thread_seconds();
    pass();
    state.SetIterationTime(thread_seconds() - start);
}

} // namespace bench
