// SPDX-License-Identifier: Apache-2.0

// Time and the state of the machine.
//
// A pass is measured in processor time of its thread, so the time that other programs run in between does not count.
// They still slow it down, because they share caches and memory. The probe shows that: fixed work in registers and in
// memory, timed by the clock on the wall before and after each sample. A sample is quiet if no probe beside it took
// much longer than the fastest probe of the run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench {

// Processor time of the calling thread, in nanoseconds.
double thread_nanoseconds();

// How long the fixed work takes now, in nanoseconds.
double probe();

struct sample {
    double value;
    double slowest_probe; // of the two beside it
};

struct summary {
    double median;
    size_t samples;
    size_t quiet;
};

// `fastest_probe` is that of the whole run.
summary summarize(const std::vector<sample> &samples, double fastest_probe);

} // namespace bench
