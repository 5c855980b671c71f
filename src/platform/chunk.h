/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Chunk allocator: pools of elements of one size. Each record of the cache lives in one of six pools.
 *
 * Guarantees:
 *  - An element never moves.
 *  - An element reads as zero each time the pool hands it out, also after an earlier use.
 *  - chunk_free refuses every pointer that is not a live element of the pool. Such a pointer may come from elsewhere,
 *    point into the middle of an element, or name an element that was released before.
 *
 * Example:
 *
 *      chunk_pool_t *pool = chunk_create("example", 88, 1000, CHUNK_ZEROED_GROWABLE, 0, 0);
 *      void *element = chunk_malloc(pool);
 *      ...
 *      chunk_free(pool, element);
 *      chunk_destroy(pool);
 *
 * Locking: the caller serialises the operations of one pool. The module does so by its table lock. Different pools are
 * independent.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct chunk_pool chunk_pool_t;

/* The pool hands out zero-filled elements, and grows when none is free. */
#define CHUNK_ZEROED_GROWABLE 0x101u

/*
 * Creates a pool named `name`, which is copied. Elements have `element_size` bytes and are aligned to 8 bytes. The pool
 * grows by `element_count` elements at a time. `flags` is CHUNK_ZEROED_GROWABLE; the last two arguments are 0.
 *
 * Returns the pool, which the caller releases with chunk_destroy. Returns null if memory is short or an argument
 * differs from these.
 */
L2FIB_EXPORT chunk_pool_t *chunk_create(const char *name, uint32_t element_size, uint32_t element_count, uint32_t flags,
                                        uint32_t reserved1, uint32_t reserved2);

/* Returns a zero-filled element, or null if the pool cannot grow. The caller owns the element until chunk_free. */
L2FIB_EXPORT void *chunk_malloc(chunk_pool_t *pool);

/* Releases an element. Returns nonzero on success. Returns 0 and changes nothing if `element` is not a live element of
 * this pool. */
L2FIB_EXPORT uint32_t chunk_free(chunk_pool_t *pool, void *element);

/* Destroys a pool with all its elements, also those that nobody released. Ignores null. */
L2FIB_EXPORT void chunk_destroy(chunk_pool_t *pool);

L2FIB_END_DECLS
