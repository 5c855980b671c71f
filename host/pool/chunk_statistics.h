// SPDX-License-Identifier: Apache-2.0

// The figures of the chunk pools (platform/chunk.h): memory in use, what it costs, and failures.
// Pools are found one after the other, so nobody has to publish a handle for this:
//
//      for (chunk_pool_t *pool = host::chunk_next(nullptr); pool != nullptr; pool = host::chunk_next(pool)) {
//          host::chunk_statistics of{};
//          if (host::chunk_read_statistics(pool, &of)) {
//              show(of.name, of.in_use);
//          }
//      }
//
// Threads: any, at any time, without a lock of the pools' users. While a pool is in use, its figures can be of
// different moments.
#pragma once

#include "platform/chunk.h"

namespace host {

struct chunk_statistics {
    char name[48];          // the name of chunk_create, cut to 47 characters
    uint32_t element_size;  // bytes, as in chunk_create
    uint32_t element_count; // elements by which the pool grows
    uint64_t in_use;        // live elements
    uint64_t peak;          // maximum of `in_use` so far
    uint64_t bytes;         // memory touched; with huge pages, the system may hold all of `slabs`
    uint64_t slabs;         // of arena_slab_size bytes each
    uint64_t failures;      // calls of chunk_malloc without memory
    uint64_t refused_frees; // calls of chunk_free with a pointer that is not a live element of the pool
};

// Returns the pool after `previous`, even if `previous` was destroyed; the first pool for null. Null after the last.
L2FIB_EXPORT chunk_pool_t *chunk_next(const chunk_pool_t *previous) noexcept;

// False, with nothing stored, if `pool` does not exist (any more).
L2FIB_EXPORT bool chunk_read_statistics(const chunk_pool_t *pool, chunk_statistics *statistics) noexcept;

} // namespace host
