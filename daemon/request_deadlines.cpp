#include "daemon/request_deadlines.h"

#include <sys/socket.h>

namespace l2fibd {

void request_deadlines::start(std::chrono::seconds allowed)
{
    allowed_ = allowed;
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

void request_deadlines::expect_request(int socket)
{
    const std::lock_guard guard(lock_);
    queue_.push_back({socket, clock::now() + allowed_});
    changed_.notify_one();
}

void request_deadlines::forget(int socket)
{
    const std::lock_guard guard(lock_);
    std::erase_if(queue_, [socket](const awaited &each) { return each.socket == socket; });
}

void request_deadlines::watch()
{
    std::unique_lock guard(lock_);
    while (!is_stopping_) {
        if (queue_.empty()) {
            changed_.wait(guard);
        } else if (const awaited first = queue_.front(); first.until > clock::now()) {
            changed_.wait_until(guard, first.until);
        } else {
            // Under the lock: whoever closes the socket has us forget it first, so that its number is nobody else's.
            shutdown(first.socket, SHUT_RDWR);
            queue_.pop_front();
        }
    }
}

} // namespace l2fibd
