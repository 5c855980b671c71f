// SPDX-License-Identifier: Apache-2.0

// The standard library's mutex with the attributes that clang's thread-safety analysis reads.
//
//      base::mutex lock;
//      std::vector<int> queue L2FIB_GUARDED_BY(lock);
//      std::condition_variable_any filled;
//      ...
//      const base::scoped_lock hold(lock);
//      while (queue.empty()) {
//          filled.wait(lock);
//      }
//      queue.pop_back();
//
// Conditions. A wait takes the mutex itself, not the scoped_lock. It stands in a loop that tests the condition: the
// analysis reads a predicate in a lambda as a function that does not hold the mutex.
//
// A shared_mutex has many readers or one writer. shared_lock holds it for reading, exclusive_lock for writing.
//
// Threads: any. Neither mutex is recursive.
#pragma once

#include <mutex>
#include <shared_mutex>

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

// Holds a mutex from its construction to the end of its block.
class L2FIB_SCOPED_CAPABILITY scoped_lock {
public:
    explicit scoped_lock(mutex &held) L2FIB_ACQUIRE(held)
        : mutex_(held)
    {
        mutex_.lock();
    }
    ~scoped_lock() L2FIB_RELEASE() { mutex_.unlock(); }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;

private:
    mutex &mutex_;
};

class L2FIB_CAPABILITY("mutex") shared_mutex {
public:
    void lock() L2FIB_ACQUIRE() { mutex_.lock(); }
    void unlock() L2FIB_RELEASE() { mutex_.unlock(); }
    void lock_shared() L2FIB_THREAD_ATTRIBUTE(acquire_shared_capability()) { mutex_.lock_shared(); }
    void unlock_shared() L2FIB_THREAD_ATTRIBUTE(release_shared_capability()) { mutex_.unlock_shared(); }

private:
    std::shared_mutex mutex_;
};

// Holds a shared_mutex for writing from its construction to the end of its block.
class L2FIB_SCOPED_CAPABILITY exclusive_lock {
public:
    explicit exclusive_lock(shared_mutex &held) L2FIB_ACQUIRE(held)
        : mutex_(held)
    {
        mutex_.lock();
    }
    ~exclusive_lock() L2FIB_RELEASE() { mutex_.unlock(); }
    exclusive_lock(const exclusive_lock &) = delete;
    exclusive_lock &operator=(const exclusive_lock &) = delete;

private:
    shared_mutex &mutex_;
};

// Holds a shared_mutex for reading from its construction to the end of its block.
class L2FIB_SCOPED_CAPABILITY shared_lock {
public:
    explicit shared_lock(shared_mutex &held) L2FIB_THREAD_ATTRIBUTE(acquire_shared_capability(held))
        : mutex_(held)
    {
        mutex_.lock_shared();
    }
    ~shared_lock() L2FIB_RELEASE() { mutex_.unlock_shared(); }
    shared_lock(const shared_lock &) = delete;
    shared_lock &operator=(const shared_lock &) = delete;

private:
    shared_mutex &mutex_;
};

} // namespace base
