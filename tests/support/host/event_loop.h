// SPDX-License-Identifier: Apache-2.0

// A thread that serves an event manager the way the module's threads do, for tests of the host's services.
#pragma once

#include <cerrno>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "host/event/event_host.h"
#include "platform/event.h"

namespace test {

// One round of the loop, on the manager's thread: 0, or the error of event_block.
inline int serve_one(event_manager_t *evm, uint8_t (&buffer)[128])
{
    event_record_t record{evm, buffer, sizeof(buffer), nullptr, {}};
    if (event_block(&record) != 0) {
        return errno;
    }
    nos_event_dispatch(&record, 0);
    return 0;
}

inline int serve_one(event_manager_t *evm)
{
    uint8_t buffer[128];
    return serve_one(evm, buffer);
}

inline event_manager_t *create_manager(const char *path)
{
    return event_manager_create(0, path, EVENT_MANAGER_DEPTH, 0);
}

// Waits until another thread has served all that is queued for it now.
inline void serve_queued(event_manager_t *evm)
{
    std::promise<void> served;
    const auto set = [](void *cookie) { static_cast<std::promise<void> *>(cookie)->set_value(); };
    if (host::event_post(evm, set, set, &served) == 0) {
        served.get_future().wait();
    }
}

// Serves from its construction to stop(). It is constructed when `set_up` has run on the thread and the thread waits.
class event_loop {
public:
    explicit event_loop(
        const char *path, std::function<void(event_manager_t *)> set_up = [](event_manager_t *) {})
    {
        host::event_manager_forget_ended(); // frees the path
        thread_ = std::thread([path, run = std::move(set_up)] { serve(create_manager(path), run); });
        host::event_manager_wait(path, 60);
        evm = host::event_manager_find(path);
    }
    event_loop(const event_loop &) = delete;
    event_loop &operator=(const event_loop &) = delete;
    // Waits for handlers that still run after they woke their sender.
    ~event_loop()
    {
        if (thread_.joinable()) {
            serve_queued(evm);
        }
        stop();
    }

    void stop()
    {
        if (thread_.joinable()) {
            host::event_manager_stop(evm);
            thread_.join();
        }
    }

    event_manager_t *evm;

private:
    static void serve(event_manager_t *evm, const std::function<void(event_manager_t *)> &set_up)
    {
        set_up(evm);
        int error = 0;
        while (error == 0 || error == EINTR || error == EAGAIN) {
            error = serve_one(evm);
        }
    }

    std::thread thread_;
};

} // namespace test
