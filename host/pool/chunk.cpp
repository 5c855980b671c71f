// SPDX-License-Identifier: Apache-2.0

// Chunk pools on slabs of the page arena.
//
// A slab begins with a map of its live elements, in three levels: `map` has a bit for each element, `summary` a bit for
// each word of the map that is all ones, `top` a bit for each word of the summary that is all ones. So three bit scans
// find the lowest free element, however full the slab is. Example with words of 4 bits, elements 0 to 8 and 10 live:
//
//      map       1111 1111 1010 0000      (bit 0 is on the left)
//      summary   1100                     words 0 and 1 of the map are all ones
//      top       0000
//      search    first 0 of top: summary word 0; first 0 of it: map word 2; first 0 of it: bit 1; element 2 * 4 + 1 = 9
//
// A new slab is all zero, which is the map of an empty slab.
//
//      | slab | summary of the map | map: a bit per element | element 0 | element 1 | ... | unused |
//      0      sizeof(slab)         map_offset               elements_offset                        arena_slab_size
//
// Two indexes divide the elements of a slab:
//
//      0 ... fresh         live or free; a free element must be cleared before it is handed out
//      fresh ... ready     never handed out, so still zero; the memory was touched
//      ready ... capacity  the memory was not touched yet
//
// The slabs of a pool form a ring. Slabs with room stand before those without, from `first` on. Elements come from
// `first`, so if `first` is full, all are. The pool keeps at most one empty slab.
//
// The pool touches memory ahead of use, a stretch at a time. The page faults of a stretch then delay one chunk_malloc
// instead of one in every few dozen.
#include "platform/chunk.h"

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstring>

#include "base/mutex.h"
#include "host/pool/arena.h"
#include "host/pool/chunk_statistics.h"
#include "host/pool/slab_owner.h"

namespace host {
namespace {

constexpr size_t max_pools = 256; // the low byte of a handle is a place in the table
constexpr size_t page_size = 4096;
constexpr size_t cache_line = 64;
constexpr uint64_t max_stretch = uint64_t{16} << 10; // bytes: four small pages, which bounds the time of one call
constexpr uint32_t alignment = 8;
constexpr unsigned reciprocal_shift = 42; // see index_of
constexpr uint32_t bits = 64;             // in a word of the map

struct slab {
    slab *next;
    slab *previous;
    uint32_t live;    // elements
    uint32_t fresh;   // see above
    uint32_t ready;   // see above
    uint32_t touched; // bytes from the start of the slab
    uint64_t top;
};

static_assert(arena_slab_size / sizeof(uint64_t) <= size_t{bits} * bits * bits, "three levels are enough");

// A pool exists while `handle` is not null. The caller of the pool's operations excludes all others, so the counters
// have one writer at a time. They are atomic for the readers of the statistics.
struct alignas(cache_line) pool {
    std::atomic<chunk_pool_t *> handle;
    slab *first;
    uint32_t element_size;
    uint32_t element_count;
    uint32_t stride; // the element size rounded up to `alignment`
    uint32_t capacity;
    uint32_t map_offset;
    uint32_t elements_offset;
    uint64_t reciprocal; // of the stride, see index_of
    uint32_t empty_slabs;
    std::atomic<uint64_t> in_use;
    std::atomic<uint64_t> peak;
    std::atomic<uint64_t> bytes;
    std::atomic<uint64_t> slabs;
    std::atomic<uint64_t> failures;
    std::atomic<uint64_t> refused_frees;
    char name[sizeof(chunk_statistics::name)];
};

// The mutex excludes creations, destructions and readers of statistics from each other. It comes before the arena's.
struct pool_table {
    base::mutex mutex;
    uint64_t created L2FIB_GUARDED_BY(mutex) = 0;
    std::array<pool, max_pools> pools = {};
};

constinit pool_table table;

// A handle is a number, not an address. It holds the place of the pool in the table, and the count of pools created so
// far. So the handle of a destroyed pool never becomes valid again. The mark differs from the upper bits of all
// addresses.
//
//      63         48 47                 8 7     0
//      |  0xc4a7    |  pools created     | place |      the third pool, in place 1: 0xc4a7000000000301
constexpr uint64_t handle_mark = uint64_t{0xc4a7} << 48;

chunk_pool_t *make_handle(uint64_t number, size_t place) noexcept
{
    return reinterpret_cast<chunk_pool_t *>(handle_mark | number * max_pools | place);
}

size_t place_of(const chunk_pool_t *handle) noexcept
{
    return reinterpret_cast<uintptr_t>(handle) % max_pools;
}

pool *pool_of(const chunk_pool_t *handle) noexcept
{
    pool &candidate = table.pools[place_of(handle)];
    return handle != nullptr && candidate.handle.load(std::memory_order_relaxed) == handle ? &candidate : nullptr;
}

uint64_t value(const std::atomic<uint64_t> &counter) noexcept
{
    return counter.load(std::memory_order_relaxed);
}

// Cheaper than an atomic addition. There is one writer at a time.
uint64_t add(std::atomic<uint64_t> &counter, uint64_t amount) noexcept
{
    const uint64_t sum = value(counter) + amount;
    counter.store(sum, std::memory_order_relaxed);
    return sum;
}

void subtract(std::atomic<uint64_t> &counter, uint64_t amount) noexcept
{
    counter.store(value(counter) - amount, std::memory_order_relaxed);
}

std::byte *at(slab *s, size_t offset) noexcept
{
    return reinterpret_cast<std::byte *>(s) + offset;
}

uint64_t *summary_of(slab *s) noexcept
{
    return reinterpret_cast<uint64_t *>(s + 1);
}

uint64_t *map_of(const pool &p, slab *s) noexcept
{
    return reinterpret_cast<uint64_t *>(at(s, p.map_offset));
}

std::byte *element_at(const pool &p, slab *s, uint32_t index) noexcept
{
    return at(s, p.elements_offset + size_t{index} * p.stride);
}

bool is_full(const pool &p, const slab *s) noexcept
{
    return s->live == p.capacity;
}

constexpr uint64_t bit(uint32_t index) noexcept
{
    return uint64_t{1} << index % bits;
}

// The paths below that few calls take are not inlined. Inlined, they would make every call save more registers.

[[gnu::noinline]] uint32_t lowest_hole(const pool &p, slab *s) noexcept
{
    uint32_t index = static_cast<uint32_t>(std::countr_one(s->top));
    index = index * bits + static_cast<uint32_t>(std::countr_one(summary_of(s)[index]));
    return index * bits + static_cast<uint32_t>(std::countr_one(map_of(p, s)[index]));
}

// Returns the lowest free element of a slab that is not full. Without a hole it is the first that was never handed out.
uint32_t lowest_free(const pool &p, slab *s) noexcept
{
    return s->live == s->fresh ? s->fresh : lowest_hole(p, s);
}

bool is_live(const pool &p, slab *s, uint32_t index) noexcept
{
    return (map_of(p, s)[index / bits] & bit(index)) != 0;
}

// Notes that a word of the map is all ones.
[[gnu::noinline]] void close_word(slab *s, uint32_t word) noexcept
{
    const uint32_t group = word / bits;
    if ((summary_of(s)[group] |= bit(word)) == UINT64_MAX) {
        s->top |= bit(group);
    }
}

// Notes that a word of the map no longer is all ones.
[[gnu::noinline]] void open_word(slab *s, uint32_t word) noexcept
{
    summary_of(s)[word / bits] &= ~bit(word);
    s->top &= ~bit(word / bits);
}

void set_live(const pool &p, slab *s, uint32_t index) noexcept
{
    uint64_t &word = map_of(p, s)[index / bits];
    word |= bit(index);
    s->live++;
    if (word == UINT64_MAX) {
        close_word(s, index / bits);
    }
}

void set_free(const pool &p, slab *s, uint32_t index) noexcept
{
    uint64_t &word = map_of(p, s)[index / bits];
    if (word == UINT64_MAX) {
        open_word(s, index / bits);
    }
    word &= ~bit(index);
    s->live--;
}

void link_first(pool &p, slab *s) noexcept
{
    if (p.first == nullptr) {
        s->next = s->previous = s;
    } else {
        s->next = p.first;
        s->previous = p.first->previous;
        s->next->previous = s->previous->next = s;
    }
    p.first = s;
}

void unlink(pool &p, slab *s) noexcept
{
    s->next->previous = s->previous;
    s->previous->next = s->next;
    if (p.first == s) {
        p.first = s->next == s ? nullptr : s->next;
    }
}

[[gnu::noinline]] void move_first(pool &p, slab *s) noexcept
{
    unlink(p, s);
    link_first(p, s);
}

// Bytes to touch at once: a growth step, or half of the pool if that is more, up to max_stretch. A larger element is
// touched as a whole.
uint64_t stretch_of(const pool &p) noexcept
{
    const uint64_t step = uint64_t{p.element_count} * p.stride;
    const uint64_t wanted = std::min(std::max(step, value(p.bytes) / 2), max_stretch);
    return std::max<uint64_t>(wanted, p.stride);
}

// Touches another stretch of a slab behind its first `touched` bytes. A new slab has none, whatever its header says.
[[gnu::noinline]] bool extend(pool &p, slab *s, uint64_t touched) noexcept
{
    const uint64_t wanted = std::max<uint64_t>(touched, p.elements_offset) + stretch_of(p);
    const uint64_t end = std::min((wanted + page_size - 1) / page_size * page_size, uint64_t{arena_slab_size});
    if (!arena_touch(at(s, touched), end - touched)) {
        return false;
    }
    s->touched = static_cast<uint32_t>(end);
    s->ready = std::min(static_cast<uint32_t>((end - p.elements_offset) / p.stride), p.capacity);
    add(p.bytes, end - touched);
    return true;
}

// Adds a slab to the pool. The first slab may stay nearly empty, so only further slabs ask for huge pages.
[[gnu::noinline]] bool grow(pool &p) noexcept
{
    const arena_pages pages = value(p.slabs) == 0 ? arena_pages::small : arena_pages::huge;
    slab *s = static_cast<slab *>(arena_take(&p, pages));
    if (s == nullptr) {
        return false;
    }
    if (!extend(p, s, 0)) {
        arena_give(s);
        return false;
    }
    ASAN_POISON_MEMORY_REGION(at(s, p.elements_offset), arena_slab_size - p.elements_offset);
    link_first(p, s);
    add(p.slabs, 1);
    p.empty_slabs++;
    return true;
}

// Gives an empty slab back, unless it is the only empty one. Otherwise a pool whose use goes up and down by one element
// could map and unmap memory with each call.
[[gnu::noinline]] void release_empty(pool &p, slab *s) noexcept
{
    if (++p.empty_slabs == 1) {
        return;
    }
    p.empty_slabs--;
    unlink(p, s);
    subtract(p.bytes, s->touched);
    subtract(p.slabs, 1);
    arena_give(s);
}

// Marks a free element as live.
[[gnu::always_inline]] inline std::byte *make_live(pool &p, slab *s, uint32_t index) noexcept
{
    std::byte *element = element_at(p, s, index);
    ASAN_UNPOISON_MEMORY_REGION(element, p.element_size);
    set_live(p, s, index);
    if (is_full(p, s)) {
        p.first = s->next;
    }
    return element;
}

// Makes an element live and zero. An element that was never handed out is zero already.
std::byte *hand_out(pool &p, slab *s, uint32_t index) noexcept
{
    if (s->live == 0) {
        p.empty_slabs--;
    }
    std::byte *element = make_live(p, s, index);
    if (index < s->fresh) {
        std::memset(element, 0, p.element_size);
    } else {
        s->fresh = index + 1;
    }
    return element;
}

// Whether the next element of a pool is one that was never handed out, in the first slab and behind elements that are
// all live. This is how a pool fills.
bool fills(const pool &p) noexcept
{
    const slab *s = p.first;
    return s != nullptr && s->live == s->fresh && s->live < s->ready && s->live != 0;
}

// Returns the next element, live and zero. Null if the pool cannot grow.
std::byte *next_element(pool &p) noexcept
{
    if ((p.first == nullptr || is_full(p, p.first)) && !grow(p)) {
        return nullptr;
    }
    slab *s = p.first;
    const uint32_t index = lowest_free(p, s);
    if (index >= s->ready && !extend(p, s, s->touched)) {
        return nullptr;
    }
    return hand_out(p, s, index);
}

[[gnu::always_inline]] inline std::byte *count_taken(pool &p, std::byte *element) noexcept
{
    const uint64_t in_use = add(p.in_use, 1);
    p.peak.store(std::max(value(p.peak), in_use), std::memory_order_relaxed);
    return element;
}

[[gnu::noinline]] std::byte *take_any(pool &p) noexcept
{
    std::byte *element = next_element(p);
    if (element == nullptr) {
        add(p.failures, 1);
        return nullptr;
    }
    return count_taken(p, element);
}

// Returns the index of the element that starts `offset` bytes into the element area, or the capacity if none does.
//
// The division by the stride is a multiplication by the reciprocal 2^42 / stride, rounded up. The result is exact
// because offset and stride are below 2^21, so the rounding adds less than 1 / stride. Example with a stride of 24: the
// reciprocal is 183251937963; offset 48 gives 48 * 183251937963 >> 42 = 2, offset 47 gives 1, and 1 * 24 != 47.
uint32_t index_of(const pool &p, size_t offset) noexcept
{
    static_assert(arena_slab_size == size_t{1} << 21);
    const auto index = static_cast<uint32_t>(offset * p.reciprocal >> reciprocal_shift);
    return index < p.capacity && size_t{index} * p.stride == offset ? index : p.capacity;
}

bool release(pool &p, void *element) noexcept
{
    if (slab_owner(element) != &p) {
        return false;
    }
    slab *s = arena_slab_of<slab>(element);
    // For an address before the elements the subtraction wraps to an offset without an element.
    const auto offset = static_cast<size_t>(static_cast<std::byte *>(element) - element_at(p, s, 0));
    const uint32_t index = index_of(p, offset);
    if (index == p.capacity || !is_live(p, s, index)) {
        return false;
    }
    ASAN_POISON_MEMORY_REGION(element, p.stride);
    subtract(p.in_use, 1);
    if (is_full(p, s)) {
        move_first(p, s);
    }
    set_free(p, s, index);
    if (s->live == 0) {
        release_empty(p, s);
    }
    return true;
}

// Computes where the map and the elements of a slab lie. False if not even one element fits into a slab.
bool lay_out(pool &p) noexcept
{
    constexpr size_t room = arena_slab_size - sizeof(slab);
    if (p.element_size == 0 || p.element_size > room) {
        return false;
    }
    p.stride = (p.element_size + alignment - 1) & ~(alignment - 1);
    const size_t words = room / p.stride / bits + 1;
    const size_t map_offset = sizeof(slab) + (words / bits + 1) * sizeof(uint64_t);
    const size_t end = map_offset + words * sizeof(uint64_t);
    p.map_offset = static_cast<uint32_t>(map_offset);
    p.elements_offset = static_cast<uint32_t>((end + cache_line - 1) / cache_line * cache_line);
    p.capacity = static_cast<uint32_t>((arena_slab_size - p.elements_offset) / p.stride);
    p.reciprocal = ((uint64_t{1} << reciprocal_shift) + p.stride - 1) / p.stride;
    return p.capacity != 0;
}

void name_pool(pool &p, const char *name) noexcept
{
    const size_t length = strnlen(name, sizeof(p.name) - 1);
    std::memcpy(p.name, name, length);
    std::memset(p.name + length, 0, sizeof(p.name) - length);
}

void reset_counters(pool &p) noexcept
{
    for (auto *counter : {&p.in_use, &p.peak, &p.bytes, &p.slabs, &p.failures, &p.refused_frees}) {
        counter->store(0, std::memory_order_relaxed);
    }
}

// Fills a free place of the table and adds the first slab, so that a pool that exists can hand out an element.
bool set_up(pool &p, const char *name, uint32_t element_size, uint32_t element_count) noexcept
{
    p.element_size = element_size;
    p.element_count = element_count;
    p.first = nullptr;
    p.empty_slabs = 0;
    name_pool(p, name);
    reset_counters(p);
    return lay_out(p) && grow(p);
}

void give_all(pool &p) noexcept
{
    while (p.first != nullptr) {
        slab *s = p.first;
        unlink(p, s);
        arena_give(s);
    }
}

pool *free_place() noexcept
{
    auto *const place = std::find_if(table.pools.begin(), table.pools.end(),
                                     [](const pool &p) { return p.handle.load(std::memory_order_relaxed) == nullptr; });
    return place == table.pools.end() ? nullptr : place;
}

} // namespace

chunk_pool_t *chunk_next(const chunk_pool_t *previous) noexcept
{
    const size_t start = previous == nullptr ? 0 : place_of(previous) + 1;
    for (size_t place = start; place < max_pools; place++) {
        if (chunk_pool_t *handle = table.pools[place].handle.load(std::memory_order_relaxed); handle != nullptr) {
            return handle;
        }
    }
    return nullptr;
}

bool chunk_read_statistics(const chunk_pool_t *pool, chunk_statistics *statistics) noexcept
{
    const base::scoped_lock hold(table.mutex);
    const auto *p = pool_of(pool);
    if (p == nullptr) {
        return false;
    }
    std::memcpy(statistics->name, p->name, sizeof(p->name));
    statistics->element_size = p->element_size;
    statistics->element_count = p->element_count;
    statistics->in_use = value(p->in_use);
    statistics->peak = value(p->peak);
    statistics->bytes = value(p->bytes);
    statistics->slabs = value(p->slabs);
    statistics->failures = value(p->failures);
    statistics->refused_frees = value(p->refused_frees);
    return true;
}

} // namespace host

chunk_pool_t *chunk_create(const char *name, uint32_t element_size, uint32_t element_count, uint32_t flags,
                           uint32_t reserved1, uint32_t reserved2)
{
    using namespace host;
    if (name == nullptr || element_count == 0 || flags != CHUNK_ZEROED_GROWABLE || reserved1 != 0 || reserved2 != 0) {
        return nullptr;
    }
    const base::scoped_lock hold(table.mutex);
    pool *p = free_place();
    if (p == nullptr || !set_up(*p, name, element_size, element_count)) {
        return nullptr;
    }
    chunk_pool_t *handle = make_handle(++table.created, static_cast<size_t>(p - table.pools.data()));
    p->handle.store(handle, std::memory_order_relaxed);
    return handle;
}

void *chunk_malloc(chunk_pool_t *pool)
{
    using namespace host;
    auto *p = pool_of(pool);
    if (p == nullptr) {
        return nullptr;
    }
    return fills(*p) ? count_taken(*p, make_live(*p, p->first, p->first->fresh++)) : take_any(*p);
}

uint32_t chunk_free(chunk_pool_t *pool, void *element)
{
    using namespace host;
    auto *p = pool_of(pool);
    if (p == nullptr) {
        return 0;
    }
    if (!release(*p, element)) {
        add(p->refused_frees, 1);
        return 0;
    }
    return 1;
}

void chunk_destroy(chunk_pool_t *pool)
{
    using namespace host;
    const base::scoped_lock hold(table.mutex);
    if (auto *p = pool_of(pool); p != nullptr) {
        p->handle.store(nullptr, std::memory_order_relaxed);
        give_all(*p);
    }
}
