// SPDX-License-Identifier: Apache-2.0

// Event managers for the process that hosts the module, and the main header of this room: work for a manager's thread,
// descriptors and timers in its loop, and the start and end of that thread. Messages (platform/message.h) and
// notifications (notification_host.h) travel through the same loop.
//
//      event_manager_t *evm = host::event_manager_find("/dev/l2fib_mac_cache");
//      host::event_post(evm, [](void *cookie) { refresh(cookie); }, nullptr, table);     runs on the manager's thread
//      ...
//      host::event_manager_stop(evm);
//      host::event_manager_join(evm, 60);
//
// Life. A manager is found by its path from its creation until it is forgotten. It ends once: when a thread stops it,
// or when its own thread ends. The end drops what is queued. The record of a manager stays, so its handle can still be
// used after the end; the functions then return ESHUTDOWN. After the end, a new manager may have the same path.
//
// Callbacks. They run on the manager's thread, one at a time, while no lock is held. They may call every function here.
// A callback that blocks delays all others of its manager.
//
// Threads: any, unless a function says otherwise. Statuses are 0 for success or an error number: EINVAL for a null
// argument or an unknown handle, ENOMEM. After a failure nothing has changed.
#pragma once

#include "platform/event.h"

namespace host {

using event_work_fn = void (*)(void *cookie);
using event_fd_fn = void (*)(void *cookie, int fd, uint32_t events);
using event_timer_fn = void (*)(void *cookie);

enum class event_manager_state : uint32_t {
    timed_out, // the manager reached neither of the other states in time
    serving,   // the manager's thread has entered event_block
    ended,     // the manager was stopped, or its thread has ended
};

// Queues a call of `run` with `cookie` on the manager's thread. Posts, messages and notifications share one queue. If
// the manager ends first, the thread that ends it calls `drop` instead, unless `drop` is null. ESHUTDOWN: the manager
// has ended; neither is called.
L2FIB_EXPORT uint32_t event_post(event_manager_t *evm, event_work_fn run, event_work_fn drop, void *cookie);

// Calls `handler` while `fd` is ready for any of `events` (EPOLLIN, EPOLLOUT ...; always for EPOLLERR and EPOLLHUP).
// The caller keeps the descriptor open for longer than the attachment. EEXIST: the descriptor is attached already;
// EPERM: the descriptor is of a kind that is always ready, such as a regular file.
L2FIB_EXPORT uint32_t event_fd_attach(event_manager_t *evm, int fd, uint32_t events, event_fd_fn handler, void *cookie,
                                      uint32_t *attachment);

// Ends an attachment: no call of the handler starts any more. On another thread than the manager's, the last call may
// still run.
L2FIB_EXPORT uint32_t event_fd_detach(event_manager_t *evm, uint32_t attachment);

// Calls `handler` after `delay_ns` nanoseconds and then, unless `period_ns` is 0, every `period_ns`. A loop that was
// busy for several periods makes one call for all of them. The handle of a one-shot timer is unknown from the call on.
L2FIB_EXPORT uint32_t event_timer_attach(event_manager_t *evm, uint64_t delay_ns, uint64_t period_ns,
                                         event_timer_fn handler, void *cookie, uint32_t *timer);

// Ends a timer, as event_fd_detach ends an attachment.
L2FIB_EXPORT uint32_t event_timer_cancel(event_manager_t *evm, uint32_t timer);

// Returns the manager that was last created with `path`, even if it has ended; null if there is none.
L2FIB_EXPORT event_manager_t *event_manager_find(const char *path);

// Waits at most `seconds` until a manager with `path` exists and is serving or has ended.
L2FIB_EXPORT event_manager_state event_manager_wait(const char *path, uint32_t seconds);

// Ends the manager: drops what is queued, and wakes senders that wait for an answer from its thread. event_block then
// fails with ESHUTDOWN, so the thread leaves its loop after the event that it is dispatching. Does not wait for the
// thread. May be repeated.
L2FIB_EXPORT uint32_t event_manager_stop(event_manager_t *evm);

// Waits at most `seconds` for the end of the manager's thread, and joins the thread. Only for a thread that nobody else
// joins or detaches, such as the module's own. ETIMEDOUT: the thread still runs; EDEADLK: it is the calling thread;
// ESRCH: it was joined already, for this manager or an earlier one of the same thread.
L2FIB_EXPORT uint32_t event_manager_join(event_manager_t *evm, uint32_t seconds);

// Forgets the paths of all ended managers, so that event_manager_wait waits for the managers of a new start.
L2FIB_EXPORT void event_manager_forget_ended();

} // namespace host
