// SPDX-License-Identifier: Apache-2.0

// Event managers: their life, the order and fairness of their loop, and the fate of queued events at their end.

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <csignal>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/support/host/event_loop.h"

namespace {

thread_local bool memory_is_refused = false;

using host::event_manager_state;
using test::create_manager;
using test::event_loop;
using test::serve_one;

constexpr uint64_t millisecond = 1'000'000;

uint64_t now_ns()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::nanoseconds(now).count());
}

void count(void *cookie)
{
    ++*static_cast<std::atomic<int> *>(cookie);
}

void nothing(void *) {}

void read_counter(void *, int fd, uint32_t)
{
    uint64_t value = 0;
    eventfd_read(fd, &value);
}

// A manager that the test serves on its own thread, and a descriptor that is always ready.
class own_manager : public testing::Test {
protected:
    ~own_manager() override
    {
        host::event_manager_stop(evm);
        close(ready);
    }

    event_manager_t *const evm = create_manager("/test/own");
    const int ready = eventfd(1, EFD_NONBLOCK);
};

TEST_F(own_manager, RefusesBadPathsAndASecondManager)
{
    ASSERT_NE(evm, nullptr);
    EXPECT_EQ(host::event_manager_find("/test/own"), evm);
    EXPECT_EQ(host::event_manager_find("/test/none"), nullptr);

    const struct {
        uint32_t reserved1;
        const char *path;
        uint32_t reserved2;
        int error;
    } refusals[] = {
        {1, "/test/a", 0, EINVAL}, {0, nullptr, 0, EINVAL},     {0, "", 0, EINVAL},
        {0, "/test/a", 1, EINVAL}, {0, "/test/own", 0, EEXIST},
    };
    std::thread([&refusals] {
        for (const auto &refused : refusals) {
            errno = 0;
            EXPECT_EQ(event_manager_create(refused.reserved1, refused.path, 12, refused.reserved2), nullptr);
            EXPECT_EQ(errno, refused.error);
        }
    }).join();
    EXPECT_EQ(create_manager("/test/second-of-this-thread"), nullptr);
    EXPECT_EQ(errno, EBUSY);
}

TEST(EventManager, ReportsServingAndEnded)
{
    EXPECT_EQ(host::event_manager_wait("/test/never", 0), event_manager_state::timed_out);
    auto early = std::async(std::launch::async, [] { return host::event_manager_wait("/test/life", 60); });

    event_manager_t *first = nullptr;
    {
        event_loop loop("/test/life");
        first = loop.evm;
        EXPECT_EQ(early.get(), event_manager_state::serving);
        EXPECT_EQ(host::event_manager_join(loop.evm, 0), ETIMEDOUT);
        loop.stop();
        EXPECT_EQ(host::event_manager_wait("/test/life", 60), event_manager_state::ended);
    }
    host::event_manager_forget_ended();
    EXPECT_EQ(host::event_manager_find("/test/life"), nullptr);
    EXPECT_EQ(host::event_manager_wait("/test/life", 0), event_manager_state::timed_out);

    const event_loop again("/test/life");
    EXPECT_NE(again.evm, first);
    EXPECT_EQ(host::event_manager_wait("/test/life", 60), event_manager_state::serving);
}

TEST(EventManager, JoinsAnEndedThreadOnce)
{
    const auto run = [](void *) -> void * {
        host::event_manager_stop(create_manager("/test/had-before"));
        event_manager_t *const evm = create_manager("/test/failed-set-up");
        EXPECT_EQ(host::event_manager_join(evm, 60), EDEADLK);
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, run, nullptr), 0);
    EXPECT_EQ(host::event_manager_wait("/test/failed-set-up", 60), event_manager_state::ended);
    event_manager_t *const evm = host::event_manager_find("/test/failed-set-up");
    EXPECT_EQ(host::event_manager_join(evm, 60), 0u);
    EXPECT_EQ(host::event_manager_join(evm, 60), ESRCH);
    EXPECT_EQ(host::event_manager_join(host::event_manager_find("/test/had-before"), 60), ESRCH);
}

TEST_F(own_manager, DropsQueuedEventsAtItsEnd)
{
    std::atomic<int> run = 0;
    std::atomic<int> dropped = 0;
    uint32_t handle = 0;
    event_record_t record{evm, nullptr, 0, nullptr, {}};
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(host::event_post(evm, count, count, &dropped), 0u);
    }
    EXPECT_EQ(host::event_post(evm, count, nullptr, &run), 0u);
    ASSERT_EQ(event_block(&record), 0); // receives one event and does not dispatch it
    ASSERT_EQ(event_block(&record), 0); // drops it and receives the next one
    EXPECT_EQ(dropped, 1);
    EXPECT_EQ(host::event_manager_stop(evm), 0u);
    EXPECT_EQ(dropped, 2);
    EXPECT_EQ(nos_event_dispatch(&record, 0), 0u) << "it was received in time";
    EXPECT_EQ(dropped, 3);
    EXPECT_EQ(nos_event_dispatch(&record, 0), EINVAL);

    EXPECT_EQ(event_block(&record), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    EXPECT_EQ(host::event_post(evm, count, count, &run), ESHUTDOWN);
    EXPECT_EQ(host::event_fd_attach(evm, ready, EPOLLIN, read_counter, nullptr, &handle), ESHUTDOWN);
    EXPECT_EQ(host::event_timer_attach(evm, 0, 0, nothing, nullptr, &handle), ESHUTDOWN);
    EXPECT_NE(evm_get_chan(evm), nullptr);
    EXPECT_EQ(host::event_manager_stop(evm), 0u);
    EXPECT_EQ(run, 0);
}

TEST(EventManager, EndsWithoutMemory)
{
    std::atomic<int> dropped = 0;
    for (const bool is_stopped : {true, false}) {
        std::thread([&dropped, is_stopped] {
            event_manager_t *const evm = create_manager("/test/leaves");
            EXPECT_EQ(host::event_post(evm, nothing, count, &dropped), 0u);
            EXPECT_EQ(host::event_post(evm, nothing, count, &dropped), 0u);
            event_record_t record{evm, nullptr, 0, nullptr, {}};
            EXPECT_EQ(event_block(&record), 0); // receives the first event and does not dispatch it
            memory_is_refused = true;
            if (is_stopped) {
                EXPECT_EQ(host::event_manager_stop(evm), 0u);
            }
        }).join();
        host::event_manager_forget_ended();
    }
    EXPECT_EQ(dropped, 4);
}

TEST_F(own_manager, ChecksEachFieldOfACallbackRecord)
{
    using record = event_callback_record_t;
    record good{};
    good.tag = EVENT_CALLBACK_TAG;
    good.callback = [](void *, void *) -> uint32_t { return 1; };
    void (*const mistakes[])(record &) = {
        [](record &bad) { bad.tag ^= 1; }, [](record &bad) { bad.callback = nullptr; },
        [](record &bad) { bad.reserved0 = 1; }, [](record &bad) { bad.reserved1[1] = 1; },
        [](record &bad) { bad.reserved2[2] = 1; }};
    for (const auto make : mistakes) {
        record bad = good;
        make(bad);
        EXPECT_EQ(event_callback_attach(evm, &bad), EINVAL);
    }
    EXPECT_EQ(event_callback_attach(nullptr, &good), EINVAL);
    EXPECT_EQ(event_callback_attach(evm, &good), 0u);
    EXPECT_EQ(event_callback_attach(evm, &good), EEXIST);
}

TEST(EventLoop, ServesOnlyItsThreadAndSurvivesSignals)
{
    struct sigaction ignore {}; // not restored, because a signal may arrive after the test
    ignore.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &ignore, nullptr), 0);
    std::atomic<bool> interrupted = false;
    std::promise<pthread_t> self;
    std::thread thread([&] {
        event_manager_t *const evm = create_manager("/test/signals");
        self.set_value(pthread_self());
        EXPECT_EQ(serve_one(evm), EINTR);
        interrupted = true;
        int error = EINTR;
        while (error == EINTR) {
            error = serve_one(evm);
        }
        EXPECT_EQ(error, 0);
    });
    const pthread_t target = self.get_future().get();
    event_manager_t *const evm = host::event_manager_find("/test/signals");
    event_record_t record{evm, nullptr, 0, nullptr, {}};
    EXPECT_EQ(event_block(&record), -1);
    EXPECT_EQ(errno, EPERM);
    while (!interrupted) {
        pthread_kill(target, SIGUSR1);
        sched_yield();
    }
    EXPECT_EQ(host::event_post(evm, nothing, nullptr, nullptr), 0u);
    thread.join();
}

TEST_F(own_manager, LetsNoSourceStarveTheOthers)
{
    static event_manager_t *manager;
    manager = evm;
    const auto handler = [](void *cookie, int, uint32_t) { ++*static_cast<int *>(cookie); };
    const auto fire = [](void *cookie) { ++*static_cast<int *>(cookie); };
    struct repeated {
        static void post(void *cookie)
        {
            ++*static_cast<int *>(cookie);
            host::event_post(manager, post, nullptr, cookie);
        }
    };
    int posts = 0, timers = 0, served[2] = {};
    const int descriptors[] = {ready, dup(ready)};
    uint32_t handle = 0;
    for (size_t i = 0; i < 2; i++) {
        host::event_fd_attach(evm, descriptors[i], EPOLLIN, handler, &served[i], &handle);
    }
    host::event_timer_attach(evm, 0, 1, fire, &timers, &handle);
    repeated::post(&posts);
    for (int i = 0; i < 6000; i++) {
        ASSERT_EQ(serve_one(evm), 0);
    }
    close(descriptors[1]);
    EXPECT_GE(posts, 2500);
    EXPECT_GE(std::min(served[0], served[1]), 500);
    EXPECT_GE(timers, 100);
}

TEST_F(own_manager, ServesADescriptorWhileAttached)
{
    int calls = 0;
    uint32_t attachment = 0;
    const auto handler = [](void *cookie, int, uint32_t events) {
        EXPECT_EQ(events, EPOLLIN);
        ++*static_cast<int *>(cookie);
    };
    EXPECT_EQ(host::event_fd_attach(evm, -1, EPOLLIN, handler, &calls, &attachment), EINVAL);
    EXPECT_EQ(host::event_fd_attach(evm, 9999, EPOLLIN, handler, &calls, &attachment), EBADF);
    ASSERT_EQ(host::event_fd_attach(evm, ready, EPOLLIN, handler, &calls, &attachment), 0u);
    EXPECT_NE(attachment, 0u);
    EXPECT_EQ(host::event_fd_attach(evm, ready, EPOLLIN, handler, &calls, &attachment), EEXIST);
    EXPECT_EQ(serve_one(evm), 0);
    EXPECT_EQ(calls, 1);

    event_record_t record{evm, nullptr, 0, nullptr, {}};
    ASSERT_EQ(event_block(&record), 0);
    EXPECT_EQ(host::event_fd_detach(evm, attachment), 0u);
    EXPECT_EQ(host::event_fd_detach(evm, attachment), EINVAL);
    EXPECT_EQ(nos_event_dispatch(&record, 0), 0u);
    EXPECT_EQ(calls, 1); // detached after its event was received
}

TEST_F(own_manager, FiresTimersInTheOrderOfTimes)
{
    struct entry {
        uint64_t earliest, latest; // when it is due: its attachment took time
        uint32_t timer;
    };
    static std::vector<const entry *> fired;
    fired.clear();
    const auto fire = [](void *cookie) {
        fired.push_back(static_cast<const entry *>(cookie));
        EXPECT_GE(now_ns(), fired.back()->earliest);
    };
    const uint64_t delays[] = {5 * millisecond, UINT64_MAX, millisecond, 0, 3 * millisecond, millisecond};
    entry entries[std::size(delays)] = {};
    for (size_t i = 0; i < std::size(delays); i++) {
        entries[i].earliest = now_ns() + delays[i];
        ASSERT_EQ(host::event_timer_attach(evm, delays[i], 0, fire, &entries[i], &entries[i].timer), 0u);
        entries[i].latest = now_ns() + delays[i];
    }
    EXPECT_EQ(host::event_timer_cancel(evm, entries[4].timer), 0u);
    while (fired.size() < 4) {
        ASSERT_EQ(serve_one(evm), 0);
    }
    for (size_t i = 1; i < fired.size(); i++) {
        EXPECT_LE(fired[i - 1]->earliest, fired[i]->latest);
    }
    EXPECT_EQ(host::event_timer_cancel(evm, entries[3].timer), EINVAL) << "it has fired";
    EXPECT_EQ(host::event_timer_cancel(evm, entries[1].timer), 0u);
}

TEST_F(own_manager, CallsOnceForAllMissedPeriods)
{
    std::atomic<int> calls = 0;
    uint32_t timer = 0;
    const uint64_t period = 10 * millisecond;
    const uint64_t start = now_ns();
    ASSERT_EQ(host::event_timer_attach(evm, 0, period, count, &calls, &timer), 0u);
    std::this_thread::sleep_for(std::chrono::nanoseconds(5 * period + period / 2));
    EXPECT_EQ(serve_one(evm), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(serve_one(evm), 0);
    EXPECT_EQ(calls, 2);
    EXPECT_GE(now_ns() - start, 6 * period) << "the next call is due at a later multiple of the period";

    event_record_t record{evm, nullptr, 0, nullptr, {}};
    ASSERT_EQ(event_block(&record), 0);
    EXPECT_EQ(host::event_timer_cancel(evm, timer), 0u);
    EXPECT_EQ(nos_event_dispatch(&record, 0), 0u);
    EXPECT_EQ(calls, 2) << "cancelled after its event was received";
}

// Managers come and go on one path while other threads post and attach.
TEST(EventStress, RunsOrDropsAllThatIsAccepted)
{
    constexpr int rounds = 30;
    constexpr int posters = 3;
    std::barrier round_start(posters + 1);
    std::atomic<int> accepted = 0;
    std::atomic<int> done = 0;
    const auto post_until_the_end = [&](int fd) {
        event_manager_t *const evm = host::event_manager_find("/test/stress");
        uint32_t handle = 0;
        while (host::event_post(evm, count, count, &done) == 0) {
            accepted++;
            accepted.notify_one();
            host::event_timer_attach(evm, 1000, 0, nothing, nullptr, &handle);
            host::event_timer_cancel(evm, handle);
            host::event_fd_attach(evm, fd, EPOLLIN, read_counter, nullptr, &handle);
            host::event_fd_detach(evm, handle);
        }
    };
    std::vector<std::thread> threads;
    threads.reserve(posters);
    for (int i = 0; i < posters; i++) {
        threads.emplace_back([&] {
            const int ready = eventfd(1, EFD_NONBLOCK);
            for (int round = 0; round < rounds; round++) {
                round_start.arrive_and_wait();
                post_until_the_end(ready);
                round_start.arrive_and_wait();
            }
            close(ready);
        });
    }
    for (int round = 0; round < rounds; round++) {
        const int before = accepted;
        event_loop loop("/test/stress");
        round_start.arrive_and_wait();
        accepted.wait(before);
        loop.stop();
        round_start.arrive_and_wait();
        EXPECT_EQ(done, accepted);
    }
    for (auto &thread : threads) {
        thread.join();
    }
}

} // namespace

// The libraries allocate here as well. Not inlined: the compiler would take the calls of free for mistakes.
[[gnu::noinline]] void *operator new(size_t size)
{
    void *const memory = memory_is_refused ? nullptr : malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, size_t) noexcept
{
    free(memory);
}
