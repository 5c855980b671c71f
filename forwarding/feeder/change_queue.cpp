// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/change_queue.h"

namespace forwarding {
namespace {

// How long a change waits, so that one flush settles it together with the changes that follow.
constexpr uint64_t batch_time_ns = 20'000'000;
// A queue that was longer gives its memory back when it is empty. A first full dump may queue millions of entries.
constexpr size_t kept_capacity = 65'536;

} // namespace

void change_queue::attach(host::event_work_fn flush, void *flusher, host::event_work_fn removals_arrived, void *waiter)
{
    flush_ = flush;
    flusher_ = flusher;
    removals_arrived_ = removals_arrived;
    waiter_ = waiter;
}

void change_queue::add(uint32_t entry)
{
    feed_record &record = context_.records[entry];
    if (!record.is_dirty) {
        entries_.push_back(entry);
        record.is_dirty = true;
        flush_later();
    }
}

void change_queue::clear()
{
    settled_ = 0;
    if (entries_.capacity() > kept_capacity) {
        entries_ = {};
    } else {
        entries_.clear();
    }
}

void change_queue::flush_later()
{
    if (!is_flush_expected_ && (size() != 0 || is_flush_demanded_)) {
        uint32_t timer = 0;
        is_flush_expected_ = host::event_timer_attach(context_.evm, batch_time_ns, 0, flush_, flusher_, &timer) == 0;
    }
}

void change_queue::demand_flush()
{
    is_flush_demanded_ = true;
    flush_later();
}

void change_queue::flush_again()
{
    is_flush_expected_ = is_flush_expected_ || host::event_post(context_.evm, flush_, nullptr, flusher_) == 0;
}

void change_queue::expect_removal()
{
    if (host::event_post(context_.evm, call<&change_queue::removal_arrived>, nullptr, this) == 0) {
        removals_++;
    }
}

void change_queue::removal_arrived()
{
    if (--removals_ == 0) {
        flush_later();
        removals_arrived_(waiter_);
    }
}

} // namespace forwarding
