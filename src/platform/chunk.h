/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Chunk allocator: pools of elements of one size. Every record of the cache lives in one of six.
 *
 * Not obvious: an element never moves, and it reads as zero whenever it is handed out, also when it was used before.
 * The allocator must be able to tell its elements from all other pointers: a pointer that is not a live element of the
 * pool is refused, whether it is foreign, points into the middle of an element, or was released before.
 *
 * Threads: the module calls the operations of one pool under its table lock only. Different pools are independent.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct chunk_pool chunk_pool_t;

/* Elements are handed out zero-filled, and the pool grows when its elements are used up. */
#define CHUNK_ZEROED_GROWABLE 0x101u

/*
 * Creates a pool named `name` (copied) of elements of `element_size` bytes, aligned to 8. `element_count` is the number
 * of elements by which the pool grows, `flags` is CHUNK_ZEROED_GROWABLE; the last two arguments are 0.
 * Returns the pool, or null when there is no memory or an argument is not one of these.
 */
L2FIB_EXPORT chunk_pool_t *chunk_create(const char *name, uint32_t element_size, uint32_t element_count, uint32_t flags,
                                        uint32_t reserved1, uint32_t reserved2);

/* A zero-filled element, or null when the pool cannot grow. It is the caller's until chunk_free. */
L2FIB_EXPORT void *chunk_malloc(chunk_pool_t *pool);

/* Releases an element. Nonzero on success; 0, with nothing changed, when it is not a live element of this pool. */
L2FIB_EXPORT uint32_t chunk_free(chunk_pool_t *pool, void *element);

/* Destroys a pool with whatever elements are still out. Null is ignored. */
L2FIB_EXPORT void chunk_destroy(chunk_pool_t *pool);

L2FIB_END_DECLS
