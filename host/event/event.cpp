// SPDX-License-Identifier: Apache-2.0

// The loop of an event manager, on epoll.
//
// Threads. The manager's thread waits and dispatches. Other threads reach it in three ways, all under the manager's
// mutex, which no thread holds while a callback runs:
//
//      queue          an eventfd wakes the manager's thread
//      descriptors    added to and removed from the epoll set, also while the manager's thread waits on it
//      timers         one timerfd, set to the earliest due time
//
// Fairness. event_block alternates between the queue and the epoll set, and epoll serves ready descriptors in rotation.
// So neither a flood of posts nor a descriptor that is always ready blocks the others:
//
//      queue   A B C         epoll set   x (always ready)         dispatched   A x B x C x x
//
// Sleep and wake-up. Before the thread sleeps on an empty queue it sets `waiting` under the mutex. A thread that queues
// work while `waiting` is set writes to the eventfd. The eventfd is edge-triggered, so nobody needs to read its
// counter.
#include "host/event/event_manager.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <new>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include "host/clock.h"
#include "host/out_of_memory.h"

namespace {

using host::event_source;

// The data of a descriptor in the epoll set: the handle of an attachment, which has 32 bits, or one of these two.
constexpr uint64_t wake_source = uint64_t{1} << 32;
constexpr uint64_t timer_source = uint64_t{2} << 32;

constexpr uint64_t never_ns = std::numeric_limits<int64_t>::max();

uint32_t watch(event_manager &evm, int fd, uint32_t events, uint64_t source)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = source;
    return epoll_ctl(evm.epoll_fd.fd, EPOLL_CTL_ADD, fd, &event) == 0 ? 0 : static_cast<uint32_t>(errno);
}

uint64_t now_ns()
{
    return host::clock_ns(CLOCK_MONOTONIC);
}

// Adds two times without exceeding never_ns. Neither argument exceeds it.
uint64_t later(uint64_t time_ns, uint64_t delay_ns)
{
    return delay_ns < never_ns - time_ns ? time_ns + delay_ns : never_ns;
}

// Sets the timerfd to the earliest timer. A time in the past makes the timerfd ready at once.
void set_to_earliest(event_manager &evm) L2FIB_REQUIRES(evm.mutex)
{
    itimerspec when{};
    if (!evm.due.empty()) {
        const uint64_t due_ns = evm.due.begin()->first;
        when.it_value.tv_sec = static_cast<time_t>(due_ns / host::ns_per_second);
        when.it_value.tv_nsec = static_cast<long>(due_ns % host::ns_per_second);
    }
    timerfd_settime(evm.timer_fd.fd, TFD_TIMER_ABSTIME, &when, nullptr);
}

// Moves the earliest timer to its next due time, or removes it if it is a one-shot timer. Allocates no memory. Example:
// due at 10 with a period of 5, at the time 22, is next due at 25; the due times 15 and 20 are skipped.
void advance_earliest(event_manager &evm, uint64_t now) L2FIB_REQUIRES(evm.mutex)
{
    auto place = evm.due.extract(evm.due.begin());
    const uint32_t handle = place.value().second;
    host::timer &timer = *evm.timers.find(handle);
    if (timer.period_ns == 0) {
        evm.timers.erase(handle);
        return;
    }
    const uint64_t missed_ns = (now - timer.due_ns) / timer.period_ns * timer.period_ns;
    timer.due_ns = later(timer.due_ns + missed_ns, timer.period_ns);
    place.value().first = timer.due_ns;
    evm.due.insert(std::move(place));
}

void dispatch_timer(event_manager &evm)
{
    host::timer timer{};
    {
        const base::scoped_lock hold(evm.mutex);
        const uint64_t now = now_ns();
        if (evm.due.empty() || evm.due.begin()->first > now) {
            return; // the timer was cancelled
        }
        timer = *evm.timers.find(evm.due.begin()->second);
        advance_earliest(evm, now);
        set_to_earliest(evm);
    }
    timer.handler(timer.cookie);
}

void dispatch_descriptor(event_manager &evm, uint32_t attachment, uint32_t readiness)
{
    host::descriptor descriptor{};
    {
        const base::scoped_lock hold(evm.mutex);
        const host::descriptor *const found = evm.descriptors.find(attachment);
        if (found == nullptr) {
            return; // the descriptor was detached
        }
        descriptor = *found;
    }
    descriptor.handler(descriptor.cookie, descriptor.fd, readiness);
}

void dispatch(event_manager &evm, const host::received_event &event)
{
    switch (event.source) {
    case event_source::queue: event.work.run(event.work.cookie); break;
    case event_source::descriptor: dispatch_descriptor(evm, event.attachment, event.readiness); break;
    case event_source::timers: dispatch_timer(evm); break;
    case event_source::none: break;
    }
}

// Receives the next event of the queue if it is the queue's turn. Sets `may_sleep` if the queue is empty.
uint32_t receive_queued(event_manager &evm, bool &may_sleep)
{
    const base::scoped_lock hold(evm.mutex);
    if (evm.closed) {
        return ESHUTDOWN;
    }
    may_sleep = evm.queue.empty();
    evm.waiting = may_sleep;
    if (evm.queue_is_next && !may_sleep) {
        evm.received = {event_source::queue, evm.queue.front(), 0, 0};
        evm.queue.pop_front();
        evm.queue_is_next = false;
    }
    return 0;
}

uint32_t receive_ready(event_manager &evm, bool sleep)
{
    epoll_event ready{};
    const int count = epoll_wait(evm.epoll_fd.fd, &ready, 1, sleep ? -1 : 0);
    if (count < 0) {
        return static_cast<uint32_t>(errno);
    }
    evm.queue_is_next = true;
    if (count == 0 || ready.data.u64 == wake_source) {
        return 0;
    }
    if (ready.data.u64 == timer_source) {
        evm.received.source = event_source::timers;
    } else {
        evm.received = {event_source::descriptor, {}, static_cast<uint32_t>(ready.data.u64), ready.events};
    }
    return 0;
}

uint32_t receive(event_manager &evm)
{
    uint32_t status = 0;
    while (status == 0 && evm.received.source == event_source::none) {
        bool may_sleep = false;
        status = receive_queued(evm, may_sleep);
        if (status == 0 && evm.received.source == event_source::none) {
            status = receive_ready(evm, may_sleep);
        }
    }
    return status;
}

uint32_t block(event_manager &evm)
{
    host::discard_received(evm);
    if (!std::exchange(evm.announced, true)) {
        host::announce_serving(evm);
    }
    const uint32_t status = receive(evm);
    if (status == ESHUTDOWN) {
        host::close_descriptors(evm);
    }
    return status;
}

bool is_attached(const event_manager &evm, int fd) L2FIB_REQUIRES(evm.mutex)
{
    const auto &records = evm.descriptors.records;
    return std::any_of(records.begin(), records.end(), [fd](const auto &entry) { return entry.second.fd == fd; });
}

uint32_t attach_descriptor(event_manager &evm, const host::descriptor &descriptor, uint32_t events,
                           uint32_t &attachment)
{
    const base::scoped_lock hold(evm.mutex);
    if (evm.closed) {
        return ESHUTDOWN;
    }
    if (is_attached(evm, descriptor.fd)) {
        return EEXIST;
    }
    const uint32_t handle = evm.descriptors.insert(descriptor);
    if (const uint32_t status = watch(evm, descriptor.fd, events, handle); status != 0) {
        evm.descriptors.erase(handle);
        return status;
    }
    attachment = handle;
    return 0;
}

uint32_t attach_timer(event_manager &evm, const host::timer &timer, uint32_t &handle)
{
    const base::scoped_lock hold(evm.mutex);
    if (evm.closed) {
        return ESHUTDOWN;
    }
    const uint32_t inserted = evm.timers.insert(timer);
    try {
        evm.due.emplace(timer.due_ns, inserted);
    } catch (const std::bad_alloc &) {
        evm.timers.erase(inserted);
        throw;
    }
    set_to_earliest(evm);
    handle = inserted;
    return 0;
}

bool is_zero(const uint64_t *words, size_t count)
{
    return std::all_of(words, words + count, [](uint64_t word) { return word == 0; });
}

bool is_well_formed(const event_callback_record_t &record)
{
    return record.tag == EVENT_CALLBACK_TAG && record.callback != nullptr && record.reserved0 == 0
           && is_zero(record.reserved1, std::size(record.reserved1))
           && is_zero(record.reserved2, std::size(record.reserved2));
}

} // namespace

namespace host {

void drop_work(const queued_work &work)
{
    if (work.drop != nullptr) {
        work.drop(work.cookie);
    }
}

bool open_descriptors(event_manager &evm)
{
    evm.epoll_fd.reset(epoll_create1(EPOLL_CLOEXEC));
    evm.wake_fd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    evm.timer_fd.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    return evm.epoll_fd.fd >= 0 && evm.wake_fd.fd >= 0 && evm.timer_fd.fd >= 0
           && watch(evm, evm.wake_fd.fd, EPOLLIN | EPOLLET, wake_source) == 0
           && watch(evm, evm.timer_fd.fd, EPOLLIN, timer_source) == 0;
}

void close_descriptors(event_manager &evm)
{
    const base::scoped_lock hold(evm.mutex);
    evm.epoll_fd.reset();
    evm.wake_fd.reset();
    evm.timer_fd.reset();
}

void wake(event_manager &evm)
{
    if (evm.waiting) {
        evm.waiting = false;
        eventfd_write(evm.wake_fd.fd, 1);
    }
}

void discard_received(event_manager &evm)
{
    const host::received_event event = std::exchange(evm.received, {});
    if (event.source == event_source::queue) {
        drop_work(event.work);
    }
}

bool is_closed(event_manager_t *evm)
{
    const base::scoped_lock hold(evm->mutex);
    return evm->closed;
}

void event_withdraw(event_manager_t *evm, event_work_fn run, const void *cookie)
{
    const base::scoped_lock hold(evm->mutex);
    const auto found = std::find_if(evm->queue.begin(), evm->queue.end(),
                                    [&](const queued_work &work) { return work.run == run && work.cookie == cookie; });
    if (found != evm->queue.end()) {
        evm->queue.erase(found);
    }
}

uint32_t event_post(event_manager_t *evm, event_work_fn run, event_work_fn drop, void *cookie)
{
    if (evm == nullptr || run == nullptr) {
        return EINVAL;
    }
    return or_out_of_memory([&]() -> uint32_t {
        const base::scoped_lock hold(evm->mutex);
        if (evm->closed) {
            return ESHUTDOWN;
        }
        evm->queue.push_back({run, drop, cookie});
        wake(*evm);
        return 0;
    });
}

uint32_t event_fd_attach(event_manager_t *evm, int fd, uint32_t events, event_fd_fn handler, void *cookie,
                         uint32_t *attachment)
{
    if (evm == nullptr || fd < 0 || handler == nullptr || attachment == nullptr) {
        return EINVAL;
    }
    return or_out_of_memory([&] { return attach_descriptor(*evm, {fd, handler, cookie}, events, *attachment); });
}

uint32_t event_fd_detach(event_manager_t *evm, uint32_t attachment)
{
    if (evm == nullptr) {
        return EINVAL;
    }
    const base::scoped_lock hold(evm->mutex);
    const descriptor *const found = evm->descriptors.find(attachment);
    if (found == nullptr) {
        return EINVAL;
    }
    epoll_ctl(evm->epoll_fd.fd, EPOLL_CTL_DEL, found->fd, nullptr);
    evm->descriptors.erase(attachment);
    return 0;
}

uint32_t event_timer_attach(event_manager_t *evm, uint64_t delay_ns, uint64_t period_ns, event_timer_fn handler,
                            void *cookie, uint32_t *timer)
{
    if (evm == nullptr || handler == nullptr || timer == nullptr) {
        return EINVAL;
    }
    const uint64_t due_ns = later(now_ns(), delay_ns);
    return or_out_of_memory([&] { return attach_timer(*evm, {due_ns, period_ns, handler, cookie}, *timer); });
}

uint32_t event_timer_cancel(event_manager_t *evm, uint32_t timer)
{
    if (evm == nullptr) {
        return EINVAL;
    }
    const base::scoped_lock hold(evm->mutex);
    const host::timer *const found = evm->timers.find(timer);
    if (found == nullptr) {
        return EINVAL;
    }
    evm->due.erase({found->due_ns, timer});
    evm->timers.erase(timer);
    set_to_earliest(*evm);
    return 0;
}

} // namespace host

uint32_t event_callback_attach(event_manager_t *evm, const event_callback_record_t *record)
{
    if (evm == nullptr || record == nullptr || !is_well_formed(*record)) {
        return EINVAL;
    }
    const base::scoped_lock hold(evm->mutex);
    if (evm->closed) {
        return ESHUTDOWN;
    }
    if (evm->callback != nullptr) {
        return EEXIST;
    }
    evm->callback = record->callback;
    return 0;
}

uint32_t event_message_attach(event_manager_t *evm, const event_message_filter_t *filter, event_message_fn handler,
                              uint32_t reserved)
{
    if (evm == nullptr || filter == nullptr || handler == nullptr || reserved != 0) {
        return EINVAL;
    }
    return host::or_out_of_memory([&]() -> uint32_t {
        const base::scoped_lock hold(evm->mutex);
        if (evm->closed) {
            return ESHUTDOWN;
        }
        evm->handlers.push_back({*filter, handler});
        return 0;
    });
}

msg_chan_t *evm_get_chan(event_manager_t *evm)
{
    return evm == nullptr ? nullptr : &evm->channel;
}

int event_block(event_record_t *record)
{
    event_manager_t *const evm = record == nullptr ? nullptr : record->evm;
    uint32_t status = EINVAL;
    if (evm != nullptr) {
        status = host::is_own_manager(evm) ? block(*evm) : EPERM;
    }
    if (status != 0) {
        errno = static_cast<int>(status);
        return -1;
    }
    record->event = &evm->received;
    return 0;
}

uint32_t nos_event_dispatch(event_record_t *record, uint32_t reserved)
{
    event_manager_t *const evm = record == nullptr ? nullptr : record->evm;
    if (evm == nullptr || reserved != 0 || record->event != &evm->received || !host::is_own_manager(evm)) {
        return EINVAL;
    }
    const host::received_event event = std::exchange(evm->received, {});
    record->event = nullptr;
    host::dispatch_frame frame{record, 0};
    host::dispatch_frame *const outer = std::exchange(evm->frame, &frame);
    dispatch(*evm, event);
    evm->frame = outer;
    return frame.status;
}
