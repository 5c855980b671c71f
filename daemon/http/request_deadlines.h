// SPDX-License-Identifier: Apache-2.0

// Closes connections whose clients do not finish a request in time. The HTTP library has a time-out too, but each byte
// restarts it: a client that sends a byte now and then would keep its connection for ever.
//
// Threads: one thread calls start and stop. Any thread may call the others.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <thread>

#include "base/mutex.h"

namespace l2fibd {

class request_deadlines {
public:
    // Starts the thread that watches the deadlines. Throws std::system_error if the system refuses it.
    void start() L2FIB_EXCLUDES(lock_);

    // Ends the thread. Does nothing if it does not run.
    void stop() L2FIB_EXCLUDES(lock_);

    // Shuts the socket down unless forget() is called within the time. Replaces an earlier deadline of the socket.
    void expect_request(int socket, std::chrono::seconds allowed) L2FIB_EXCLUDES(lock_);

    // Call this when the whole request has arrived, and before the socket is closed: its number is reused then.
    void forget(int socket) L2FIB_EXCLUDES(lock_);

private:
    using clock = std::chrono::steady_clock;
    void watch() L2FIB_EXCLUDES(lock_);
    void erase(int socket) L2FIB_REQUIRES(lock_);

    std::thread thread_;

    base::mutex lock_;
    std::condition_variable_any changed_;
    std::multimap<clock::time_point, int> sockets_ L2FIB_GUARDED_BY(lock_); // by deadline
    bool is_stopping_ L2FIB_GUARDED_BY(lock_) = false;
};

} // namespace l2fibd
