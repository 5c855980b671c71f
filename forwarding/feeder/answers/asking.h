// SPDX-License-Identifier: Apache-2.0

// Gives other threads access to the feeder of the running module.
//
// Call these functions on any thread but the cache thread, and without the table lock: otherwise the caller can
// deadlock with the cache thread. While a call lasts, the module does not stop, so the feeder stays valid. `work` must
// call neither function, because the lock behind them is not recursive.
//
// Example:
//
//      with_feeder([&](feeder &feed) { objects = feed.objects(); });                   // offered to any thread
//      on_cache_thread([&](feeder &feed) { counters = feed.count_of_port(xcid); });    // cache thread only
#pragma once

#include <functional>

namespace forwarding {

class feeder;

// Calls `work` on the calling thread. `work` uses only what the feeder offers to any thread. Returns false without a
// call if nothing runs.
bool with_feeder(const std::function<void(feeder &feed)> &work);

// Calls `work` on the cache thread and waits until it returns. An exception of `work` reaches the caller. Returns false
// if nothing runs, the event manager refuses the event, or the cache thread ends before the call.
bool on_cache_thread(const std::function<void(feeder &feed)> &work);

} // namespace forwarding
