// SPDX-License-Identifier: Apache-2.0

// The owners of the arena's slabs, for arena_owner without a call: each release of an element and each look at a tree's
// link asks for an owner. Only this library's pools and trees use this header; others call arena_owner.
//
// Threads: any, without a lock.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "host/pool/arena.h"

namespace host {

inline constexpr size_t max_reserved_bytes = size_t{64} << 30;
inline constexpr size_t max_slabs = max_reserved_bytes / arena_slab_size;

// The first arena_take writes `base` and then `count`, once. An owner is stored after its slab became accessible, and
// cleared before the slab becomes inaccessible. Only arena.cpp writes.
struct slab_table {
    std::atomic<uintptr_t> base;
    std::atomic<size_t> count;
    std::array<std::atomic<const void *>, max_slabs> owners;
};

extern slab_table arena_slabs [[gnu::visibility("hidden")]];

// Returns the owner of the slab that `address` lies in, or null.
inline const void *slab_owner(const void *address) noexcept
{
    const size_t count = arena_slabs.count.load(std::memory_order_acquire);
    const uintptr_t base = arena_slabs.base.load(std::memory_order_relaxed);
    const size_t index = (reinterpret_cast<uintptr_t>(address) - base) / arena_slab_size;
    return index < count ? arena_slabs.owners[index].load(std::memory_order_acquire) : nullptr;
}

} // namespace host
