// SPDX-License-Identifier: Apache-2.0

// The record behind an event manager's handle, shared by the services that deliver through its queue.
//
//     any thread  --event_post-->  queue ----.
//     descriptors, timers  ------> epoll_fd --+--event_block-->  received  --nos_event_dispatch-->  handlers
//
// Locks: a manager's mutex comes after the mutex of the service that posts (messages, notifications) and after that of
// the directory of managers; no lock is held while a callback runs.
#pragma once

#include <deque>
#include <mutex>
#include <pthread.h>
#include <set>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "host/event/event_host.h"
#include "host/handle_table.h"

namespace host {

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
    event_work_fn drop;
    void *cookie;
};

struct descriptor {
    int fd;
    event_fd_fn handler;
    void *cookie;
};

struct timer {
    uint64_t due_ns; // CLOCK_MONOTONIC
    uint64_t period_ns;
    event_timer_fn handler;
    void *cookie;
};

struct message_handler {
    event_message_filter_t filter;
    event_message_fn handler;
};

enum class event_source { none, queue, descriptor, timers };

// What event_block took for nos_event_dispatch; a timer is chosen at dispatch only.
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

    // Of the manager's thread alone.
    host::received_event received{};
    host::dispatch_frame *frame = nullptr; // of the innermost dispatch
    bool queue_is_next = true;             // the last event came from a descriptor or timer, or none was ready
    bool announced = false;
    event_manager *older = nullptr; // the one that the thread had before

    // Guarded by the mutex of the directory of managers.
    bool serving = false;
    bool ended = false;  // and nothing is left in it
    bool left = false;   // by its thread
    bool joined = false; // its thread

    std::mutex mutex;
    // Guarded by `mutex`. The descriptors are closed by the manager's thread alone, which may use them without.
    host::owned_fd epoll_fd;
    host::owned_fd wake_fd;
    host::owned_fd timer_fd;
    bool closed = false;  // takes nothing any more
    bool waiting = false; // its thread sleeps on an empty queue, or is about to
    std::deque<host::queued_work> queue;
    std::vector<host::message_handler> handlers;
    event_callback_fn callback = nullptr;
    host::handle_table<host::descriptor> descriptors;
    host::handle_table<host::timer> timers;
    std::set<std::pair<uint64_t, uint32_t>> due; // due_ns and handle of each timer
};

namespace host {

// Of the manager's life (event_lifetime.cpp).

// Whether the calling thread has created the manager.
bool is_own_manager(const event_manager_t *evm);

// Tells those who wait for the manager that its thread has entered the loop.
void announce_serving(event_manager_t &evm);

// Of its loop (event.cpp).

// Whether the manager takes nothing any more.
bool is_closed(event_manager_t *evm);

// Ends the sleep of the manager's thread. The caller holds the manager's mutex.
void wake(event_manager_t &evm);

void drop_work(const queued_work &work);

// Takes work back from the queue, if it is still there; it is neither run nor dropped.
void event_withdraw(event_manager_t *evm, event_work_fn run, const void *cookie);

// Manager's thread only: drops what was received and has not been dispatched.
void discard_received(event_manager_t &evm);

// Manager's thread only; before the manager is known, or once it is closed. False, with errno: not all were opened.
bool open_descriptors(event_manager_t &evm);
void close_descriptors(event_manager_t &evm);

// Of the services that deliver through it.

// Wakes all senders whose messages the channel holds, and forgets the messages (message.cpp).
void reset_clients(const msg_chan_t *channel);

// Forgets the notification connections on a manager (notification.cpp).
void close_connections(const event_manager_t *evm);

} // namespace host
