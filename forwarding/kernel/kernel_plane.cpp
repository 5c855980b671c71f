// SPDX-License-Identifier: Apache-2.0

// Start and stop of the plane, its health, and questions about single entries.

#include "forwarding/kernel/kernel_plane.h"

#include <algorithm>
#include <new>
#include <sys/epoll.h>
#include <utility>

#include "forwarding/kernel/kernel_plane_internal.h"
#include "forwarding/kernel/netlink/kernel_privileges.h"
#include "forwarding/kernel/thread_time.h"
#include "host/event/event_host.h"

namespace forwarding {

namespace {

constexpr uint32_t default_receive_buffer = 128U << 20; // bytes

} // namespace

kernel_plane::kernel_plane(const kernel_options &options)
    : interval_(options.full_dump_interval_ms)
    , proof_interval_(options.proof_interval_ms)
    , buffer_(kernel_message_room)
{
    const uint32_t wanted = options.receive_buffer != 0 ? options.receive_buffer : default_receive_buffer;
    opened_ = kernel_run_in(options.netns, [this, wanted] { return open(wanted); });
}

base::result kernel_plane::open(uint32_t receive_buffer)
{
    for (kernel_socket *const socket : {&notifications_, &dumps_}) {
        if (base::result opened = kernel_socket_open(*socket); !opened.ok()) {
            return opened;
        }
    }
    kernel_socket_resize(notifications_, receive_buffer);
    if (base::result opened = ages_.open(); !opened.ok()) {
        return opened;
    }
    const base::scoped_lock hold(query_mutex_);
    return kernel_querier_open(querier_);
}

// ---- Start and stop ----

base::result kernel_plane::attach()
{
    const auto on_notifications = [](void *self, int, uint32_t) {
        static_cast<kernel_plane *>(self)->run(&kernel_plane::read_turn);
    };
    const auto on_dumps = [](void *self, int, uint32_t) {
        static_cast<kernel_plane *>(self)->run(&kernel_plane::read_dump);
    };
    uint32_t status = host::event_fd_attach(evm_, kernel_socket_fd(notifications_), EPOLLIN, on_notifications, this,
                                            &notifications_attachment_);
    if (status == 0) {
        status = host::event_fd_attach(evm_, kernel_socket_fd(dumps_), EPOLLIN, on_dumps, this, &dumps_attachment_);
    }
    return status == 0
               ? base::success()
               : base::system_failure(static_cast<int>(status), "cannot attach netlink sockets to the event loop");
}

base::result kernel_plane::start(event_manager_t *evm, sink &to)
{
    if (!opened_.ok()) {
        return opened_;
    }
    evm_ = evm;
    sink_ = &to;
    bool has_next_hops = false;
    base::result started = kernel_socket_subscribe(notifications_, has_next_hops);
    lacks_next_hops_ = !has_next_hops;
    if (started.ok()) {
        started = attach();
    }
    if (!started.ok()) {
        stop();
        return started;
    }
    allow_queries(true);
    run(&kernel_plane::begin_full_dump);
    return started;
}

void kernel_plane::stop()
{
    allow_queries(false);
    if (evm_ == nullptr) {
        return;
    }
    host::event_fd_detach(evm_, notifications_attachment_);
    host::event_fd_detach(evm_, dumps_attachment_);
    host::event_timer_cancel(evm_, std::exchange(timer_, 0));
    evm_ = nullptr;
    counters_.clean = false;
}

// Runs work of the event loop. If memory runs out, a change may be lost, and the next full dump repairs that.
void kernel_plane::run(void (kernel_plane::*work)())
{
    try {
        (this->*work)();
    } catch (const std::bad_alloc &) {
        note_loss(0);
        abandon_dumps();
    }
}

void kernel_plane::drain()
{
    if (evm_ != nullptr) {
        run(&kernel_plane::read_all_waiting);
    }
}

// ---- Health ----

plane_health kernel_plane::health() const
{
    plane_health result;
    result.clean = counters_.clean;
    result.full_dumps = counters_.full_dumps;
    result.overruns = counters_.overruns;
    result.lost = counters_.lost;
    result.last_overrun_time = counters_.last_overrun_time;
    result.events = counters_.events;
    result.refused = counters_.refused;
    result.dumps_clean = counters_.dumps_clean;
    result.dumps_unclean = counters_.dumps_unclean;
    return result;
}

std::vector<std::string> kernel_plane::lacks() const
{
    const struct {
        bool is_lacking;
        const char *text;
    } features[] = {
        {lacks_next_hops_, "notifications of next hops: entries of a deleted one stay until the next full dump"},
        {lacks_vlans_, "VLAN filtering of bridges: no entry has a VLAN"},
        {lacks_port_vlans_,
         "lists of a port's VLANs: answers stay degraded while a port's map to VNIs has over 2,300 rows"},
        {lacks_questions_, "questions about single entries: ages are as old as the last full dump"},
    };
    std::vector<std::string> found;
    for (const auto &feature : features) {
        if (feature.is_lacking) {
            found.emplace_back(feature.text);
        }
    }
    return found;
}

// ---- Questions ----

void kernel_plane::allow_queries(bool allowed)
{
    const base::scoped_lock hold(query_mutex_);
    may_query_ = allowed;
}

void kernel_plane::query(std::span<const fdb_key> keys, std::span<fdb_answer> answers)
{
    const base::scoped_lock hold(query_mutex_);
    if (!may_query_) {
        std::fill(answers.begin(), answers.end(), fdb_answer{});
        return;
    }
    kernel_query(querier_, keys, answers);
    counters_.refused += std::exchange(querier_.refused, 0);
    lacks_questions_ = querier_.is_unsupported;
}

bool kernel_plane::query_allowed()
{
    const base::scoped_lock hold(query_mutex_);
    return may_query_;
}

void kernel_plane::query_ages(std::span<const fdb_key> keys, std::span<fdb_answer> answers)
{
    std::ranges::fill(answers, fdb_answer{});
    if (!query_allowed()) {
        return;
    }
    ages_.answer(keys, answers);
    std::vector<fdb_key> rest;
    for (size_t at = 0; at < keys.size(); at++) {
        if (answers[at].presence == fdb_presence::unknown) {
            rest.push_back(keys[at]);
        }
    }
    if (rest.empty()) {
        return;
    }
    std::vector<fdb_answer> found(rest.size());
    const int64_t began = thread_time_ns();
    query(rest, found);
    ages_.note_questions(rest.size(), thread_time_ns() - began);
    for (size_t at = 0, next = 0; next < found.size(); at++) {
        if (answers[at].presence == fdb_presence::unknown) {
            answers[at] = found[next++];
        }
    }
}

std::unique_ptr<plane> make_kernel_plane(const kernel_options &options)
{
    return std::make_unique<kernel_plane>(options);
}

} // namespace forwarding
