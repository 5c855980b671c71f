// SPDX-License-Identifier: Apache-2.0

// What operators and audits may ask of the chunk pools beyond the allocator's contract: what is in use, what it costs,
// and what went wrong. Pools are found by name or visited one by one, so that nobody has to publish a handle for this.
//
// Threads: any, at any time; no lock of the pools' users is needed. Figures of a pool at work are each exact for some
// moment, not all for the same.
#pragma once

#include "platform/chunk.h"

namespace host {

struct chunk_statistics {
    char name[48];          // what the pool was created with, cut to 47 characters
    uint32_t element_size;  // bytes, as asked for
    uint32_t element_count; // elements by which the pool grows
    uint64_t in_use;        // elements that are out
    uint64_t peak;          // most elements that ever were out
    uint64_t limit;         // elements that may be out
    uint64_t bytes;         // memory touched; with huge pages, the system may hold all of `slabs`
    uint64_t slabs;         // of arena_slab_size bytes each
    uint64_t failures;      // hand-outs that found no memory or met the limit
    uint64_t refused_frees; // pointers given to chunk_free that were no live elements of the pool
};

// The first pool for null, otherwise the one after `previous`, also when that was destroyed; null after the last.
L2FIB_EXPORT chunk_pool_t *chunk_next(const chunk_pool_t *previous) noexcept;

// The pool of this name, null when there is none; of several, the first that a visit meets.
L2FIB_EXPORT chunk_pool_t *chunk_find(const char *name) noexcept;

// False, with nothing stored, when `pool` is no pool (any more).
L2FIB_EXPORT bool chunk_read_statistics(const chunk_pool_t *pool, chunk_statistics *statistics) noexcept;

// Hands out nothing more while `elements` or more are out. False when `pool` is no pool.
L2FIB_EXPORT bool chunk_set_limit(chunk_pool_t *pool, uint64_t elements) noexcept;

} // namespace host
