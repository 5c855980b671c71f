// SPDX-License-Identifier: Apache-2.0

// The table lock: recursion, what is told of a take that waits, misuse, and the rule that nobody waits with it held.
#include "tests/support/module_scenario.h"

using namespace scenario;

extern "C" void ptd_set_mutex_block(const pthread_mutex_t *lock, const char *function, uint32_t line)
{
    the.table_lock = const_cast<pthread_mutex_t *>(lock);
    note(words("waits in", function, line != 0));
}

extern "C" void ptd_unset_mutex_block()
{
    note("waits no more");
}

extern "C" int pthread_mutex_trylock(pthread_mutex_t *lock) noexcept
{
    return pass_on(pthread_mutex_trylock, "pthread_mutex_trylock")(lock);
}

namespace {

// A take by another thread while `hold` takes are out, which has to wait for the last release.
void take_behind(uint32_t hold)
{
    for (uint32_t take = 0; take < hold; take++) {
        l2fib_mac_edm_mutex_lock();
    }
    bool released = false; // guarded by the lock
    std::thread waiter([&released] {
        self = platform;
        l2fib_mac_edm_mutex_lock();
        EXPECT_TRUE(released);
        l2fib_mac_edm_mutex_unlock();
    });
    const journal waiting = take_journal(platform, 1);
    for (uint32_t take = 1; take < hold; take++) {
        l2fib_mac_edm_mutex_unlock();
        EXPECT_STREQ(lock_state(), "locked");
    }
    released = true;
    l2fib_mac_edm_mutex_unlock();
    waiter.join();
    EXPECT_EQ(waiting, journal{"waits in l2fib_mac_edm_mutex_lock 1"});
    EXPECT_EQ(take_journal(platform), journal{"waits no more"});
    EXPECT_EQ(take_journal(caller), journal()) << "a take that does not wait tells nothing";
    EXPECT_STREQ(lock_state(), "free");
}

TEST(Lock, IsFreeAgainAfterAsManyReleasesAsTakes)
{
    take_behind(1);
    take_behind(3);
}

TEST(Lock, TracesWhatFails)
{
    the.failing = {caller, "pthread_mutex_trylock", EINVAL};
    l2fib_mac_edm_mutex_lock();
    EXPECT_EQ(take_journal(caller), journal{"trace 1959 l2fib_mac_edm_mutex_lock 22"});
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer itself stops a release by the wrong thread";
#endif
    take_behind(1);
    l2fib_mac_edm_mutex_unlock();
    EXPECT_EQ(take_journal(caller), journal{"trace 1959 l2fib_mac_edm_mutex_unlock 1"});
    l2fib_mac_edm_mutex_lock();
    std::thread(l2fib_mac_edm_mutex_unlock).join();
    EXPECT_EQ(take_journal(caller), journal{"trace 1959 l2fib_mac_edm_mutex_unlock 1"});
    EXPECT_STREQ(lock_state(), "locked");
    l2fib_mac_edm_mutex_unlock();
    EXPECT_STREQ(lock_state(), "free");
}

#ifndef NDEBUG
TEST(LockDeathTest, ForbidsToWaitForAResyncWithItHeld)
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
