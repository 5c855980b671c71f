// SPDX-License-Identifier: Apache-2.0

// Starts and ends the module in a process of its own, so that each case begins with a module that never ran. For one
// source of a test program, together with tests/support/faults/interpose.h, which makes calls of the platform fail.
#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "host/event/event_host.h"
#include "l2fib_mac_edm.h"
#include "platform/l2fib.h"
#include "platform/message.h"
#include "tests/support/faults/interpose.h"
#include "tests/support/host/event_loop.h"
#include "tests/support/host/new_traces.h"
#include "tests/support/table/small_table.h"
#include "tests/support/words.h"

namespace scenario {

using test::words;

constexpr uint32_t refusal = 5; // the status of every refused call

inline std::vector<pthread_t> threads; // of the module, in the order of their creation
inline pthread_mutex_t *table_lock = nullptr;
// Whether this thread starts the module. Other threads start threads of their own, such as that of the arena.
inline thread_local bool is_starting = false;

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
        test::skip_traces();
        body();
        std::fflush(nullptr);
        std::exit(result->total_part_count() == before ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

inline bool are_signals_blocked()
{
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGRTMIN + 6) == 1 && sigismember(&mask, SIGRTMIN + 10) == 1;
}

// Whether another thread holds the table lock, seen from a thread of its own.
inline bool is_table_locked()
{
    int status = 0;
    std::thread([&status] {
        status = pthread_mutex_trylock(table_lock);
        if (status == 0) {
            pthread_mutex_unlock(table_lock);
        }
    }).join();
    return status == EBUSY;
}

// The trace points of both rings since the last call, first those of the normal ring.
inline std::string take_all_traces()
{
    std::string texts;
    for (const host::trace_point &point : test::new_traces(host::trace_ring::normal)) {
        texts += words(point.id, point.function);
        for (uint32_t i = 0; i < point.value_count; i++) {
            texts += " " + std::to_string(point.values[i]);
        }
        texts += "; ";
    }
    return texts + small_table::take_traces();
}

inline l2fib_mac_edm_pd_cb_t silent_callbacks()
{
    l2fib_mac_edm_pd_cb_t callbacks{};
    callbacks.resync_all_cb = callbacks.action_cb = callbacks.cb4 = callbacks.cb6 = [] {};
    callbacks.resync_bd_cb = [](uint16_t) {};
    callbacks.resync_bp_cb = [](uint32_t) {};
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
    is_starting = true;
    const uint32_t status = l2fib_mac_edm_init(handle_of<event_manager_t>(0x10), handle_of<void>(0x20),
                                               handle_of<msg_chan_t>(0x30), &callbacks);
    is_starting = false;
    return status;
}

// Ends all threads that were started.
inline void stop_module()
{
    for (const char *path : {EDM_CACHE_THREAD_PATH, EDM_REQUEST_THREAD_PATH}) {
        host::event_manager_stop(host::event_manager_find(path));
    }
    for (const pthread_t thread : std::exchange(threads, {})) {
        pthread_join(thread, nullptr);
    }
}

} // namespace scenario

// NOLINTBEGIN(misc-definitions-in-headers)
// Other code calls these functions as well, so calls count only on the thread that starts the module.
INTERPOSE_OPERATION(pthread_mutex_init)
INTERPOSE_OPERATION(pthread_create)

extern "C" int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) noexcept
{
    scenario::table_lock = scenario::is_starting ? mutex : scenario::table_lock;
    return scenario::is_starting && interpose::pthread_mutex_init.meet()
               ? static_cast<int>(scenario::refusal)
               : INTERPOSE_HIDDEN(pthread_mutex_init)(mutex, attributes);
}

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                              void *argument) noexcept
{
    const bool counts = std::exchange(scenario::is_starting, false);
    const int status = counts && interpose::pthread_create.meet()
                           ? static_cast<int>(scenario::refusal)
                           : INTERPOSE_HIDDEN(pthread_create)(thread, attributes, body, argument);
    if (counts && status == 0) {
        scenario::threads.push_back(*thread);
    }
    scenario::is_starting = counts;
    return status;
}
// NOLINTEND(misc-definitions-in-headers)
