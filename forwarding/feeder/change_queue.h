// SPDX-License-Identifier: Apache-2.0

// The queue of entries to settle, the removals on their way, and when the next flush comes.
//
// A changed entry enters the queue once, however often it changes. 20 ms later the flush settles the queue (changes.h).
//
// Removals. Bridge domains and ports end by a notification, which travels through the cache thread's queue of events.
// Until the notification has arrived, nothing is settled and no resync is served. Otherwise the late notification could
// destroy what was fed after it.
//
// Threads: the cache thread. No lock is needed. Any thread may call merged().
#pragma once

#include <atomic>
#include <vector>

#include "forwarding/feeder/context.h"
#include "host/event/event_host.h"

namespace forwarding {

class change_queue {
public:
    explicit change_queue(feed_context &context)
        : context_(context)
    {}

    // Sets what a flush calls, and what the arrival of the last removal calls, each with its argument.
    void attach(host::event_work_fn flush, void *flusher, host::event_work_fn removals_arrived, void *waiter);

    // Queues an entry, unless it is queued already.
    void add(uint32_t entry);
    // Notes that an entry changed again before it was settled.
    void note_merged() { merged_++; }

    // The entries that are not settled yet, in the order in which they were added. Take them with `settled`.
    size_t size() const { return entries_.size() - settled_; }
    uint32_t operator[](size_t at) const { return entries_[settled_ + at]; }
    // The first entry is settled.
    void settled() { settled_++; }
    // All entries are settled: releases the memory of a long queue.
    void clear();

    // Schedules a flush after the batch time, if the queue is not empty.
    void flush_later();
    // Schedules a flush after the batch time in any case.
    void demand_flush();
    // Schedules the next flush behind the events that are already queued, so that they have their turn.
    void flush_again();
    // The flush calls it first.
    void flush_begun() { is_flush_expected_ = false; }
    // What demanded a flush has been done.
    void meet_demand() { is_flush_demanded_ = false; }

    // Call it right after the publication of a removal. The notification and the event that this function posts travel
    // through the same queue. So the event comes after the cache has handled the removal.
    void expect_removal();
    bool awaits_removal() const { return removals_ != 0; }

    // Changes overtaken by another one before the cache saw them.
    uint64_t merged() const { return merged_; }

private:
    void removal_arrived();

    feed_context &context_;
    host::event_work_fn flush_ = nullptr;
    void *flusher_ = nullptr;
    host::event_work_fn removals_arrived_ = nullptr;
    void *waiter_ = nullptr;
    std::vector<uint32_t> entries_;
    size_t settled_ = 0;             // entries at the front that are settled
    bool is_flush_expected_ = false; // a timer or an event will run the flush
    bool is_flush_demanded_ = false; // the flush has work to do even if the queue is empty
    uint32_t removals_ = 0;          // published, and not handled by the cache thread yet
    std::atomic<uint64_t> merged_{0};
};

} // namespace forwarding
