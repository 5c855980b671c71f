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
#include <mutex>

namespace host {
namespace {

constexpr size_t most_slabs = (size_t{64} << 30) / arena_slab_size;

// `base` and `count` are written once, `base` first, by whoever takes the first slab. An owner is stored after its slab
// has become accessible and cleared before it ceases to be.
struct slab_table {
    std::atomic<uintptr_t> base;
    std::atomic<size_t> count;
    std::array<std::atomic<const void *>, most_slabs> owners;
};

// The slabs below `used` that are not out are on the stack `free`; from `used` on, none has ever been out.
struct slab_account {
    std::mutex mutex; // protects all below
    size_t taken = 0;
    size_t peak = 0;
    size_t refused = 0;
    size_t used = 0;
    size_t free_count = 0;
    std::array<uint32_t, most_slabs> free = {};
};

constinit slab_table table;
constinit slab_account account;
constinit size_t limit = most_slabs; // apart, so that the rest is zero at start; under account.mutex too

void *map_inaccessible(void *at, size_t size, int flags) noexcept
{
    return mmap(at, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | flags, -1, 0);
}

std::byte *slab_at(size_t index) noexcept
{
    return reinterpret_cast<std::byte *>(table.base.load(std::memory_order_relaxed) + index * arena_slab_size);
}

// Address space limits of the process may allow less than we would like: half of it then, down to a single slab.
bool reserve() noexcept
{
    if (table.count.load(std::memory_order_relaxed) != 0) {
        return true;
    }
    for (size_t count = most_slabs; count != 0; count /= 2) {
        // One slab more than asked for, since the mapping is aligned to small pages only.
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

// The index of the slab that `address` lies in; not below the count when it lies in none.
size_t index_of(const void *address) noexcept
{
    const size_t count = table.count.load(std::memory_order_acquire);
    const uintptr_t base = table.base.load(std::memory_order_relaxed);
    const size_t index = (reinterpret_cast<uintptr_t>(address) - base) / arena_slab_size;
    return index < count ? index : most_slabs;
}

// A slab that is not out, `most_slabs` when there is none to be had.
size_t pick() noexcept
{
    if (!reserve() || account.taken >= limit) {
        return most_slabs;
    }
    if (account.free_count != 0) {
        return account.free[--account.free_count];
    }
    return account.used < table.count.load(std::memory_order_relaxed) ? account.used++ : most_slabs;
}

void put_back(size_t index) noexcept
{
    account.free[account.free_count++] = static_cast<uint32_t>(index);
}

// Without the advice the slab still works, in small pages.
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

// A new mapping in place of the old drops its pages, its advice and its share of the system's commitment in one call.
// The system refuses it only when the process has too many mappings; then the pages at least are dropped.
void close(std::byte *slab) noexcept
{
    ASAN_UNPOISON_MEMORY_REGION(slab, arena_slab_size);
    if (map_inaccessible(slab, arena_slab_size, MAP_FIXED) == MAP_FAILED) {
        madvise(slab, arena_slab_size, MADV_DONTNEED);
    }
}

// For kernels that cannot be told to populate: a write to each page that leaves it as it was, and that the owner may
// have poisoned.
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
    const std::lock_guard guard(account.mutex);
    const size_t index = owner == nullptr ? most_slabs : pick();
    if (index == most_slabs) {
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
    const std::lock_guard guard(account.mutex);
    const size_t index = index_of(slab);
    if (index == most_slabs || slab != slab_at(index)
        || table.owners[index].load(std::memory_order_relaxed) == nullptr) {
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
    return index == most_slabs ? nullptr : table.owners[index].load(std::memory_order_acquire);
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
    const std::lock_guard guard(account.mutex);
    limit = slabs;
}

void arena_read_statistics(arena_statistics *statistics) noexcept
{
    const std::lock_guard guard(account.mutex);
    *statistics = {table.count.load(std::memory_order_relaxed), limit, account.taken, account.peak, account.refused};
}

} // namespace host
