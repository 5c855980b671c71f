// SPDX-License-Identifier: Apache-2.0

// Cuts connections whose clients do not finish a request in time. The HTTP library's own time-out begins again with
// each byte: a client that sends one now and then would keep its connection for ever.
//
// Threads: start and stop are for one thread, the others for any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace l2fibd {

class request_deadlines {
public:
    void start();

    // Harmless when repeated, and when nothing was started.
    void stop();

    // Shuts the socket down unless forget() is called within the time. Replaces an earlier deadline of the socket.
    void expect_request(int socket, std::chrono::seconds allowed);

    // Call it when the whole request has come, and before the socket is closed.
    void forget(int socket);

private:
    using clock = std::chrono::steady_clock;
    void watch();
    void erase(int socket);

    std::thread thread_;

    std::mutex lock_; // protects what follows
    std::condition_variable changed_;
    std::multimap<clock::time_point, int> sockets_; // by deadline
    bool is_stopping_ = false;
};

} // namespace l2fibd
