// SPDX-License-Identifier: Apache-2.0

// The reading side of the trace facility, and the main header of this room. The module records trace points
// (platform/trace.h); the hosting process reads them here and shows them to an operator.
//
//      std::vector<host::trace_point> points(100);
//      const host::trace_batch batch = host::trace_read(host::trace_ring::error, next, points);
//      for (size_t i = 0; i < batch.count; i++) {
//          show(host::trace_format(points[i]));
//      }
//      next = batch.next;
//
// The id of a point decides which of two rings receives it: the normal ring receives milestones, the error ring
// everything else. So a storm of errors does not overwrite the milestones. Each ring numbers its points from 1 without
// a gap, and keeps the newest `trace_ring_size` points. Example with a size of 4, after six points:
//
//      place             0   1   2   3
//      sequence number   4   5   6   3      trace_read from 1: 2 points overwritten, then 3, 4, 5, 6
//
// The debug context exists from the moment the library is loaded, because a process may use the module's table without
// starting the module.
//
// Threads: any. A writer waits for a reader while the reader copies at most 64 points.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/trace.h"

namespace host {

enum class trace_ring : uint8_t { normal, error };

inline constexpr size_t trace_ring_count = 2;
inline constexpr size_t trace_ring_size = 8192; // points

struct trace_point {
    uint64_t sequence;    // in its ring
    uint64_t time_ns;     // wall time, since 1970
    const char *function; // static storage
    uint32_t id;
    uint32_t thread_id; // as the kernel numbers threads
    uint32_t value_count;
    uint64_t values[EDM_TRACE_MAX_VALUES];
};

// The result of a read.
struct trace_batch {
    size_t count;         // points copied
    uint64_t overwritten; // points that the reader missed before these
    uint64_t next;        // where to read on
};

// Copies the points of a ring from the sequence number `from` on, oldest first, until `points` is full.
L2FIB_EXPORT trace_batch trace_read(trace_ring ring, uint64_t from, std::span<trace_point> points);

// Returns the sequence number of a ring's newest point; 0 if the ring is empty.
L2FIB_EXPORT uint64_t trace_newest(trace_ring ring);

// Formats a point as one line: time, thread, id, function, what happened, the values with their meaning.
L2FIB_EXPORT std::string trace_format(const trace_point &point);

} // namespace host
