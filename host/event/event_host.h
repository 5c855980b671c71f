// SPDX-License-Identifier: Apache-2.0

// Event managers, as the process that hosts the module uses them: work for a manager's thread, descriptors and timers
// in its loop, and the start and end of that thread.
//
// A manager is found by its path from its creation until it is forgotten. It ends once: when it is stopped, or when its
// thread ends. What was queued then is dropped; its record stays, so that a handle is safe to use after the end and
// gets ESHUTDOWN. A path whose manager has ended may be created again.
//
// Callbacks run on the manager's thread, one at a time, with no lock held; they may call anything here. A handler of
// the same manager that blocks holds up all others.
//
// Threads: any may call, unless said otherwise. Statuses are 0 for success or an error number; EINVAL stands for a null
// or an unknown handle, ENOMEM for no memory, and nothing has happened then.
#pragma once

#include "platform/event.h"

namespace host {

using event_work_fn = void (*)(void *cookie);
using event_fd_fn = void (*)(void *cookie, int fd, uint32_t events);
using event_timer_fn = void (*)(void *cookie);

enum class event_manager_state : uint32_t {
    timed_out, // neither of the others came in time
    serving,   // its thread has entered event_block
    ended,     // it was stopped, or its thread has ended
};

// Has `run` called with `cookie` on the manager's thread, after everything that was queued before it: posts, messages
// and notifications share one queue. When the manager ends first, `drop` (unless null) is called instead, on the thread
// that ends it. ESHUTDOWN: the manager has ended, and neither is called.
L2FIB_EXPORT uint32_t event_post(event_manager_t *evm, event_work_fn run, event_work_fn drop, void *cookie);

// Has `handler` called whenever `fd` is ready for any of `events` (EPOLLIN, EPOLLOUT ...; EPOLLERR and EPOLLHUP always
// count), as long as it stays ready. The descriptor remains the caller's: it must outlive the attachment. EEXIST: it is
// attached already; EPERM: it is of a kind that is always ready.
L2FIB_EXPORT uint32_t event_fd_attach(event_manager_t *evm, int fd, uint32_t events, event_fd_fn handler, void *cookie,
                                      uint32_t *attachment);

// The handler is not called again; called from another thread, it may still be in its last call.
L2FIB_EXPORT uint32_t event_fd_detach(event_manager_t *evm, uint32_t attachment);

// Has `handler` called `delay_ns` nanoseconds from now and, unless `period_ns` is 0, every `period_ns` from then on. A
// loop that was busy for several periods gets one call for them. The handle of a one-shot timer is unknown once its
// handler is called.
L2FIB_EXPORT uint32_t event_timer_attach(event_manager_t *evm, uint64_t delay_ns, uint64_t period_ns,
                                         event_timer_fn handler, void *cookie, uint32_t *timer);

// As event_fd_detach.
L2FIB_EXPORT uint32_t event_timer_cancel(event_manager_t *evm, uint32_t timer);

// The manager that was last created with `path`, ended or not; null when there is none.
L2FIB_EXPORT event_manager_t *event_manager_find(const char *path);

// Waits, at most `seconds`, until a manager of that path exists and is serving or has ended.
L2FIB_EXPORT event_manager_state event_manager_wait(const char *path, uint32_t seconds);

// Ends the manager: what is queued is dropped, senders that wait for an answer from its thread are woken, and
// event_block fails with ESHUTDOWN from now on, after which the thread leaves its loop. An event that is being
// dispatched is dispatched to its end. Returns without waiting for the thread; harmless when repeated.
L2FIB_EXPORT uint32_t event_manager_stop(event_manager_t *evm);

// Waits until the manager's thread has ended but for its last instructions. ETIMEDOUT, EDEADLK: that is the caller.
L2FIB_EXPORT uint32_t event_manager_wait_left(event_manager_t *evm, uint32_t seconds);

// As event_manager_wait_left, then joins the thread: for a thread that nobody else joins or detaches, such as the
// module's own. Once only, however many managers the thread has had; ESRCH: it has been joined so.
L2FIB_EXPORT uint32_t event_manager_join(event_manager_t *evm, uint32_t seconds);

// Forgets the paths of all ended managers, so that event_manager_wait waits for the ones of a new start.
L2FIB_EXPORT void event_manager_forget_ended();

} // namespace host
