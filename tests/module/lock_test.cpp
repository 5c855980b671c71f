// SPDX-License-Identifier: Apache-2.0

// The table lock: recursion, the record of a take that waits, misuse, and no wait for a resync while it is held.
#include "tests/support/module/module_scenario.h"

#include <atomic>

using namespace scenario;

static std::atomic<int> waits, ended_waits;
static bool trylock_fails = false;

extern "C" void ptd_set_mutex_block(const pthread_mutex_t *lock, const char *function, uint32_t line)
{
    table_lock = const_cast<pthread_mutex_t *>(lock);
    EXPECT_STREQ(function, "l2fib_mac_edm_mutex_lock");
    EXPECT_NE(line, 0u);
    waits++;
    waits.notify_one();
}

extern "C" void ptd_unset_mutex_block()
{
    ended_waits++;
}

extern "C" int pthread_mutex_trylock(pthread_mutex_t *lock) noexcept
{
    return trylock_fails ? EINVAL : INTERPOSE_HIDDEN(pthread_mutex_trylock)(lock);
}

namespace {

// Another thread takes the lock while this one holds it `hold` times. It has to wait for the last release.
void take_behind(uint32_t hold)
{
    for (uint32_t take = 0; take < hold; take++) {
        l2fib_mac_edm_mutex_lock();
    }
    EXPECT_EQ(waits, ended_waits) << "a take that does not wait leaves no record";
    const int before = waits;
    bool is_released = false; // guarded by the lock
    std::thread waiter([&is_released] {
        l2fib_mac_edm_mutex_lock();
        EXPECT_TRUE(is_released);
        l2fib_mac_edm_mutex_unlock();
    });
    waits.wait(before);
    for (uint32_t take = 1; take < hold; take++) {
        l2fib_mac_edm_mutex_unlock();
        EXPECT_TRUE(is_table_locked());
    }
    is_released = true;
    l2fib_mac_edm_mutex_unlock();
    waiter.join();
    EXPECT_EQ(waits, before + 1);
    EXPECT_EQ(ended_waits, waits);
    EXPECT_FALSE(is_table_locked());
}

TEST(Lock, IsFreeAgainAfterAsManyReleasesAsTakes)
{
    take_behind(1);
    take_behind(3);
}

TEST(Lock, TracesFailures)
{
    trylock_fails = true;
    take_all_traces();
    l2fib_mac_edm_mutex_lock();
    trylock_fails = false;
    EXPECT_EQ(take_all_traces(), "1959 l2fib_mac_edm_mutex_lock 22");
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer itself stops a release by the wrong thread";
#endif
    l2fib_mac_edm_mutex_unlock();
    EXPECT_EQ(take_all_traces(), "1959 l2fib_mac_edm_mutex_unlock 1");
    take_behind(1);
    l2fib_mac_edm_mutex_lock();
    std::thread(l2fib_mac_edm_mutex_unlock).join();
    EXPECT_EQ(take_all_traces(), "1959 l2fib_mac_edm_mutex_unlock 1");
    EXPECT_TRUE(is_table_locked());
    l2fib_mac_edm_mutex_unlock();
    EXPECT_FALSE(is_table_locked());
}

#ifndef NDEBUG
TEST(LockDeathTest, ForbidsAResyncWhileItIsHeld)
{
    l2fib_mac_edm_mutex_lock();
    l2fib_mac_edm_mutex_lock();
    l2fib_mac_edm_mutex_unlock();
    EXPECT_DEATH(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, nullptr), "table_lock_depth");
    l2fib_mac_edm_mutex_unlock();
    EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, nullptr), EDM_ERR_INVALID_ARGS) << "not started";
}
#endif

} // namespace
