// SPDX-License-Identifier: Apache-2.0

#include "host/pool/arena.h"

#include <pthread.h>
#include <sanitizer/asan_interface.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "base/mutex.h"
#include "host/pool/slab_owner.h"

namespace host {

constinit slab_table arena_slabs;

namespace {

// Not the index of any slab.
constexpr size_t no_slab = max_slabs;

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

constinit slab_account account;

// The slab that the keeper has prepared: open, without an owner, and touched.
//
// The first touch of a huge page clears 2 MiB, which takes hundreds of microseconds. The keeper is a thread that does
// this ahead of use, so that no user of a slab waits for it. Taking the prepared slab wakes the keeper, which prepares
// another one. While it is not ready, slabs have small pages: they cost more in all, but never much at once.
struct keeper_state {
    size_t prepared = no_slab;
    bool is_busy = false; // from the request until the slab is prepared
    bool is_started = false;
};

constinit keeper_state keeper L2FIB_GUARDED_BY(account.mutex);
sem_t keeper_wanted; // start_keeper initialises it

// Starts the keeper's thread. Returns whether there is one.
bool start_keeper() noexcept;

void *map_inaccessible(void *at, size_t size, int flags) noexcept
{
    return mmap(at, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | flags, -1, 0);
}

std::byte *slab_at(size_t index) noexcept
{
    return reinterpret_cast<std::byte *>(arena_slabs.base.load(std::memory_order_relaxed) + index * arena_slab_size);
}

// Reserves the address space, unless it is reserved, and starts the keeper, so that no later use pays for that. If the
// process may not have that much, tries half of it, and so on down to a single slab.
bool reserve() noexcept L2FIB_REQUIRES(account.mutex)
{
    if (arena_slabs.count.load(std::memory_order_relaxed) != 0) {
        return true;
    }
    for (size_t count = max_slabs; count != 0; count /= 2) {
        // One slab more than needed, because the mapping is aligned to small pages only.
        void *start = map_inaccessible(nullptr, (count + 1) * arena_slab_size, 0);
        if (start != MAP_FAILED) {
            const auto address = reinterpret_cast<uintptr_t>(start) + arena_slab_size - 1;
            arena_slabs.base.store(address & ~(arena_slab_size - 1), std::memory_order_relaxed);
            arena_slabs.count.store(count, std::memory_order_release);
            keeper.is_started = start_keeper();
            return true;
        }
    }
    return false;
}

// Returns the index of the slab that `address` lies in, or no_slab.
size_t slab_index_of(const void *address) noexcept
{
    const size_t count = arena_slabs.count.load(std::memory_order_acquire);
    const uintptr_t base = arena_slabs.base.load(std::memory_order_relaxed);
    const size_t index = (reinterpret_cast<uintptr_t>(address) - base) / arena_slab_size;
    return index < count ? index : no_slab;
}

// Returns the index of a slab that is neither taken nor prepared, or no_slab.
size_t pick() noexcept L2FIB_REQUIRES(account.mutex)
{
    if (!reserve()) {
        return no_slab;
    }
    if (account.free_count != 0) {
        return account.free[--account.free_count];
    }
    return account.used < arena_slabs.count.load(std::memory_order_relaxed) ? account.used++ : no_slab;
}

void put_back(size_t index) noexcept L2FIB_REQUIRES(account.mutex)
{
    account.free[account.free_count++] = static_cast<uint32_t>(index);
}

bool open(std::byte *slab) noexcept
{
    return mprotect(slab, arena_slab_size, PROT_READ | PROT_WRITE) == 0;
}

void request_huge_pages(std::byte *slab) noexcept
{
    madvise(slab, arena_slab_size, MADV_HUGEPAGE);
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

// Makes the system give memory to each page, and keeps the contents. open_now needs it for one page, arena_touch on
// kernels that lack MADV_POPULATE_WRITE. The address sanitizer is off, because the owner of the page may have poisoned
// it.
[[gnu::no_sanitize_address]] void touch_each_page(std::byte *start, size_t size) noexcept
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (size_t at = 0; at < size; at += page) {
        __atomic_fetch_or(reinterpret_cast<unsigned char *>(start + at), 0, __ATOMIC_RELAXED);
    }
}

// Opens a slab with small pages. The system replaces them by a huge one later, if that was requested. A huge page at
// once would have to be cleared at once, therefore the first small one comes before the request.
bool open_now(size_t index, arena_pages pages) noexcept
{
    std::byte *slab = slab_at(index);
    if (!open(slab)) {
        return false;
    }
    if (pages == arena_pages::huge) {
        touch_each_page(slab, 1);
        request_huge_pages(slab);
    }
    return true;
}

// ---- The keeper ----

// Opens and touches a slab. False if the system has no memory; the slab is then closed.
bool prepare(std::byte *slab) noexcept
{
    if (!open(slab)) {
        return false;
    }
    request_huge_pages(slab);
    if (!arena_touch(slab, arena_slab_size)) {
        close(slab);
        return false;
    }
    return true;
}

size_t pick_for_keeper() noexcept
{
    const base::scoped_lock hold(account.mutex);
    return pick();
}

void finish_request(size_t index, bool is_prepared) noexcept
{
    const base::scoped_lock hold(account.mutex);
    keeper.is_busy = false;
    if (is_prepared) {
        keeper.prepared = index;
    } else if (index != no_slab) {
        put_back(index);
    }
}

void *run_keeper(void *)
{
    pthread_setname_np(pthread_self(), "arena-keeper");
    for (;;) {
        if (sem_wait(&keeper_wanted) != 0) {
            continue;
        }
        const size_t index = pick_for_keeper();
        finish_request(index, index != no_slab && prepare(slab_at(index)));
    }
}

// All signals are blocked in it, because it serves none. It never ends.
bool start_keeper() noexcept
{
    pthread_attr_t attributes;
    if (sem_init(&keeper_wanted, 0, 0) != 0 || pthread_attr_init(&attributes) != 0) {
        return false;
    }
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    pthread_t thread;
    const int status = pthread_create(&thread, &attributes, run_keeper, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return status == 0;
}

// Without the keeper's thread all slabs have small pages at first.
void request_slab() noexcept L2FIB_REQUIRES(account.mutex)
{
    if (keeper.is_started && !keeper.is_busy && keeper.prepared == no_slab) {
        keeper.is_busy = true;
        sem_post(&keeper_wanted);
    }
}

// Returns the prepared slab, which is open, or no_slab.
size_t take_prepared() noexcept L2FIB_REQUIRES(account.mutex)
{
    return std::exchange(keeper.prepared, no_slab);
}

// Returns the index of an open slab, or no_slab. The prepared slab also serves if no other one is left.
size_t take_open(arena_pages pages) noexcept L2FIB_REQUIRES(account.mutex)
{
    if (pages == arena_pages::huge) {
        if (const size_t prepared = take_prepared(); prepared != no_slab) {
            return prepared;
        }
    }
    const size_t index = pick();
    if (index == no_slab) {
        return take_prepared();
    }
    if (!open_now(index, pages)) {
        put_back(index);
        return no_slab;
    }
    return index;
}

} // namespace

void *arena_take(const void *owner, arena_pages pages) noexcept
{
    const base::scoped_lock hold(account.mutex);
    const size_t index = owner == nullptr ? no_slab : take_open(pages);
    if (index == no_slab) {
        account.refused++;
        return nullptr;
    }
    if (pages == arena_pages::huge) {
        request_slab();
    }
    account.peak = std::max(account.peak, ++account.taken);
    arena_slabs.owners[index].store(owner, std::memory_order_release);
    return slab_at(index);
}

void arena_give(void *slab) noexcept
{
    const base::scoped_lock hold(account.mutex);
    const size_t index = slab_index_of(slab);
    if (index == no_slab || slab != slab_at(index)
        || arena_slabs.owners[index].load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    arena_slabs.owners[index].store(nullptr, std::memory_order_release);
    close(slab_at(index));
    put_back(index);
    account.taken--;
}

const void *arena_owner(const void *address) noexcept
{
    return slab_owner(address);
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

void arena_read_statistics(arena_statistics *statistics) noexcept
{
    const base::scoped_lock hold(account.mutex);
    *statistics = {arena_slabs.count.load(std::memory_order_relaxed), account.taken, account.peak, account.refused};
}

} // namespace host
