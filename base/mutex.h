// SPDX-License-Identifier: Apache-2.0

// The standard library's mutex with the attributes that clang's thread-safety analysis reads.
//
//      base::mutex lock;
//      std::vector<int> queue L2FIB_GUARDED_BY(lock);
//      ...
//      const base::scoped_lock hold(lock);
//      queue.push_back(1);
//
// To wait for a condition, use std::condition_variable_any with the mutex itself: `condition.wait(lock)` between the
// lines of a scoped_lock, in a loop that tests the condition.
#pragma once

#include <mutex>

#include "platform/thread_safety.h"

namespace base {

class L2FIB_CAPABILITY("mutex") mutex {
public:
    void lock() L2FIB_ACQUIRE() { mutex_.lock(); }
    void unlock() L2FIB_RELEASE() { mutex_.unlock(); }
    bool try_lock() L2FIB_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

private:
    std::mutex mutex_;
};

class L2FIB_SCOPED_CAPABILITY scoped_lock {
public:
    explicit scoped_lock(mutex &held) L2FIB_ACQUIRE(held) : mutex_(held) { mutex_.lock(); }
    ~scoped_lock() L2FIB_RELEASE() { mutex_.unlock(); }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;

private:
    mutex &mutex_;
};

} // namespace base
