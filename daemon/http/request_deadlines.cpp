// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/request_deadlines.h"

#include <sys/socket.h>

namespace l2fibd {

void request_deadlines::start()
{
    {
        const base::scoped_lock hold(lock_);
        is_stopping_ = false;
    }
    thread_ = std::thread([this] { watch(); });
}

void request_deadlines::stop()
{
    {
        const base::scoped_lock hold(lock_);
        is_stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void request_deadlines::expect_request(int socket, std::chrono::seconds allowed)
{
    const base::scoped_lock hold(lock_);
    erase(socket);
    sockets_.emplace(clock::now() + allowed, socket);
    changed_.notify_one();
}

void request_deadlines::forget(int socket)
{
    const base::scoped_lock hold(lock_);
    erase(socket);
}

void request_deadlines::erase(int socket)
{
    std::erase_if(sockets_, [socket](const auto &each) { return each.second == socket; });
}

void request_deadlines::watch()
{
    const base::scoped_lock hold(lock_);
    while (!is_stopping_) {
        if (sockets_.empty()) {
            changed_.wait(lock_);
        } else if (const auto until = sockets_.begin()->first; until > clock::now()) {
            changed_.wait_until(lock_, until);
        } else {
            // The number still means this socket: the lock is held, and forget() needs it before the socket is closed.
            shutdown(sockets_.begin()->second, SHUT_RDWR);
            sockets_.erase(sockets_.begin());
        }
    }
}

} // namespace l2fibd
