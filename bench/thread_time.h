// SPDX-License-Identifier: Apache-2.0

// Time that a thread runs on a processor. On a machine with other work, wall-clock time measures that work too.
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

// Runs `pass` as one iteration of a benchmark with manual time.
template <typename Pass>
void measure(benchmark::State &state, Pass pass)
{
    const double start = thread_seconds();
    pass();
    state.SetIterationTime(thread_seconds() - start);
}

} // namespace bench
