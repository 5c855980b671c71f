// SPDX-License-Identifier: Apache-2.0

// The page arena, and the main header of this room: it gives the host's pools and trees their memory, in slabs of 2 MiB
// that are aligned to their size. chunk.cpp cuts slabs into elements of one size, the trees cut them into nodes.
//
// At first use the arena reserves one stretch of address space for the process and cuts it into slabs. A slab has an
// owner from arena_take to arena_give. A table outside the slabs holds the owners:
//
//      reservation  | slab 0 | slab 1 | slab 2 | slab 3 | ...     inaccessible unless taken
//      owners       |  pool  |  tree  |  null  |  pool  | ...
//
// So arena_owner finds the owner of any pointer value in constant time, without reading the memory that it points at:
//
//      index = (address - start of the reservation) / 2 MiB        an index beyond the last slab has no owner
//
// This is how a pool or a tree recognises its own memory.
//
// A taken slab reads as zero and costs no memory until it is touched. A slab that is given back costs none. From the
// first request for huge pages on, the arena's own thread keeps one slab touched ahead, which costs 2 MiB.
//
// Threads: any. arena_owner takes no lock. The others share one mutex, and take no other lock while they hold it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/export.h"

namespace host {

inline constexpr size_t arena_slab_size = size_t{2} << 20;

// The page size that the arena requests. The system may have no huge pages.
enum class arena_pages {
    small, // the slab takes memory in pages of 4 KiB as they are touched
    huge,  // memory for the whole slab, touched ahead by a thread of the arena: for owners that are going to fill it
};

struct arena_statistics {
    size_t reserved; // slabs in the reserved address space, the most that can be taken; 0 before the first use
    size_t taken;    // slabs with an owner
    size_t peak;     // maximum of `taken` so far
    size_t refused;  // calls of arena_take that returned null
};

// Takes a zeroed slab for `owner`: an address that is not null and that no other owner has. The arena only compares it.
// Returns null without address space, and if the system refuses the memory.
L2FIB_EXPORT void *arena_take(const void *owner, arena_pages pages = arena_pages::small) noexcept;

// Gives a slab back. Ignores an address that is not the start of a taken slab.
L2FIB_EXPORT void arena_give(void *slab) noexcept;

// Returns the owner of the slab that `address` lies in, or null. `address` may be any value.
L2FIB_EXPORT const void *arena_owner(const void *address) noexcept;

// Makes the system provide memory for `size` bytes from `start`, so that their later use causes no page fault. Both are
// multiples of the page size, inside a taken slab. Contents stay. False if the system has no memory.
L2FIB_EXPORT bool arena_touch(void *start, size_t size) noexcept;

L2FIB_EXPORT void arena_read_statistics(arena_statistics *statistics) noexcept;

// Returns the start of the slab that `address` lies in. The address lies in a slab.
template <typename record>
record *arena_slab_of(const void *address) noexcept
{
    return reinterpret_cast<record *>(reinterpret_cast<uintptr_t>(address) & ~(arena_slab_size - 1));
}

} // namespace host
