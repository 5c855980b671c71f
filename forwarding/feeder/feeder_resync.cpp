// SPDX-License-Identifier: Apache-2.0

// Serves resyncs. The feeder settles the queue of changes first. It feeds a scope again only if the cache is not in
// step with the shadow table afterwards:
//
//      resync --> plane drains --> queue is settled --> in step? -- yes --> complete
//                                                           \-- no --> mark, feed, sweep --> complete
//
// Threads: the cache thread, without the table lock.
#include <utility>

#include "forwarding/feeder/feeder.h"
#include "forwarding/feeder/table_hold.h"
#include "host/event/event_host.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

// Status with which a resync completes.
constexpr uint32_t complete_clean = 0;
constexpr uint32_t complete_degraded = 1;

// ---- Mark and sweep by scope ----

void mark(const resync_scope &scope)
{
    switch (scope.type) {
    case EDM_RESYNC_BD: l2fib_mac_edm_mark_bd(scope.arg); break;
    case EDM_RESYNC_BP: l2fib_mac_edm_mark_bp(scope.arg); break;
    default: l2fib_mac_edm_mark_all(); break;
    }
}

void sweep(const resync_scope &scope)
{
    switch (scope.type) {
    case EDM_RESYNC_BD: l2fib_mac_edm_sweep_bd(scope.arg); break;
    case EDM_RESYNC_BP: l2fib_mac_edm_sweep_bp(scope.arg); break;
    default: l2fib_mac_edm_sweep_all(); break;
    }
}

} // namespace

void feeder::resync(const resync_scope &scope)
{
    plane_.drain();
    if (listed_ && removals_in_flight_ == 0) {
        serve(scope);
        return;
    }
    waiting_.push_back(scope);
    if (!waiting_timer_) {
        // Before a requester gives up waiting, the feeder answers it from the cache as it is.
        const auto give_up = [](void *cookie) {
            auto *self = static_cast<feeder *>(cookie);
            self->waiting_timer_ = false;
            for (const resync_scope &each : std::exchange(self->waiting_, {})) {
                self->serve(each);
            }
        };
        uint32_t timer = 0;
        const uint64_t delay_ns = uint64_t{settings_.wait_seconds} * 500'000'000u;
        waiting_timer_ = host::event_timer_attach(evm_, delay_ns, 0, give_up, this, &timer) == 0;
    }
}

void feeder::serve_waiting()
{
    if (listed_ && removals_in_flight_ == 0) {
        for (const resync_scope &scope : std::exchange(waiting_, {})) {
            serve(scope);
        }
    }
}

void feeder::serve(const resync_scope &scope)
{
    bring_up_to_date(scope);
    const bool is_proven = state() != completeness::degraded;
    resyncs_++;
    resyncs_degraded_ += is_proven ? 0 : 1;
    l2fib_mac_edm_resync_complete(is_proven ? complete_clean : complete_degraded);
}

void feeder::refresh_everything()
{
    plane_.drain();
    if (removals_in_flight_ == 0) {
        bring_up_to_date({EDM_RESYNC_ALL, 0});
    }
}

void feeder::bring_up_to_date(const resync_scope &scope)
{
    follow_clock();
    if (removals_in_flight_ != 0) {
        return; // the removal would destroy what is fed now; the requester gets the cache as it is
    }
    settle_everything();
    if (!cache_is_in_step()) {
        feed_again(scope);
    }
}

// Returns whether the cache holds as many entries as the feeder has counted. The numbers differ if a step failed
// because memory ran out, or if another caller changed the cache.
bool feeder::cache_is_in_step() const
{
    const table_hold hold;
    return l2fm_edm_table_mac_get_pool()->mac_cnt_total == counted_;
}

// Marks the scope, feeds its entries again and sweeps it. Entries that are not in the cache because it is full stay
// out.
void feeder::feed_again(const resync_scope &scope)
{
    full_feeds_++;
    mark(scope);
    for_each_entry(scope, [&](uint32_t at) {
        const table_hold hold;
        l2fib_mac_edm_entry_t descriptor;
        const standing now = describe(shadow_, at, epoch_offset_ms_, descriptor);
        if (shadow_.entries[at].fed_xcid != 0 && (now == standing::fed || now == standing::of_flood_list)) {
            feed(at, descriptor);
        }
    });
    sweep(scope);
}

} // namespace forwarding
