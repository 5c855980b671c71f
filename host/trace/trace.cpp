// SPDX-License-Identifier: Apache-2.0

#include "platform/trace.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/mutex.h"
#include "host/clock.h"
#include "host/never_destroyed.h"
#include "host/trace/trace_catalogue.h"
#include "host/trace/trace_reader.h"

struct l2fib_debug_ctx {};

namespace {

using host::trace_ring;
using host::trace_ring_size;

// A reader holds the lock of a ring for at most this many points, because writers wait for it.
constexpr size_t max_copied_per_hold = 64;

struct point_ring {
    base::mutex lock;
    uint64_t newest L2FIB_GUARDED_BY(lock) = 0; // sequence number; point n lies at n modulo the size
    std::array<host::trace_point, trace_ring_size> points L2FIB_GUARDED_BY(lock);
};

l2fib_debug_ctx_t context;

point_ring &ring_at(trace_ring ring)
{
    static host::never_destroyed<std::array<point_ring, host::trace_ring_count>> rings;
    return rings.object[static_cast<size_t>(ring)];
}

uint32_t my_thread_id()
{
    thread_local const auto id = static_cast<uint32_t>(gettid());
    return id;
}

// Stores the point under the next sequence number.
void append(point_ring &ring, const host::trace_point &point)
{
    const base::scoped_lock hold(ring.lock);
    ring.newest++;
    host::trace_point &place = ring.points[ring.newest % trace_ring_size];
    place = point;
    place.sequence = ring.newest;
}

// Continues `batch` by the points of one hold of the lock. False if there was none left to copy.
bool copy_some(point_ring &ring, host::trace_batch &batch, std::span<host::trace_point> room)
{
    const base::scoped_lock hold(ring.lock);
    const uint64_t oldest = ring.newest < trace_ring_size ? 1 : ring.newest - trace_ring_size + 1;
    if (batch.next < oldest) {
        batch.overwritten += oldest - batch.next;
        batch.next = oldest;
    }
    size_t copied = 0;
    while (copied < room.size() && copied < max_copied_per_hold && batch.next <= ring.newest) {
        room[copied++] = ring.points[batch.next++ % trace_ring_size];
    }
    batch.count += copied;
    return copied != 0;
}

} // namespace

l2fib_debug_ctx_t *l2fib_debug_get_ctx(void)
{
    return &context;
}

void edm_trace_point(l2fib_debug_ctx_t *ctx, uint32_t id, const char *function, const uint64_t *values,
                     uint32_t value_count)
{
    if (ctx == nullptr) {
        return;
    }
    host::trace_point point{};
    point.time_ns = host::clock_ns(CLOCK_REALTIME);
    point.function = function;
    point.id = id;
    point.thread_id = my_thread_id();
    point.value_count = values == nullptr ? 0 : std::min(value_count, EDM_TRACE_MAX_VALUES);
    std::copy_n(values, point.value_count, point.values);
    append(ring_at(host::trace_ring_of(id)), point);
}

namespace host {

trace_batch trace_read(trace_ring ring, uint64_t from, std::span<trace_point> points)
{
    trace_batch batch{0, 0, std::max<uint64_t>(from, 1)};
    while (copy_some(ring_at(ring), batch, points.subspan(batch.count))) {}
    return batch;
}

uint64_t trace_newest(trace_ring ring)
{
    point_ring &state = ring_at(ring);
    const base::scoped_lock hold(state.lock);
    return state.newest;
}

} // namespace host
