// Cuts connections whose clients do not finish a request in time. The HTTP library's own time-out begins again with
// each byte: a client that sends one now and then would hold its connection for as long as it likes.
//
// Threads: start and stop are for one thread, the others for any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace l2fibd {

class request_deadlines {
public:
    void start(std::chrono::seconds allowed);

    // Harmless when repeated, and when nothing was started.
    void stop();

    // A request is awaited on this connection from now on.
    void expect_request(int socket);

    // The whole request has come, or the socket is about to be closed.
    void forget(int socket);

private:
    using clock = std::chrono::steady_clock;
    struct awaited {
        int socket;
        clock::time_point until;
    };

    void watch();

    std::chrono::seconds allowed_{};
    std::thread thread_;

    std::mutex lock_; // protects what follows
    std::condition_variable changed_;
    std::deque<awaited> queue_; // the earliest first: all are allowed the same time
    bool is_stopping_ = false;
};

} // namespace l2fibd
