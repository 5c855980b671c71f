// SPDX-License-Identifier: Apache-2.0

#include "platform/trace.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

#include <unistd.h>

#include "host/clock.h"
#include "host/never_destroyed.h"
#include "host/trace/trace_catalogue.h"
#include "host/trace/trace_reader.h"

struct l2fib_debug_ctx {};

namespace {

using host::trace_ring;
using host::trace_ring_size;

constexpr size_t known_ids = EDM_TRACE_ID_LAST - EDM_TRACE_ID_FIRST + 1;
constexpr size_t id_slots = known_ids + 1; // the last one for ids out of range
constexpr size_t ring_count = 2;
constexpr size_t copied_under_lock = 64;

constexpr size_t slot_of(uint32_t id)
{
    const bool known = id >= EDM_TRACE_ID_FIRST && id <= EDM_TRACE_ID_LAST;
    return known ? id - EDM_TRACE_ID_FIRST : known_ids;
}

constexpr auto ring_by_slot = [] {
    std::array<trace_ring, id_slots> rings{};
    rings.fill(trace_ring::error);
    for (const host::trace_entry &entry : host::trace_catalogue) {
        rings[slot_of(entry.id)] = entry.ring;
    }
    return rings;
}();

struct id_state {
    uint64_t count;
    uint64_t newest; // sequence number; 0: none
};

struct point_ring {
    std::mutex lock; // guards everything here
    std::condition_variable arrived;
    uint32_t waiters = 0;
    uint64_t newest = 0; // sequence number; its point lies at this index modulo the size
    id_state ids[id_slots] = {};
    host::trace_point points[trace_ring_size];
};

l2fib_debug_ctx_t context;
std::atomic<l2fib_debug_ctx_t *> current_context{&context};

point_ring &ring_at(trace_ring ring)
{
    static host::never_destroyed<std::array<point_ring, ring_count>> rings;
    return rings.object[static_cast<size_t>(ring)];
}

uint32_t my_thread_id()
{
    thread_local const auto id = static_cast<uint32_t>(gettid());
    return id;
}

// Files the point and gives it its sequence number.
void append(point_ring &ring, const host::trace_point &point)
{
    const std::scoped_lock hold(ring.lock);
    ring.newest++;
    host::trace_point &place = ring.points[ring.newest % trace_ring_size];
    place = point;
    place.sequence = ring.newest;
    id_state &state = ring.ids[slot_of(point.id)];
    state.count++;
    state.newest = ring.newest;
    if (ring.waiters != 0) {
        ring.arrived.notify_all();
    }
}

// Copies what one hold of the lock allows, continuing `batch`. False when nothing is left to copy.
bool copy_some(point_ring &ring, host::trace_batch &batch, std::span<host::trace_point> room)
{
    const std::scoped_lock hold(ring.lock);
    const uint64_t oldest = ring.newest < trace_ring_size ? 1 : ring.newest - trace_ring_size + 1;
    if (batch.next < oldest) {
        batch.overwritten += oldest - batch.next;
        batch.next = oldest;
    }
    size_t copied = 0;
    while (copied < room.size() && copied < copied_under_lock && batch.next <= ring.newest) {
        room[copied++] = ring.points[batch.next++ % trace_ring_size];
    }
    batch.count += copied;
    return copied != 0;
}

void clear(point_ring &ring)
{
    const std::scoped_lock hold(ring.lock);
    ring.newest = 0;
    std::ranges::fill(ring.ids, id_state{});
}

} // namespace

l2fib_debug_ctx_t *l2fib_debug_get_ctx(void)
{
    return current_context.load(std::memory_order_relaxed);
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

void trace_enable(bool on)
{
    current_context.store(on ? &context : nullptr, std::memory_order_relaxed);
}

trace_ring trace_ring_of(uint32_t id)
{
    return ring_by_slot[slot_of(id)];
}

trace_batch trace_read(trace_ring ring, uint64_t from, std::span<trace_point> points)
{
    trace_batch batch{0, 0, std::max<uint64_t>(from, 1)};
    while (copy_some(ring_at(ring), batch, points.subspan(batch.count))) {}
    return batch;
}

uint64_t trace_newest(trace_ring ring)
{
    point_ring &state = ring_at(ring);
    const std::scoped_lock hold(state.lock);
    return state.newest;
}

uint64_t trace_count(uint32_t id)
{
    point_ring &ring = ring_at(trace_ring_of(id));
    const std::scoped_lock hold(ring.lock);
    return ring.ids[slot_of(id)].count;
}

uint64_t trace_wait(uint32_t id, uint64_t after, std::chrono::milliseconds timeout)
{
    point_ring &ring = ring_at(trace_ring_of(id));
    const id_state &state = ring.ids[slot_of(id)];
    std::unique_lock hold(ring.lock);
    ring.waiters++;
    const bool there = ring.arrived.wait_for(hold, timeout, [&] { return state.newest > after; });
    ring.waiters--;
    return there ? state.newest : 0;
}

void trace_reset()
{
    clear(ring_at(trace_ring::normal));
    clear(ring_at(trace_ring::error));
}

} // namespace host
