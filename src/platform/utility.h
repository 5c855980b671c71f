/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Platform utilities: node ids, time stamps, texts of addresses, thread names, lock-wait diagnostics.
 *
 * Threads: any, also under the table lock.
 *
 * Errors: statuses are 0 for success.
 */
#pragma once

#include <pthread.h>

#include "platform/export.h"

L2FIB_BEGIN_DECLS

/* Stores the id of the node that the calling process runs on. A failure may leave `node_id` unchanged. */
L2FIB_EXPORT uint32_t platform_get_my_nodeid(uint32_t *node_id);

/* Stores the id of the node that an interface handle belongs to. A failure may leave `node_id` unchanged. */
L2FIB_EXPORT uint32_t platform_ifhandle_parse_ifhandle(uint32_t ifhandle, uint32_t *node_id);

/*
 * Returns a time stamp in nanoseconds since an arbitrary start. It never runs backwards. The difference of two stamps
 * is an age. The module takes one stamp per fed entry, so this call has to be cheap.
 */
L2FIB_EXPORT uint64_t fts_get_stamp_fast(void);

/*
 * Returns the text of the first `length` bytes of an address. The text lies in storage of the calling thread, and the
 * next call may overwrite it: the caller copies it at once.
 */
L2FIB_EXPORT const char *macstring(const uint8_t *address, uint32_t length);

/* Names a thread. The operating system may cut the name. */
L2FIB_EXPORT uint32_t set_thread_name(const char *name, pthread_t thread);

/*
 * Lock-wait diagnostics, which show an operator which thread waits where. The first function records that the calling
 * thread is about to block on `lock` at `line` of `function`, a text with static storage. The second one clears that
 * record. There is one record per thread.
 */
L2FIB_EXPORT void ptd_set_mutex_block(const pthread_mutex_t *lock, const char *function, uint32_t line);
L2FIB_EXPORT void ptd_unset_mutex_block(void);

L2FIB_END_DECLS
