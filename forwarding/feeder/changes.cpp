// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/changes.h"

#include <algorithm>
#include <span>
#include <vector>

#include "forwarding/feeder/cache/table_hold.h"

namespace forwarding {
namespace {

// Entries that the thread settles before it looks at other events.
constexpr size_t slice_size = 2048;
static_assert(slice_size % query_batch == 0);
// The kernel's ages are in hundredths of a second, and coarse_ms lags.
constexpr uint32_t clock_lag_ms = 50;
// Entries that one refill tries at most, because it holds the table lock meanwhile.
constexpr size_t refill_size = 512;

} // namespace

changes::changes(feed_context &context, entry_counters &counters, change_queue &queue, cache_feed &cache,
                 cache_limit &room, numbering &ids, doubt &questions, condition &answers, history &past)
    : context_(context)
    , counters_(counters)
    , queue_(queue)
    , cache_(cache)
    , limit_(room)
    , ids_(ids)
    , doubt_(questions)
    , condition_(answers)
    , history_(past)
{}

// ---- Reports ----

// Decides whether the entry has aged: only the report of its end says when its address was last seen. If the ageing
// time has passed, it has most probably not been removed for another reason.
void changes::gone(uint32_t entry, const fdb_record &record)
{
    const shadow_link *bridge = context_.shadow.find_link(record.master);
    const uint32_t ageing_ms = bridge != nullptr ? bridge->record.ageing_ms : 0;
    const uint32_t unseen_ms = coarse_ms() - static_cast<uint32_t>(record.updated_ms);
    context_.records[entry].has_aged = record.updated_ms > 0 && ageing_ms != 0 && entry_ages(context_.shadow, entry)
                                       && unseen_ms <= INT32_MAX && unseen_ms + clock_lag_ms >= ageing_ms;
}

void changes::touched(uint32_t entry)
{
    context_.records.reach(entry);
    doubt_.follow_report(entry);
    if (context_.records[entry].is_dirty) {
        queue_.note_merged();
    }
    affected(entry);
}

void changes::affected(uint32_t entry)
{
    counters_.follow_standing(entry);
    queue_.add(entry);
}

// Records the time even though nothing changed. If a removal is reported soon after, the two reports may be in the
// wrong order (doubt::follow_report). Ages are fed only if the plane reports them all; the others are asked for when an
// answer shows them.
void changes::confirmed(uint32_t entry, bool has_aged)
{
    context_.records[entry].touched_ms = coarse_ms();
    if (has_aged && !context_.source.ages_silently()) {
        affected(entry);
    }
}

// ---- The queue ----

void changes::flush()
{
    queue_.flush_begun();
    if (queue_.awaits_removal()) {
        return;
    }
    context_.follow_clock();
    for (size_t done = 0; done < slice_size && queue_.size() != 0;) {
        done += settle_slice();
    }
    if (queue_.size() != 0) {
        queue_.flush_again();
    } else {
        settle_everything(); // the queue is settled: refill, serve ids, publish counters
    }
}

bool changes::settle_everything()
{
    if (queue_.awaits_removal()) {
        return false;
    }
    settle_queue();
    history_.forget_ended();
    ids_.follow();
    if (queue_.size() != 0) {
        settle_queue();
    }
    ids_.end_shortage();
    history_.follow_settled(condition_.has_full_dump(), !doubt_.is_degraded(), cache_.last_created());
    publish();
    condition_.follow();
    return true;
}

void changes::settle_queue()
{
    do {
        while (queue_.size() != 0) {
            settle_slice();
        }
        queue_.clear();
        refill();
    } while (queue_.size() != 0); // refill queues the other destinations of a flood list that found room
}

// Asks the plane about questionable entries of the next query_batch, then settles them all. Returns how many it
// settled.
size_t changes::settle_slice()
{
    std::vector<uint32_t> slice(std::min(queue_.size(), query_batch));
    for (size_t at = 0; at < slice.size(); at++) {
        slice[at] = queue_[at];
    }
    doubt_.ask_before_settling(slice);
    for (size_t begin = 0; begin < slice.size(); begin += cache_feed::max_batch) {
        const size_t size = std::min(cache_feed::max_batch, slice.size() - begin);
        const table_hold hold;
        cache_.settle_queued(std::span(slice).subspan(begin, size));
    }
    history_.publish();
    return slice.size();
}

// Feeds entries that found no room before, the one that waits longest first. It stops when the cache is full or refuses
// one. If more entries could be fed, the next flush continues.
void changes::refill()
{
    if (!limit_.has_unfed()) {
        return;
    }
    const table_hold hold;
    const uint64_t refused = limit_.refused();
    for (size_t tries = 0; tries < refill_size && limit_.has_unfed() && !limit_.cache_is_full(); tries++) {
        const uint32_t entry = limit_.take_unfed();
        const feed_record &record = context_.records[entry];
        if (context_.shadow.entries[entry].alive && record.is_missing && !record.is_dirty) {
            cache_.settle(entry);
        }
        if (record.is_missing) {
            limit_.put_unfed(entry);
        }
        if (limit_.refused() != refused) {
            return;
        }
    }
    if (limit_.has_unfed() && !limit_.cache_is_full()) {
        queue_.flush_again();
    }
}

// ---- Gauges ----

void changes::publish()
{
    entries_ = context_.shadow.living;
    links_ = context_.shadow.known_links;
    unchanged_ = context_.shadow.unchanged;
}

void changes::add_to(health_view &view) const
{
    view.links = links_;
    view.entries = entries_;
    view.events_merged = queue_.merged() + unchanged_;
    view.feeds = cache_.feeds();
}

} // namespace forwarding
