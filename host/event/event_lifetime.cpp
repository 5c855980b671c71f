// SPDX-License-Identifier: Apache-2.0

// The life of event managers: the directory that finds a manager by its path, and the end of a manager.
//
//      created ---> serving ---> closed ---> ended ---> left
//
// event_manager_stop closes a manager, on any thread; so does the end of the manager's thread, which a thread-local
// object notices. A closed manager accepts nothing. The thread that closed it drops what was queued, and then announces
// `ended`. The manager's thread announces `left` when it ends. Manager records live as long as the process, because
// other threads may use their handles for as long.
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
    std::condition_variable_any changed;
    std::map<std::string, event_manager *, std::less<>> by_path L2FIB_GUARDED_BY(host::directory_lock);
    std::vector<std::unique_ptr<event_manager>> all L2FIB_GUARDED_BY(host::directory_lock);
};

directory &managers()
{
    static host::never_destroyed<directory> the_directory;
    return the_directory.object;
}

void announce(bool event_manager::*fact, event_manager &evm) L2FIB_EXCLUDES(host::directory_lock)
{
    const base::scoped_lock hold(host::directory_lock);
    evm.*fact = true;
    managers().changed.notify_all();
}

// Waits at most `seconds` until an announcement makes `condition` true. Returns whether it is true.
template <typename Condition>
bool wait_for_announcement(uint32_t seconds, Condition condition) L2FIB_REQUIRES(host::directory_lock)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    bool is_late = false;
    while (!condition() && !is_late) {
        is_late = managers().changed.wait_until(host::directory_lock, deadline) == std::cv_status::timeout;
    }
    return condition();
}

// Takes the oldest work off the queue. False if the queue is empty.
bool take_queued(event_manager &evm, host::queued_work &work)
{
    const base::scoped_lock hold(evm.mutex);
    if (evm.queue.empty()) {
        return false;
    }
    work = evm.queue.front();
    evm.queue.pop_front();
    return true;
}

// Closes a manager. Allocates no memory, because a thread must be able to end without any.
void close_manager(event_manager &evm)
{
    {
        const base::scoped_lock hold(evm.mutex);
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
    const base::scoped_lock hold(host::directory_lock);
    // Another thread may have closed the manager and still be dropping what was queued.
    while (!evm.ended) {
        managers().changed.wait(host::directory_lock);
    }
    evm.left = true;
    managers().changed.notify_all();
}

// The managers that a thread created, the newest first. All but the newest are closed. The destructor runs at the end
// of the thread. It leaves the list as it is, because other thread-local objects may be destroyed later and still call
// is_own_manager.
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
    const base::scoped_lock hold(host::directory_lock);
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

// Marks a thread as joined, in all managers that it has had. ESRCH: it is marked already.
uint32_t mark_joined(const event_manager &evm) L2FIB_REQUIRES(host::directory_lock)
{
    if (evm.joined) {
        return ESRCH;
    }
    for (const auto &other : managers().all) {
        other->joined = other->joined || pthread_equal(other->thread, evm.thread) != 0;
    }
    return 0;
}

// Waits until the manager's thread has left it, and marks the thread as joined.
uint32_t wait_left(const event_manager &evm, uint32_t seconds) L2FIB_EXCLUDES(host::directory_lock)
{
    const base::scoped_lock hold(host::directory_lock);
    const bool has_left =
        wait_for_announcement(seconds, [&evm]() L2FIB_REQUIRES(host::directory_lock) { return evm.left; });
    return has_left ? mark_joined(evm) : ETIMEDOUT;
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
    const base::scoped_lock hold(directory_lock);
    const auto found = path == nullptr ? all.by_path.end() : all.by_path.find(path);
    return found == all.by_path.end() ? nullptr : found->second;
}

event_manager_state event_manager_wait(const char *path, uint32_t seconds)
{
    event_manager_state state = event_manager_state::timed_out;
    if (path == nullptr) {
        return state;
    }
    const base::scoped_lock hold(directory_lock);
    wait_for_announcement(seconds, [&]() L2FIB_REQUIRES(directory_lock) {
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

uint32_t event_manager_join(event_manager_t *evm, uint32_t seconds)
{
    if (evm == nullptr) {
        return EINVAL;
    }
    if (is_own_manager(evm)) {
        return EDEADLK;
    }
    const uint32_t status = wait_left(*evm, seconds);
    return status != 0 ? status : static_cast<uint32_t>(pthread_join(evm->thread, nullptr));
}

void event_manager_forget_ended()
{
    const base::scoped_lock hold(directory_lock);
    std::erase_if(managers().by_path,
                  [](const auto &entry) L2FIB_REQUIRES(directory_lock) { return entry.second->ended; });
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
