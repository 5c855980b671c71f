/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Attributes for clang's thread-safety analysis. They state which lock guards a datum, and which lock a function needs,
 * takes or must not hold. `scripts/check` builds with the analysis on, so a wrong attribute or a forgotten lock stops
 * the build. Other compilers ignore the attributes.
 *
 *      struct L2FIB_CAPABILITY("mutex") some_lock { ... };
 *      uint32_t entries L2FIB_GUARDED_BY(lock);
 *      void recount(void) L2FIB_REQUIRES(lock);         the caller holds the lock
 *      void refresh(void) L2FIB_EXCLUDES(lock);         the caller does not hold it: this function takes it
 *
 * The table lock has attributes of its own (l2fib_mac_edm.h).
 */
#pragma once

#include "platform/export.h"

#if defined(__clang__)
#define L2FIB_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define L2FIB_THREAD_ATTRIBUTE(attribute)
#endif

#define L2FIB_CAPABILITY(name) L2FIB_THREAD_ATTRIBUTE(capability(name))
#define L2FIB_SCOPED_CAPABILITY L2FIB_THREAD_ATTRIBUTE(scoped_lockable)
#define L2FIB_GUARDED_BY(lock) L2FIB_THREAD_ATTRIBUTE(guarded_by(lock))
#define L2FIB_PT_GUARDED_BY(lock) L2FIB_THREAD_ATTRIBUTE(pt_guarded_by(lock))
#define L2FIB_REQUIRES(...) L2FIB_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define L2FIB_REQUIRES_SHARED(...) L2FIB_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define L2FIB_EXCLUDES(...) L2FIB_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define L2FIB_ACQUIRE(...) L2FIB_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define L2FIB_RELEASE(...) L2FIB_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define L2FIB_TRY_ACQUIRE(...) L2FIB_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define L2FIB_ASSERT_CAPABILITY(lock) L2FIB_THREAD_ATTRIBUTE(assert_capability(lock))
#define L2FIB_RETURN_CAPABILITY(lock) L2FIB_THREAD_ATTRIBUTE(lock_returned(lock))
#define L2FIB_NO_THREAD_SAFETY_ANALYSIS L2FIB_THREAD_ATTRIBUTE(no_thread_safety_analysis)
