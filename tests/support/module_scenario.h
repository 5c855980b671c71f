// SPDX-License-Identifier: Apache-2.0

// Starts the module in a process of its own, writes down what each thread asks of the platform, and makes chosen calls
// fail. For one source of a test program: it defines functions of the platform, which win over those of the libraries
// and forward to them.
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <map>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "host/event/event_host.h"
#include "l2fib_mac_edm.h"
#include "l2fm_edm_table.h"
#include "platform/l2fib.h"
#include "platform/message.h"
#include "platform/notification.h"
#include "platform/utility.h"
#include "tests/support/event_loop.h"
#include "tests/support/words.h"

namespace scenario {

using test::hex;
using test::words;
using journal = std::vector<std::string>;

// Who makes a call: the module's threads in the order of their creation, a thread that sets `self`, every other one.
enum role { cache, edm, platform, caller };

// The nth call of a function by a thread does not happen and returns this result and errno.
struct fault {
    role who = caller;
    const char *function = "";
    uint64_t result = 0;
    int error = 0;
    int nth = 1;
};

struct recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<role, journal> journals;
    fault failing;
    std::vector<pthread_t> threads;
    pthread_mutex_t *table_lock = nullptr;
};

inline recorder the;
inline thread_local role self = caller;
inline thread_local bool starting = false;

// Adds an entry to the thread's journal; an empty one is left out.
inline void note(const std::string &entry)
{
    const std::lock_guard lock(the.mutex);
    the.journals[self].insert(the.journals[self].end(), entry.empty() ? 0 : 1, entry);
    the.changed.notify_all();
}

// The entries of a thread since the last call. Waits until there are as many as expected.
inline journal take_journal(role who, size_t expected = 0)
{
    std::unique_lock lock(the.mutex);
    the.changed.wait_for(lock, std::chrono::seconds(30), [&] { return the.journals[who].size() >= expected; });
    return std::exchange(the.journals[who], {});
}

inline void expect(role who, const journal &expected)
{
    EXPECT_EQ(take_journal(who, expected.size()), expected);
}

// Whether this call of the function is the one that fails.
inline bool meets_fault(const char *function)
{
    const std::lock_guard lock(the.mutex);
    return the.failing.who == self && std::string(the.failing.function) == function && --the.failing.nth == 0;
}

// The function that this program's definition hides.
template <typename Function>
Function *hidden(Function *, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// A function that calls the hidden one, unless the call fails.
template <typename Function>
auto pass_on(Function *function, const char *name)
{
    return [=](auto... arguments) {
        if (meets_fault(name)) {
            errno = the.failing.error;
            return (std::invoke_result_t<Function *, decltype(arguments)...>)the.failing.result;
        }
        return hidden(function, name)(arguments...);
    };
}

inline bool is_blocked(int signal)
{
    sigset_t mask;
    return pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0 && sigismember(&mask, signal) == 1;
}

inline const char *lock_state()
{
    int status = 0;
    std::thread([&status] {
        status = pthread_mutex_trylock(the.table_lock);
        if (status == 0) {
            pthread_mutex_unlock(the.table_lock);
        }
    }).join();
    return status == EBUSY ? "locked" : "free";
}

struct thread_start {
    void *(*body)(void *);
    void *argument;
    role who;
};

inline void *run_thread(void *cookie)
{
    const auto *start = static_cast<thread_start *>(cookie);
    self = start->who;
    EXPECT_TRUE(is_blocked(SIGRTMIN + 6) && is_blocked(SIGRTMIN + 10));
    void *result = start->body(start->argument);
    note("end");
    return result;
}

// Runs `body` in a child process; its expectations count here.
template <typename Body>
void in_own_process(Body body)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(120);
        const auto *result = testing::UnitTest::GetInstance()->current_test_info()->result();
        const int before = result->total_part_count();
        body();
        std::fflush(nullptr);
        std::exit(result->total_part_count() == before ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// Callbacks that write their calls down.
inline l2fib_mac_edm_pd_cb_t noted_callbacks()
{
    l2fib_mac_edm_pd_cb_t callbacks{};
    callbacks.resync_all_cb = callbacks.action_cb = callbacks.cb4 = callbacks.cb6 = [] { note("callback"); };
    callbacks.resync_bd_cb = [](uint16_t) { note("callback"); };
    callbacks.resync_bp_cb = [](uint32_t) { note("callback"); };
    callbacks.bd_mac_count_cb = [](uint16_t, edm_mac_counters_t *) { return 1u; };
    callbacks.cache_evm_cb = [](event_manager_t *evm) { EXPECT_TRUE(evm != nullptr && evm == l2fib_mac_cache_evm); };
    return callbacks;
}

template <typename Handle>
Handle *handle_of(uintptr_t value)
{
    return reinterpret_cast<Handle *>(value);
}

inline uint32_t start_module(const l2fib_mac_edm_pd_cb_t &callbacks)
{
    starting = true;
    const uint32_t status = l2fib_mac_edm_init(handle_of<event_manager_t>(0x10), handle_of<void>(0x20),
                                               handle_of<msg_chan_t>(0x30), &callbacks);
    starting = false;
    return status;
}

// Ends all threads that were started.
inline void stop_module()
{
    for (const char *path : {EDM_CACHE_THREAD_PATH, EDM_REQUEST_THREAD_PATH}) {
        host::event_manager_stop(host::event_manager_find(path));
    }
    for (const pthread_t thread : std::exchange(the.threads, {})) {
        pthread_join(thread, nullptr);
    }
}

} // namespace scenario

// NOLINTBEGIN(misc-definitions-in-headers)
#define SCENARIO_FORWARD(result, name, parameters, arguments, entry) \
    extern "C" result name parameters                                \
    {                                                                \
        scenario::note(entry);                                       \
        return scenario::pass_on(name, #name) arguments;             \
    }

// Other code calls these functions as well: they are watched only while the module starts.
extern "C" int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) noexcept
{
    if (!scenario::starting) {
        return scenario::hidden(pthread_mutex_init, "pthread_mutex_init")(mutex, attributes);
    }
    scenario::the.table_lock = mutex;
    return scenario::pass_on(pthread_mutex_init, "pthread_mutex_init")(mutex, attributes);
}

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                              void *argument) noexcept
{
    using namespace scenario;
    if (!starting) {
        return hidden(pthread_create, "pthread_create")(thread, attributes, body, argument);
    }
    static thread_start starts[] = {{nullptr, nullptr, cache}, {nullptr, nullptr, edm}};
    static thread_start *next = starts;
    next->body = body;
    next->argument = argument;
    const int status = pass_on(pthread_create, "pthread_create")(thread, attributes, run_thread, next++);
    if (status == 0) {
        the.threads.push_back(*thread);
    }
    return status;
}

extern "C" void edm_trace_point(l2fib_debug_ctx_t *, uint32_t id, const char *function, const uint64_t *values,
                                uint32_t count)
{
    std::string entry = scenario::words("trace", id, function);
    for (uint32_t at = 0; at < count; at++) {
        entry += ' ' + std::to_string(values[at]);
    }
    scenario::note(entry);
}
// NOLINTEND(misc-definitions-in-headers)
