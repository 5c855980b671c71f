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

// Who makes a call: the module's threads in the order in which they are created, a thread that says so, everybody else.
enum role { cache, edm, platform, caller };

// One call that fails: the nth one of a function by a thread, with this result and errno.
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
    std::vector<fault> faults;
    std::vector<pthread_t> threads;
    pthread_mutex_t *table_lock = nullptr;
    event_message_fn handler = nullptr;
};

inline recorder the;
inline thread_local role self = caller;
inline thread_local bool starting = false;

inline void note(const std::string &entry)
{
    const std::lock_guard lock(the.mutex);
    the.journals[self].push_back(entry);
    the.changed.notify_all();
}

// The entries of a thread since the last call, once there are as many as expected.
inline journal take_journal(role who, size_t expected = 0)
{
    std::unique_lock lock(the.mutex);
    the.changed.wait_for(lock, std::chrono::seconds(30), [&] { return the.journals[who].size() >= expected; });
    return std::exchange(the.journals[who], {});
}

inline bool take_fault(const char *function, fault &found)
{
    const std::lock_guard lock(the.mutex);
    for (fault &each : the.faults) {
        if (each.who == self && std::string(each.function) == function && --each.nth == 0) {
            found = each;
            return true;
        }
    }
    return false;
}

// The function that this program's definition hides.
template <typename Function>
Function *hidden(Function *, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// Calls it, unless the call is to fail.
template <typename Function>
auto pass_on(Function *function, const char *name)
{
    return [=](auto... arguments) {
        if (fault hit; take_fault(name, hit)) {
            errno = hit.error;
            return (std::invoke_result_t<Function *, decltype(arguments)...>)hit.result;
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
    note(words("begin", is_blocked(SIGRTMIN + 6), is_blocked(SIGRTMIN + 10)));
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

inline l2fib_mac_edm_pd_cb_t silent_callbacks()
{
    const auto nothing = [] { note("callback"); };
    l2fib_mac_edm_pd_cb_t callbacks{};
    callbacks.resync_all_cb = callbacks.action_cb = callbacks.cb4 = callbacks.cb6 = nothing;
    callbacks.resync_bd_cb = [](uint16_t bridge_id) { note(words("resync_bd_cb", bridge_id)); };
    callbacks.resync_bp_cb = [](uint32_t xcid) { note(words("resync_bp_cb", xcid)); };
    callbacks.bd_mac_count_cb = [](uint16_t, edm_mac_counters_t *) { return 1u; };
    callbacks.cache_evm_cb = [](event_manager_t *evm) {
        note(words("cache_evm_cb", evm != nullptr && evm == l2fib_mac_cache_evm));
    };
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

// Ends whatever threads were started.
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
#define SCENARIO_FORWARD(result, name, parameters, arguments, entry)                  \
    extern "C" result name parameters                                                 \
    {                                                                                 \
        scenario::note(entry);                                                        \
        return std::apply(scenario::pass_on(name, #name), std::make_tuple arguments); \
    }

// Functions that others call, too, are looked at while the module is being started only.
extern "C" int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) noexcept
{
    if (!scenario::starting) {
        return scenario::hidden(pthread_mutex_init, "pthread_mutex_init")(mutex, attributes);
    }
    int kind = -1;
    pthread_mutexattr_gettype(attributes, &kind);
    scenario::note(kind == PTHREAD_MUTEX_RECURSIVE ? "pthread_mutex_init recursive" : "pthread_mutex_init");
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
    note(words("pthread_create", attributes == nullptr ? "default" : "with attributes"));
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
