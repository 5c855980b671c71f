// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/resync_server.h"

#include <utility>

#include "forwarding/feeder/cache/table_hold.h"
#include "host/event/event_host.h"

namespace forwarding {
namespace {

// Status with which a resync completes.
constexpr uint32_t complete_clean = 0;
constexpr uint32_t complete_degraded = 1;

constexpr uint64_t half_second_ns = 500'000'000;

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

resync_server::resync_server(feed_context &context, const registry &objects, const entry_counters &counters,
                             change_queue &queue, changes &live, const condition &answers)
    : context_(context)
    , objects_(objects)
    , counters_(counters)
    , queue_(queue)
    , changes_(live)
    , condition_(answers)
{}

// ---- When to serve ----

bool resync_server::can_serve() const
{
    return condition_.has_full_dump() && !queue_.awaits_removal();
}

void resync_server::resync(const resync_scope &scope)
{
    context_.source.drain();
    if (can_serve()) {
        serve(scope);
        return;
    }
    waiting_.push_back(scope);
    if (!is_give_up_expected_) {
        uint32_t timer = 0;
        const uint64_t delay_ns = context_.settings.wait_seconds * half_second_ns;
        is_give_up_expected_ =
            host::event_timer_attach(context_.evm, delay_ns, 0, call<&resync_server::give_up_waiting>, this, &timer)
            == 0;
    }
}

// Before a requester gives up waiting, it is answered from the cache as it is.
void resync_server::give_up_waiting()
{
    is_give_up_expected_ = false;
    for (const resync_scope &scope : std::exchange(waiting_, {})) {
        serve(scope);
    }
}

void resync_server::serve_waiting()
{
    if (can_serve()) {
        for (const resync_scope &scope : std::exchange(waiting_, {})) {
            serve(scope);
        }
    }
}

void resync_server::serve_soon()
{
    if (!waiting_.empty()) {
        host::event_post(context_.evm, call<&resync_server::serve_waiting>, nullptr, this);
    }
}

void resync_server::serve(const resync_scope &scope)
{
    bring_up_to_date(scope);
    const bool is_proven = condition_.state() != completeness::degraded;
    resyncs_++;
    degraded_ += is_proven ? 0 : 1;
    l2fib_mac_edm_resync_complete(is_proven ? complete_clean : complete_degraded);
}

void resync_server::refresh_everything()
{
    context_.source.drain();
    bring_up_to_date({EDM_RESYNC_ALL, 0});
}

// ---- What is served ----

void resync_server::bring_up_to_date(const resync_scope &scope)
{
    context_.follow_clock();
    if (changes_.settle_everything() && !cache_is_in_step()) {
        feed_again(scope);
    }
}

// Returns whether the cache holds as many entries as the feeder has counted. The numbers differ if a step failed
// because memory ran out, or if another caller changed the cache.
bool resync_server::cache_is_in_step() const
{
    const table_hold hold;
    return cached_entries() == counters_.total();
}

// Marks the scope, feeds its entries again and sweeps it. Entries that are not in the cache because it is full stay
// out.
void resync_server::feed_again(const resync_scope &scope)
{
    full_feeds_++;
    mark(scope);
    if (scope.type == EDM_RESYNC_BP) {
        queue_port(objects_.find_port(scope.arg));
    } else if (scope.type == EDM_RESYNC_BD) {
        const uint32_t domain = objects_.find_domain(static_cast<uint16_t>(scope.arg));
        for (const uint32_t port :
             domain != no_slot ? context_.shadow.domains[domain].ports : std::vector<uint32_t>()) {
            queue_port(port);
        }
    } else {
        context_.shadow.for_each_entry([&](uint32_t entry) { queue_fed(entry); });
    }
    changes_.settle_everything();
    sweep(scope);
}

void resync_server::queue_port(uint32_t port)
{
    if (port != no_slot) {
        context_.shadow.for_each_entry_of_port(port, [&](uint32_t entry) { queue_fed(entry); });
    }
}

// Queues an entry to be fed again, although nothing has changed.
void resync_server::queue_fed(uint32_t entry)
{
    if (context_.records[entry].is_fed) {
        queue_.add(entry);
    }
}

void resync_server::add_to(health_view &view) const
{
    view.resyncs = resyncs_;
    view.resyncs_degraded = degraded_;
    view.feeds_full = full_feeds_;
}

} // namespace forwarding
