// SPDX-License-Identifier: Apache-2.0

#include "threads/lock.h"

#include <cerrno>
#include <pthread.h>

#include "l2fib_mac_edm.h"
#include "platform/bounded_copy.h"
#include "platform/utility.h"
#include "table/trace_point.h"

namespace edm {
namespace {

// The lock is usable and recursive as soon as the library is loaded.
pthread_mutex_t edm_table_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

#ifndef NDEBUG
thread_local uint32_t depth;
void count_take()
{
    depth++;
}
void count_release()
{
    depth--;
}
#else
void count_take() {}
void count_release() {}
#endif

uint32_t init_lock(const pthread_mutexattr_t &attributes)
{
    if (const uint32_t status = smemzero_s(&edm_table_lock, sizeof(edm_table_lock)); status != 0) {
        return status;
    }
    return static_cast<uint32_t>(pthread_mutex_init(&edm_table_lock, &attributes));
}

// Takes the lock after a wait. Kept out of line, so that a take without a wait stays short. The diagnostics name the
// exported function, because operators know that one.
[[gnu::cold, gnu::noinline]] int take_waiting(const char *function)
{
    ptd_set_mutex_block(&edm_table_lock, function, __LINE__ + 1);
    const int status = pthread_mutex_lock(&edm_table_lock);
    ptd_unset_mutex_block();
    return status;
}

} // namespace

uint32_t table_lock_create()
{
    pthread_mutexattr_t attributes;
    if (const int status = pthread_mutexattr_init(&attributes); status != 0) {
        return static_cast<uint32_t>(status);
    }
    uint32_t status = static_cast<uint32_t>(pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE));
    if (status == 0) {
        status = init_lock(attributes);
    }
    pthread_mutexattr_destroy(&attributes);
    return status;
}

#ifndef NDEBUG
uint32_t table_lock_depth()
{
    return depth;
}
#endif

} // namespace edm

// The declarations of these two functions say that they take and release the table lock. clang's analysis cannot see
// that this mutex is that lock, nor that a failed call leaves it as it was. So it is off in the bodies.
void l2fib_mac_edm_mutex_lock(void) L2FIB_NO_THREAD_SAFETY_ANALYSIS
{
    int status = pthread_mutex_trylock(&edm::edm_table_lock);
    if (status == EBUSY) {
        status = edm::take_waiting(__func__);
    }
    if (status == 0) {
        edm::count_take();
    } else {
        EDM_TRACE(EDM_TRACE_LOCK_FAILED, status);
    }
}

void l2fib_mac_edm_mutex_unlock(void) L2FIB_NO_THREAD_SAFETY_ANALYSIS
{
    const int status = pthread_mutex_unlock(&edm::edm_table_lock);
    if (status == 0) {
        edm::count_release();
    } else {
        EDM_TRACE(EDM_TRACE_LOCK_FAILED, status);
    }
}
