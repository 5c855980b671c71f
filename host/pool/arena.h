// SPDX-License-Identifier: Apache-2.0

// Page arena: the memory below the host's trees and pools, in slabs of 2 MiB that are aligned to their size.
//
// One stretch of address space is reserved for the process at first use and cut into slabs. A slab has an owner from
// arena_take to arena_give, noted in a table outside the slabs. Therefore any pointer value at all can be asked for its
// owner, in constant time and without touching what it points at: this is how a pool or a tree tells its own memory
// from everything else.
//
//      reservation  | slab 0 | slab 1 | slab 2 | slab 3 | ...     inaccessible unless taken
//      owners       |  pool  |  tree  |  null  |  pool  | ...
//
// A taken slab reads as zero and costs no memory until it is touched; a slab that is given back costs none at once.
//
// Threads: any. arena_owner takes no lock; the others share a mutex of their own and call nothing that takes another.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/export.h"

namespace host {

inline constexpr size_t arena_slab_size = size_t{2} << 20;

// The page size to ask the system for. It is asked only: it may have no huge pages to give.
enum class arena_pages {
    small, // memory is spent by pages of 4 KiB, as they are touched
    huge,  // the first touch of a slab may make all of it real: for owners that are going to fill it
};

struct arena_statistics {
    size_t reserved; // slabs that the reserved address space holds; 0 before the first use
    size_t limit;    // slabs that may be out at once
    size_t taken;    // slabs that are out
    size_t peak;     // most slabs that ever were out
    size_t refused;  // calls of arena_take that got none
};

// A zeroed slab for `owner`, any address that is not null and that stays unique while the slab is out; it is only
// compared. Null when the limit is reached, the address space is used up or the system refuses.
L2FIB_EXPORT void *arena_take(const void *owner, arena_pages pages = arena_pages::small) noexcept;

// Gives back a slab by its start. What is not the start of a slab that is out is ignored.
L2FIB_EXPORT void arena_give(void *slab) noexcept;

// The owner of the slab that `address` lies in, null when it lies in none; `address` may be any value.
L2FIB_EXPORT const void *arena_owner(const void *address) noexcept;

// Makes `size` bytes from `start` real memory, so that their later use costs no page fault; whole pages of a slab that
// is out, and contents stay. False when the system has no memory for them.
L2FIB_EXPORT bool arena_touch(void *start, size_t size) noexcept;

// At most `slabs` may be out from now on. Those that are stay with their owners.
L2FIB_EXPORT void arena_set_limit(size_t slabs) noexcept;

L2FIB_EXPORT void arena_read_statistics(arena_statistics *statistics) noexcept;

// The start of the slab that `address` lies in, provided that it lies in one.
template <typename record>
record *arena_slab_of(const void *address) noexcept
{
    return reinterpret_cast<record *>(reinterpret_cast<uintptr_t>(address) & ~(arena_slab_size - 1));
}

} // namespace host
