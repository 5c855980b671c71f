// SPDX-License-Identifier: Apache-2.0

// The record behind an event manager's handle. The services that deliver through the queue of a manager share it.
//
//     any thread  --event_post-->  queue ----.
//     descriptors, timers  ------> epoll_fd --+--event_block-->  received  --nos_event_dispatch-->  handlers
//
// Locking. A manager's mutex comes after the mutex of the service that posts (messages, notifications). No thread holds
// a lock while a callback runs.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <deque>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "host/event/event_host.h"
#include "host/handle_table.h"

namespace host {

// Closes its file descriptor at its end.
struct owned_fd {
    int fd = -1;

    owned_fd() = default;
    owned_fd(const owned_fd &) = delete;
    owned_fd &operator=(const owned_fd &) = delete;
    ~owned_fd() { reset(); }

    void reset(int next = -1)
    {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = next;
    }
};

struct queued_work {
    event_work_fn run;
    event_work_fn drop; // may be null
    void *cookie;
};

struct descriptor {
    int fd;
    event_fd_fn handler;
    void *cookie;
};

struct timer {
    uint64_t due_ns;    // CLOCK_MONOTONIC
    uint64_t period_ns; // 0 for a one-shot timer
    event_timer_fn handler;
    void *cookie;
};

struct message_handler {
    event_message_filter_t filter;
    event_message_fn handler;
};

enum class event_source { none, queue, descriptor, timers };

// The event that event_block took for nos_event_dispatch. The dispatch chooses the timer.
struct received_event {
    event_source source;
    queued_work work;    // of the queue
    uint32_t attachment; // of a descriptor
    uint32_t readiness;  // of a descriptor
};

// One call of nos_event_dispatch, for the callbacks that run inside it.
struct dispatch_frame {
    event_record_t *record;
    uint32_t status;
};

// Guards the directory of managers and what it announces of each manager (event_lifetime.cpp). No thread takes another
// lock while it holds this one.
inline constinit base::mutex directory_lock;

} // namespace host

struct msg_chan {
    event_manager_t *evm;
};

struct event_manager {
    explicit event_manager(const char *known_by)
        : path(known_by)
    {}

    const std::string path;
    const pthread_t thread = pthread_self();
    msg_chan channel{this};

    // Only the manager's thread uses these.
    host::received_event received{};
    host::dispatch_frame *frame = nullptr; // of the innermost dispatch
    bool queue_is_next = true;             // the last event came from the epoll set, or none was ready there
    bool announced = false;
    event_manager *older = nullptr; // the manager that the thread had before

    bool serving L2FIB_GUARDED_BY(host::directory_lock) = false;
    bool ended L2FIB_GUARDED_BY(host::directory_lock) = false;  // and nothing is left in the manager
    bool left L2FIB_GUARDED_BY(host::directory_lock) = false;   // the thread has ended
    bool joined L2FIB_GUARDED_BY(host::directory_lock) = false; // the thread was joined

    base::mutex mutex;

    // Only the manager's thread opens and closes the descriptors, and closes them under the mutex. So the manager's
    // thread may use them without the mutex, and any other thread with the mutex while `closed` is false.
    host::owned_fd epoll_fd;
    host::owned_fd wake_fd;
    host::owned_fd timer_fd;

    bool closed L2FIB_GUARDED_BY(mutex) = false;  // the manager accepts nothing any more
    bool waiting L2FIB_GUARDED_BY(mutex) = false; // the thread sleeps on an empty queue, or is about to
    std::deque<host::queued_work> queue L2FIB_GUARDED_BY(mutex);
    std::vector<host::message_handler> handlers L2FIB_GUARDED_BY(mutex);
    event_callback_fn callback L2FIB_GUARDED_BY(mutex) = nullptr;
    host::handle_table<host::descriptor> descriptors L2FIB_GUARDED_BY(mutex);
    host::handle_table<host::timer> timers L2FIB_GUARDED_BY(mutex);
    std::set<std::pair<uint64_t, uint32_t>> due L2FIB_GUARDED_BY(mutex); // due_ns and handle of each timer
};

namespace host {

// ---- The life of a manager (event_lifetime.cpp) ----

// Whether the calling thread created the manager.
bool is_own_manager(const event_manager_t *evm);

// Announces that the manager's thread has entered the loop.
void announce_serving(event_manager_t &evm) L2FIB_EXCLUDES(directory_lock);

// ---- The loop of a manager (event.cpp) ----

// Whether the manager accepts nothing any more.
bool is_closed(event_manager_t *evm) L2FIB_EXCLUDES(evm->mutex);

// Ends the sleep of the manager's thread.
void wake(event_manager_t &evm) L2FIB_REQUIRES(evm.mutex);

void drop_work(const queued_work &work);

// Takes work back from the queue if it is still there. The work is then neither run nor dropped.
void event_withdraw(event_manager_t *evm, event_work_fn run, const void *cookie) L2FIB_EXCLUDES(evm->mutex);

// Drops an event that was received and not dispatched. Only on the manager's thread.
void discard_received(event_manager_t &evm);

// Opens all descriptors, before other threads know the manager. False, with errno, if one of them cannot be opened.
bool open_descriptors(event_manager_t &evm);

// Only on the manager's thread, after the manager was closed.
void close_descriptors(event_manager_t &evm) L2FIB_EXCLUDES(evm.mutex);

// ---- The services that deliver through a manager ----

// Wakes all senders whose messages the channel holds, and forgets the messages (message.cpp).
void reset_clients(const msg_chan_t *channel);

// Forgets the notification connections of a manager (notification.cpp).
void close_connections(const event_manager_t *evm);

} // namespace host
