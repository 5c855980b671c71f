// SPDX-License-Identifier: Apache-2.0

// How other threads reach the feeder of the running module. Threads: any but the cache thread, without the table lock.
#pragma once

#include <functional>

namespace forwarding {

class feeder;

// Calls `work` with the feeder on the calling thread: for what the feeder offers to any thread. False, and no call,
// when nothing runs.
bool with_feeder(const std::function<void(feeder &feed)> &work);

// Calls `work` with the feeder on the cache thread and waits for its end. What it throws is thrown here. False when
// nothing runs or the cache thread ends first.
bool on_cache_thread(const std::function<void(feeder &feed)> &work);

} // namespace forwarding
