// SPDX-License-Identifier: Apache-2.0

// The trace points since a moment that a test chooses.
#pragma once

#include <array>
#include <vector>

#include "host/trace/trace_reader.h"

namespace test {

// By ring: the sequence number of the first point that counts.
inline std::array<uint64_t, 2> first_trace = {1, 1};

// Leaves out all points until now.
inline void skip_traces()
{
    for (const auto ring : {host::trace_ring::normal, host::trace_ring::error}) {
        first_trace[static_cast<size_t>(ring)] = host::trace_newest(ring) + 1;
    }
}

inline std::vector<host::trace_point> new_traces(host::trace_ring ring)
{
    std::vector<host::trace_point> points(host::trace_ring_size);
    points.resize(host::trace_read(ring, first_trace[static_cast<size_t>(ring)], points).count);
    return points;
}

} // namespace test
