// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/request_deadlines.h"

#include <sys/socket.h>

namespace l2fibd {

void request_deadlines::start()
{
    is_stopping_ = false;
    thread_ = std::thread([this] { watch(); });
}

void request_deadlines::stop()
{
    {
        const std::lock_guard guard(lock_);
        is_stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void request_deadlines::expect_request(int socket, std::chrono::seconds allowed)
{
    const std::lock_guard guard(lock_);
    erase(socket);
    sockets_.emplace(clock::now() + allowed, socket);
    changed_.notify_one();
}

void request_deadlines::forget(int socket)
{
    const std::lock_guard guard(lock_);
    erase(socket);
}

// The caller holds the lock.
void request_deadlines::erase(int socket)
{
    std::erase_if(sockets_, [socket](const auto &each) { return each.second == socket; });
}

void request_deadlines::watch()
{
    std::unique_lock guard(lock_);
    while (!is_stopping_) {
        if (sockets_.empty()) {
            changed_.wait(guard);
        } else if (const auto until = sockets_.begin()->first; until > clock::now()) {
            changed_.wait_until(guard, until);
        } else {
            // The lock is held: who closes the socket calls forget() first, so the number still means this socket.
            shutdown(sockets_.begin()->second, SHUT_RDWR);
            sockets_.erase(sockets_.begin());
        }
    }
}

} // namespace l2fibd
