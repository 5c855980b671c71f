// SPDX-License-Identifier: Apache-2.0

// Serves resyncs. A resync costs only what changed: the plane reports its pending changes, and the queue of changes is
// settled. A scope is fed again only if the cache then is not in step with the shadow table:
//
//      resync --> plane drains --> queue is settled --> in step? -- yes --> complete
//                                                           \-- no --> mark, feed, sweep --> complete
//
// A resync waits for the end of the first full dump, and for removals on their way. It waits no longer than half of the
// resync wait time, so that it is answered before the requester gives up.
//
// Threads: the cache thread, without the table lock. Any thread may call add_to.
#pragma once

#include <atomic>
#include <vector>

#include "forwarding/feeder/changes.h"

namespace forwarding {

class resync_server {
public:
    resync_server(feed_context &context, const registry &objects, const entry_counters &counters, change_queue &queue,
                  changes &live, const condition &answers);

    // Brings a scope up to date. Calls l2fib_mac_edm_resync_complete exactly once, during the call or later.
    void resync(const resync_scope &scope);
    // Brings everything up to date, as a resync does, but completes no resync. While a removal is on its way, it only
    // takes the plane's pending changes.
    void refresh_everything();

    // A full dump has ended: serves what waits, behind the questions that are queued already.
    void serve_soon();
    // Serves what waits, if nothing hinders it any more.
    void serve_waiting();

    // Adds counters. Any thread.
    void add_to(health_view &view) const;

private:
    void give_up_waiting();
    void serve(const resync_scope &scope);
    bool can_serve() const;
    void bring_up_to_date(const resync_scope &scope);
    bool cache_is_in_step() const;
    void feed_again(const resync_scope &scope);
    void queue_port(uint32_t port);
    void queue_fed(uint32_t entry);

    feed_context &context_;
    const registry &objects_;
    const entry_counters &counters_;
    change_queue &queue_;
    changes &changes_;
    const condition &condition_;
    bool is_give_up_expected_ = false;  // a timer will serve waiting_ in any case
    std::vector<resync_scope> waiting_; // resyncs that are not served yet
    std::atomic<uint64_t> resyncs_{0}, degraded_{0}, full_feeds_{0};
};

} // namespace forwarding
