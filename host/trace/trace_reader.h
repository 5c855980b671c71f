// SPDX-License-Identifier: Apache-2.0

// The reading side of the trace facility: for the hosting process, which shows trace points to an operator, and for
// tests, which wait for them.
//
// Points go to one of two rings, by their id: milestones to the normal ring, everything else to the error ring, so that
// a storm of errors never pushes out what the process did before. Each ring numbers its points from 1 without a gap and
// keeps the newest `trace_ring_size`; a reader learns how many it has missed.
//
// The debug context exists from the moment the library is loaded, because the module's table may be used without its
// start-up. `trace_enable(false)` takes it away: points are dropped until it is given back.
//
// Threads: any. A writer waits for a reader while that copies at most 64 points.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/trace.h"

namespace host {

enum class trace_ring : uint8_t { normal, error };

inline constexpr size_t trace_ring_size = 8192;

struct trace_point {
    uint64_t sequence;    // in its ring
    uint64_t time_ns;     // wall time, since 1970
    const char *function; // static storage
    uint32_t id;
    uint32_t thread_id; // as the kernel numbers threads
    uint32_t value_count;
    uint64_t values[EDM_TRACE_MAX_VALUES];
};

// What a read gave: `count` points, after having missed `overwritten`; `next` is where to read on.
struct trace_batch {
    size_t count;
    uint64_t overwritten;
    uint64_t next;
};

L2FIB_EXPORT void trace_enable(bool on);

// The ring that receives an id; ids that nobody uses count as errors.
L2FIB_EXPORT trace_ring trace_ring_of(uint32_t id);

// Copies the points of a ring from the sequence number `from` on, oldest first, as many as `points` has room for.
L2FIB_EXPORT trace_batch trace_read(trace_ring ring, uint64_t from, std::span<trace_point> points);

// The sequence number of a ring's newest point; 0 when it has none.
L2FIB_EXPORT uint64_t trace_newest(trace_ring ring);

// How many points of an id there were since the start or the last reset, overwritten ones included; ids out of range
// are counted together.
L2FIB_EXPORT uint64_t trace_count(uint32_t id);

// Waits until there is, or was, a point of this id with a sequence number above `after`. Returns the newest one's
// number, or 0 at the time-out.
L2FIB_EXPORT uint64_t trace_wait(uint32_t id, uint64_t after, std::chrono::milliseconds timeout);

// The point in one line: time, thread, id, function, what happened, the values with their meaning.
L2FIB_EXPORT std::string trace_format(const trace_point &point);

// Empties both rings and starts numbers and counts anew: for tests between two cases.
L2FIB_EXPORT void trace_reset();

} // namespace host
