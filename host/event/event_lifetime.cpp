// SPDX-License-Identifier: Apache-2.0

// The life of event managers: the directory that finds them by path, and their end.
//
// A manager is closed under its mutex, by event_manager_stop on any thread or by the end of its own (a thread-local
// object notices that); from then on nothing enters. What was queued is dropped by the thread that closed it. The
// manager has ended when that is done, and is left when its thread is gone too; the directory announces both, and its
// mutex guards what it announces. Records are kept for the life of the process, since handles may be used for as long.
#include "host/event/event_manager.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>

#include "host/never_destroyed.h"
#include "host/out_of_memory.h"

namespace {

struct directory {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, event_manager *, std::less<>> by_path;
    std::vector<std::unique_ptr<event_manager>> all;
};

directory &managers()
{
    static host::never_destroyed<directory> the_directory;
    return the_directory.object;
}

void announce(bool event_manager::*fact, event_manager &evm)
{
    const std::lock_guard lock(managers().mutex);
    evm.*fact = true;
    managers().changed.notify_all();
}

// Waits until `condition`, which reads what the directory guards, holds; false when it did not within `seconds`.
template <typename Condition>
bool wait_for_announcement(uint32_t seconds, Condition condition)
{
    std::unique_lock lock(managers().mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    return managers().changed.wait_until(lock, deadline, condition);
}

// Takes the oldest work off the queue; false when there is none.
bool take_queued(event_manager &evm, host::queued_work &work)
{
    const std::lock_guard lock(evm.mutex);
    if (evm.queue.empty()) {
        return false;
    }
    work = evm.queue.front();
    evm.queue.pop_front();
    return true;
}

// Needs no memory: a thread ends whether there is any or not.
void close_manager(event_manager &evm)
{
    {
        const std::lock_guard lock(evm.mutex);
        if (std::exchange(evm.closed, true)) {
            return;
        }
        evm.handlers.clear();
        evm.descriptors.records.clear();
        evm.timers.records.clear();
        evm.due.clear();
        host::wake(evm);
    }
    for (host::queued_work work{}; take_queued(evm, work);) {
        host::drop_work(work);
    }
    host::reset_clients(&evm.channel);
    host::close_connections(&evm);
    announce(&event_manager::ended, evm);
}

void leave(event_manager &evm)
{
    close_manager(evm);
    host::discard_received(evm);
    host::close_descriptors(evm);
    std::unique_lock lock(managers().mutex);
    // Somebody else may have closed it and be at work on the rest.
    managers().changed.wait(lock, [&evm] { return evm.ended; });
    evm.left = true;
    managers().changed.notify_all();
}

// The managers that a thread has created, the newest first, all others closed; its end is their end. Other objects of
// the thread may end later and still ask whose a manager is.
struct thread_managers {
    event_manager *newest = nullptr;

    thread_managers() = default;
    thread_managers(const thread_managers &) = delete;
    thread_managers &operator=(const thread_managers &) = delete;
    ~thread_managers()
    {
        for (event_manager *evm = newest; evm != nullptr; evm = evm->older) {
            leave(*evm);
        }
    }
};

thread_local thread_managers this_thread;

uint32_t create_manager(const char *path, event_manager_t *&created)
{
    event_manager *&newest = this_thread.newest;
    if (newest != nullptr && !host::is_closed(newest)) {
        return EBUSY;
    }
    auto evm = std::make_unique<event_manager>(path);
    if (!host::open_descriptors(*evm)) {
        return static_cast<uint32_t>(errno);
    }
    directory &all = managers();
    const std::lock_guard lock(all.mutex);
    all.all.reserve(all.all.size() + 1);
    event_manager *&known = all.by_path[evm->path];
    if (known != nullptr && !known->ended) {
        return EEXIST;
    }
    evm->older = std::exchange(newest, evm.get());
    created = known = newest;
    all.all.push_back(std::move(evm));
    return 0;
}

// Waits for the end of the manager's thread and then, under the directory's mutex, runs `then` for a status.
template <typename Then>
uint32_t wait_left(event_manager_t *evm, uint32_t seconds, Then then)
{
    if (evm == nullptr) {
        return EINVAL;
    }
    if (host::is_own_manager(evm)) {
        return EDEADLK;
    }
    uint32_t status = ETIMEDOUT;
    wait_for_announcement(seconds, [&] {
        if (evm->left) {
            status = then();
        }
        return evm->left;
    });
    return status;
}

// The directory's mutex is held. The thread of a manager, which may have had others before, is joined once.
uint32_t take_thread(const event_manager &evm)
{
    if (evm.joined) {
        return ESRCH;
    }
    for (const auto &other : managers().all) {
        other->joined = other->joined || pthread_equal(other->thread, evm.thread) != 0;
    }
    return 0;
}

} // namespace

namespace host {

bool is_own_manager(const event_manager_t *evm)
{
    const event_manager *own = this_thread.newest;
    while (own != nullptr && own != evm) {
        own = own->older;
    }
    return own != nullptr;
}

void announce_serving(event_manager_t &evm)
{
    announce(&event_manager::serving, evm);
}

event_manager_t *event_manager_find(const char *path)
{
    directory &all = managers();
    const std::lock_guard lock(all.mutex);
    const auto found = path == nullptr ? all.by_path.end() : all.by_path.find(path);
    return found == all.by_path.end() ? nullptr : found->second;
}

event_manager_state event_manager_wait(const char *path, uint32_t seconds)
{
    event_manager_state state = event_manager_state::timed_out;
    if (path == nullptr) {
        return state;
    }
    wait_for_announcement(seconds, [&] {
        const auto found = managers().by_path.find(path);
        if (found != managers().by_path.end() && (found->second->serving || found->second->ended)) {
            state = found->second->ended ? event_manager_state::ended : event_manager_state::serving;
        }
        return state != event_manager_state::timed_out;
    });
    return state;
}

uint32_t event_manager_stop(event_manager_t *evm)
{
    if (evm == nullptr) {
        return EINVAL;
    }
    close_manager(*evm);
    if (is_own_manager(evm)) {
        close_descriptors(*evm);
    }
    return 0;
}

uint32_t event_manager_wait_left(event_manager_t *evm, uint32_t seconds)
{
    return wait_left(evm, seconds, [] { return uint32_t{0}; });
}

uint32_t event_manager_join(event_manager_t *evm, uint32_t seconds)
{
    const uint32_t status = wait_left(evm, seconds, [evm] { return take_thread(*evm); });
    return status != 0 ? status : static_cast<uint32_t>(pthread_join(evm->thread, nullptr));
}

void event_manager_forget_ended()
{
    directory &all = managers();
    const std::lock_guard lock(all.mutex);
    std::erase_if(all.by_path, [](const auto &entry) { return entry.second->ended; });
}

} // namespace host

event_manager_t *event_manager_create(uint32_t reserved1, const char *path, uint32_t, uint32_t reserved2)
{
    event_manager_t *created = nullptr;
    uint32_t status = EINVAL;
    if (reserved1 == 0 && path != nullptr && *path != '\0' && reserved2 == 0) {
        status = host::or_out_of_memory([&] { return create_manager(path, created); });
    }
    if (status != 0) {
        errno = static_cast<int>(status);
    }
    return created;
}
