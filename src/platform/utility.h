/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Platform utilities: node ids, time stamps, address texts, thread names, lock-wait diagnostics.
 *
 * Threads: any, also under the table lock. Statuses are 0 for success.
 */
#pragma once

#include <pthread.h>

#include "platform/export.h"

L2FIB_BEGIN_DECLS

/* Stores the id of the node that the calling process runs on; a failure may leave `node_id` as it was. */
L2FIB_EXPORT uint32_t platform_get_my_nodeid(uint32_t *node_id);

/* Stores the id of the node that an interface handle belongs to; a failure may leave `node_id` as it was. */
L2FIB_EXPORT uint32_t platform_ifhandle_parse_ifhandle(uint32_t ifhandle, uint32_t *node_id);

/*
 * A time stamp that never runs backwards, in nanoseconds since an arbitrary start; cheap enough to be taken for every
 * entry of a feed. Differences of two stamps are ages.
 */
L2FIB_EXPORT uint64_t fts_get_stamp_fast(void);

/*
 * The text of the first `length` bytes of an address. It lies in storage of the calling thread that its next call may
 * overwrite: copy it at once.
 */
L2FIB_EXPORT const char *macstring(const uint8_t *address, uint32_t length);

/* Names a thread; the operating system may cut the name. */
L2FIB_EXPORT uint32_t set_thread_name(const char *name, pthread_t thread);

/*
 * Lock-wait diagnostics: the calling thread is about to block on `lock` at `line` of `function` (static storage), and
 * no longer blocks. One record a thread: it tells an operator which thread waits where.
 */
L2FIB_EXPORT void ptd_set_mutex_block(const pthread_mutex_t *lock, const char *function, uint32_t line);
L2FIB_EXPORT void ptd_unset_mutex_block(void);

L2FIB_END_DECLS
