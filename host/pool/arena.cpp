// SPDX-License-Identifier: Apache-2.0

#include "host/pool/arena.h"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>

#include "base/mutex.h"

namespace host {
namespace {

constexpr size_t max_reserved_bytes = size_t{64} << 30;
constexpr size_t max_slabs = max_reserved_bytes / arena_slab_size;

// Not the index of any slab.
constexpr size_t no_slab = max_slabs;

// arena_owner reads this table without a lock. The first arena_take writes `base` and then `count`, once. An owner is
// stored after its slab became accessible, and cleared before the slab becomes inaccessible.
struct slab_table {
    std::atomic<uintptr_t> base;
    std::atomic<size_t> count;
    std::array<std::atomic<const void *>, max_slabs> owners;
};

// Which slabs are taken. Slabs from `used` on have never been taken. Below `used`, the stack `free` holds those that
// were given back:
//
//      slab       0       1       2       3       4 ...
//                 taken   free    taken   free    never taken
//      used = 4   free = [3, 1]        the next arena_take returns slab 1
struct slab_account {
    base::mutex mutex;
    size_t taken L2FIB_GUARDED_BY(mutex) = 0;
    size_t peak L2FIB_GUARDED_BY(mutex) = 0;
    size_t refused L2FIB_GUARDED_BY(mutex) = 0;
    size_t used L2FIB_GUARDED_BY(mutex) = 0;
    size_t free_count L2FIB_GUARDED_BY(mutex) = 0;
    std::array<uint32_t, max_slabs> free L2FIB_GUARDED_BY(mutex) = {};
};

constinit slab_table table;
constinit slab_account account;

// Apart from the account, so that the account is all zero and takes no space in the library's file.
constinit size_t limit L2FIB_GUARDED_BY(account.mutex) = max_slabs;

void *map_inaccessible(void *at, size_t size, int flags) noexcept
{
    return mmap(at, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | flags, -1, 0);
}

std::byte *slab_at(size_t index) noexcept
{
    return reinterpret_cast<std::byte *>(table.base.load(std::memory_order_relaxed) + index * arena_slab_size);
}

// Reserves the address space, unless it is reserved. If the process may not have that much, tries half of it, and so on
// down to a single slab.
bool reserve() noexcept L2FIB_REQUIRES(account.mutex)
{
    if (table.count.load(std::memory_order_relaxed) != 0) {
        return true;
    }
    for (size_t count = max_slabs; count != 0; count /= 2) {
        // One slab more than needed, because the mapping is aligned to small pages only.
        void *start = map_inaccessible(nullptr, (count + 1) * arena_slab_size, 0);
        if (start != MAP_FAILED) {
            const auto address = reinterpret_cast<uintptr_t>(start) + arena_slab_size - 1;
            table.base.store(address & ~(arena_slab_size - 1), std::memory_order_relaxed);
            table.count.store(count, std::memory_order_release);
            return true;
        }
    }
    return false;
}

// Returns the index of the slab that `address` lies in, or no_slab.
size_t index_of(const void *address) noexcept
{
    const size_t count = table.count.load(std::memory_order_acquire);
    const uintptr_t base = table.base.load(std::memory_order_relaxed);
    const size_t index = (reinterpret_cast<uintptr_t>(address) - base) / arena_slab_size;
    return index < count ? index : no_slab;
}

// Returns the index of a slab that is not taken, or no_slab.
size_t pick() noexcept L2FIB_REQUIRES(account.mutex)
{
    if (!reserve() || account.taken >= limit) {
        return no_slab;
    }
    if (account.free_count != 0) {
        return account.free[--account.free_count];
    }
    return account.used < table.count.load(std::memory_order_relaxed) ? account.used++ : no_slab;
}

void put_back(size_t index) noexcept L2FIB_REQUIRES(account.mutex)
{
    account.free[account.free_count++] = static_cast<uint32_t>(index);
}

// Makes a slab accessible. If the system refuses huge pages, the slab has small ones.
bool open(std::byte *slab, arena_pages pages) noexcept
{
    if (mprotect(slab, arena_slab_size, PROT_READ | PROT_WRITE) != 0) {
        return false;
    }
    if (pages == arena_pages::huge) {
        madvise(slab, arena_slab_size, MADV_HUGEPAGE);
    }
    return true;
}

// Maps new inaccessible memory over a slab. One call so drops the slab's pages, its advice and its share of the
// system's committed memory. The system refuses only if the process has too many mappings. Then at least the pages are
// dropped.
void close(std::byte *slab) noexcept
{
    ASAN_UNPOISON_MEMORY_REGION(slab, arena_slab_size);
    if (map_inaccessible(slab, arena_slab_size, MAP_FIXED) == MAP_FAILED) {
        madvise(slab, arena_slab_size, MADV_DONTNEED);
    }
}

// For kernels without MADV_POPULATE_WRITE: writes to each page without changing it. The owner may have poisoned the
// page for the address sanitizer.
[[gnu::no_sanitize_address]] void touch_each_page(std::byte *start, size_t size) noexcept
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (size_t at = 0; at < size; at += page) {
        __atomic_fetch_or(reinterpret_cast<unsigned char *>(start + at), 0, __ATOMIC_RELAXED);
    }
}

} // namespace

void *arena_take(const void *owner, arena_pages pages) noexcept
{
    const base::scoped_lock hold(account.mutex);
    const size_t index = owner == nullptr ? no_slab : pick();
    if (index == no_slab) {
        account.refused++;
        return nullptr;
    }
    if (!open(slab_at(index), pages)) {
        put_back(index);
        account.refused++;
        return nullptr;
    }
    account.peak = std::max(account.peak, ++account.taken);
    table.owners[index].store(owner, std::memory_order_release);
    return slab_at(index);
}

void arena_give(void *slab) noexcept
{
    const base::scoped_lock hold(account.mutex);
    const size_t index = index_of(slab);
    if (index == no_slab || slab != slab_at(index) || table.owners[index].load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    table.owners[index].store(nullptr, std::memory_order_release);
    close(slab_at(index));
    put_back(index);
    account.taken--;
}

const void *arena_owner(const void *address) noexcept
{
    const size_t index = index_of(address);
    return index == no_slab ? nullptr : table.owners[index].load(std::memory_order_acquire);
}

bool arena_touch(void *start, size_t size) noexcept
{
#ifdef MADV_POPULATE_WRITE
    if (madvise(start, size, MADV_POPULATE_WRITE) == 0) {
        return true;
    }
    if (errno == ENOMEM || errno == EFAULT) {
        return false;
    }
#endif
    touch_each_page(static_cast<std::byte *>(start), size);
    return true;
}

void arena_set_limit(size_t slabs) noexcept
{
    const base::scoped_lock hold(account.mutex);
    limit = slabs;
}

void arena_read_statistics(arena_statistics *statistics) noexcept
{
    const base::scoped_lock hold(account.mutex);
    *statistics = {table.count.load(std::memory_order_relaxed), limit, account.taken, account.peak, account.refused};
}

} // namespace host
