// SPDX-License-Identifier: Apache-2.0

// An exact index from keys to records that never stops the table to grow.
//
// A table of buckets, each one cache line with six slots. A slot is a tag of 16 bits and a pointer; the key stays in
// the record. A record that finds its bucket full goes to the next one, and every bucket that it passed counts that:
//
//        0                        12       14        16                                        64
//       +----+----+----+----+----+----+---------+---------+------+------+------+------+------+------+
//       | tag 0 ... tag 5             | unused  | passed  | record 0 ... record 5                   |
//       +----+----+----+----+----+----+---------+---------+------+------+------+------+------+------+
//         0: no record
//
// Not obvious:
//  - All tags of a bucket are compared at once: which slot it is cannot be predicted, and a table that is fed in random
//    order waits for memory, so that every instruction less lets more accesses wait side by side.
//  - A search ends at the first bucket that nothing has passed. Removing leaves nothing behind.
//  - Growing is spread over the insertions that follow: the old buckets are retired a few at a time, and a key is
//    looked for in the new ones first and then in those not retired yet. No insertion pays for a whole table, and an
//    index that comes to rest half-way, where each search looks twice, is rare.
//  - The memory is mapped apart from the heap and given back likewise. Without memory an insertion is refused, nothing
//    is lost, and the caller has to find that record in another way.
//  - Keys are hashed with a secret of the index, so that nobody outside can choose keys that collide.
//
// The caller holds the table lock. Traits name the record and its key:
//     struct traits {
//         using record_t = ...;
//         using key_t = ...;                        // a number
//         static key_t key_of(const record_t &);
//     };
#pragma once

#include <sys/mman.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace edm {

constexpr uint32_t bucket_slots = 6;

struct alignas(64) index_bucket {
    uint16_t tag[bucket_slots];
    uint16_t unused;
    uint16_t passed; // records that are behind this bucket because it was full; at the most this many are counted
    void *record[bucket_slots];
};

static_assert(sizeof(index_bucket) == 64, "a bucket is one cache line");

// Where a record is in an index; no bucket for nowhere. Good until the index is changed.
struct index_place {
    index_bucket *bucket;
    uint32_t slot;

    explicit operator bool() const { return bucket != nullptr; }
};

struct bucket_table {
    index_bucket *buckets; // null: no table
    uint64_t mask;         // number of buckets, a power of two, less one
    uint64_t used;         // slots that hold a record
};

template <typename Traits>
struct growing_index {
    bucket_table current;
    bucket_table retiring; // while growing: what is not yet in `current`
    uint64_t retired;      // how many buckets of `retiring` have been emptied
    bucket_table leaving;  // emptied, and given back piece by piece
    uint64_t left;         // how many buckets of `leaving` have been given back
    uint64_t live;         // records in the index
    uint64_t secret;       // an odd number, chosen with the first table
};

namespace growing {

constexpr uint64_t first_bucket_count = 512;
constexpr uint64_t buckets_retired_at_once = 4;
constexpr uint64_t buckets_given_back_at_once = 4096;
constexpr uint64_t buckets_of_huge_page = (uint64_t{2} << 20) / sizeof(index_bucket);
constexpr uint16_t most_passed = 0xffff;

static_assert(first_bucket_count % buckets_retired_at_once == 0, "the last few buckets of a table are a full number");

// An odd number that nobody outside can guess: the load address differs from process to process, the time from start to
// start.
inline uint64_t make_secret(const void *address)
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    uint64_t mixed = reinterpret_cast<uintptr_t>(address) * 0x9e3779b97f4a7c15u ^ static_cast<uint64_t>(now);
    mixed = (mixed ^ (mixed >> 33)) * 0xff51afd7ed558ccdu;
    mixed = (mixed ^ (mixed >> 33)) * 0xc4ceb9fe1a85ec53u;
    return (mixed ^ (mixed >> 33)) | 1;
}

// The halves of one long product, folded so that low and high bits of the key reach all of the hash.
inline uint64_t hash(uint64_t key, uint64_t secret)
{
    __extension__ using uint128 = unsigned __int128;
    const uint128 product = uint128{key} * secret;
    return static_cast<uint64_t>(product >> 64) ^ static_cast<uint64_t>(product);
}

// From bits that do not choose the bucket; never 0.
inline uint16_t tag_of(uint64_t hash)
{
    return static_cast<uint16_t>(hash >> 48 | 1);
}

// The slots of a bucket that have a tag, as a set of bits: slot `i` is the bit 2 * i.
inline uint32_t slots_with_tag(const index_bucket &bucket, uint16_t tag)
{
    constexpr uint32_t slot_bits = 0x555;
#ifdef __SSE2__
    const __m128i tags = _mm_load_si128(reinterpret_cast<const __m128i *>(bucket.tag));
    const __m128i equal = _mm_cmpeq_epi16(tags, _mm_set1_epi16(static_cast<int16_t>(tag)));
    return static_cast<uint32_t>(_mm_movemask_epi8(equal)) & slot_bits;
#else
    uint32_t bits = 0;
    for (uint32_t slot = 0; slot < bucket_slots; slot++) {
        bits |= static_cast<uint32_t>(bucket.tag[slot] == tag) << (2 * slot);
    }
    return bits & slot_bits;
#endif
}

inline uint32_t first_slot(uint32_t slots)
{
    return static_cast<uint32_t>(__builtin_ctz(slots)) / 2;
}

inline uint64_t bucket_count(const bucket_table &table)
{
    return table.buckets == nullptr ? 0 : table.mask + 1;
}

inline bool holds(const bucket_table &table, const index_bucket *bucket)
{
    return bucket >= table.buckets && bucket < table.buckets + bucket_count(table);
}

// How to map a table that is too small for huge pages: touched at once, since it is going to be touched all over, and a
// page that is read before it is written costs two faults.
#ifdef MAP_POPULATE
constexpr int touched = MAP_POPULATE;
#else
constexpr int touched = 0;
#endif

// Maps an empty table; one without buckets when there is no memory.
inline bucket_table map_table(uint64_t bucket_count)
{
    const size_t bytes = bucket_count * sizeof(index_bucket);
    const bool is_large = bucket_count >= 2 * buckets_of_huge_page;
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (is_large ? 0 : touched);
    void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, flags, -1, 0);
    if (memory == MAP_FAILED) {
        return {};
    }
#ifdef MADV_HUGEPAGE
    if (is_large) {
        madvise(memory, bytes, MADV_HUGEPAGE);
    }
#endif
    return {static_cast<index_bucket *>(memory), bucket_count - 1, 0};
}

inline void unmap_from(bucket_table &table, uint64_t first_bucket)
{
    if (table.buckets != nullptr) {
        munmap(table.buckets + first_bucket, (bucket_count(table) - first_bucket) * sizeof(index_bucket));
        table = {};
    }
}

// Once around at the most: nothing forbids that every bucket has been passed. Inlined by force: every feed makes two of
// these searches.
template <typename Traits>
[[gnu::always_inline]] inline index_place find_in(const bucket_table &table, typename Traits::key_t key, uint64_t hash)
{
    if (table.buckets == nullptr) {
        return {};
    }
    const uint16_t tag = tag_of(hash);
    for (uint64_t step = 0; step <= table.mask; step++) {
        index_bucket &bucket = table.buckets[(hash + step) & table.mask];
        for (uint32_t slots = slots_with_tag(bucket, tag); slots != 0; slots &= slots - 1) {
            const uint32_t slot = first_slot(slots);
            if (Traits::key_of(*static_cast<typename Traits::record_t *>(bucket.record[slot])) == key) {
                return {&bucket, slot};
            }
        }
        if (bucket.passed == 0) {
            break;
        }
    }
    return {};
}

// Kept out of the searches that find the index at rest.
template <typename Traits>
[[gnu::noinline]] index_place find_in_retiring(const growing_index<Traits> &index, typename Traits::key_t key,
                                               uint64_t hash)
{
    return find_in<Traits>(index.retiring, key, hash);
}

// Puts a record into the first free slot from its bucket on. The caller has seen to it that there is one.
inline void put(bucket_table &table, uint64_t hash, void *record)
{
    for (uint64_t at = hash & table.mask;; at = (at + 1) & table.mask) {
        index_bucket &bucket = table.buckets[at];
        if (const uint32_t slots = slots_with_tag(bucket, 0); slots != 0) {
            const uint32_t slot = first_slot(slots);
            bucket.tag[slot] = tag_of(hash);
            bucket.record[slot] = record;
            table.used++;
            return;
        }
        bucket.passed = static_cast<uint16_t>(bucket.passed + (bucket.passed < most_passed));
    }
}

// Empties a slot whose record has this hash. A bucket that has been passed too often to count stays passed for good.
inline void take(bucket_table &table, uint64_t hash, index_place place)
{
    for (uint64_t at = hash & table.mask; &table.buckets[at] != place.bucket; at = (at + 1) & table.mask) {
        uint16_t &passed = table.buckets[at].passed;
        passed = static_cast<uint16_t>(passed - (passed < most_passed));
    }
    place.bucket->tag[place.slot] = 0;
    place.bucket->record[place.slot] = nullptr;
    table.used--;
}

// Asks for what the buckets that are soon to be retired will need, in two steps, each two insertions ahead so that
// memory has answered by the next: a bucket; then its records, whose keys are hashed again, and the two buckets that
// most of them go to. Inlined by force: a function that does nothing but prefetch counts as one without effect, and its
// calls vanish.
template <typename Traits>
[[gnu::always_inline]] inline void fetch_for_retiring(const growing_index<Traits> &index)
{
    constexpr uint64_t ahead = 2 * buckets_retired_at_once;
    __builtin_prefetch(&index.retiring.buckets[(index.retired + 2 * ahead) & index.retiring.mask]);
    const uint64_t number = (index.retired + ahead) & index.retiring.mask;
    for (const void *record : index.retiring.buckets[number].record) {
        __builtin_prefetch(record);
    }
    __builtin_prefetch(&index.current.buckets[number], 1);
    __builtin_prefetch(&index.current.buckets[number + bucket_count(index.retiring)], 1);
}

// Moves the records of the next retiring bucket to the current table.
template <typename Traits>
void retire_one(growing_index<Traits> &index)
{
    fetch_for_retiring(index);
    index_bucket &bucket = index.retiring.buckets[index.retired];
    for (uint32_t slot = 0; slot < bucket_slots; slot++) {
        if (bucket.tag[slot] != 0) {
            auto *record = static_cast<typename Traits::record_t *>(bucket.record[slot]);
            put(index.current, hash(Traits::key_of(*record), index.secret), record);
            bucket.tag[slot] = 0;
            bucket.record[slot] = nullptr;
        }
    }
    index.retired++;
    if (index.retired == bucket_count(index.retiring)) {
        unmap_from(index.leaving, index.left);
        index.leaving = index.retiring;
        index.left = 0;
        index.retiring = {};
    }
}

template <typename Traits>
void give_back_some(growing_index<Traits> &index)
{
    if (bucket_count(index.leaving) - index.left <= buckets_given_back_at_once) {
        unmap_from(index.leaving, index.left);
        return;
    }
    munmap(index.leaving.buckets + index.left, buckets_given_back_at_once * sizeof(index_bucket));
    index.left += buckets_given_back_at_once;
}

template <typename Traits>
void retire_some(growing_index<Traits> &index)
{
    for (uint64_t count = 0; count < buckets_retired_at_once; count++) {
        retire_one(index);
    }
}

// Sees to it that the current table has a free slot; false when it would need a larger table and there is no memory. A
// fuller one than two thirds would not do instead: the more removals it has seen, the further it is searched for what
// is not there, three buckets at two thirds, eight at three quarters, all of them when it is full. A table is retired
// long before the next one, twice as large, is full.
template <typename Traits>
bool make_room(growing_index<Traits> &index)
{
    if (index.retiring.buckets != nullptr) {
        retire_some(index);
        return true;
    }
    if (index.leaving.buckets != nullptr) {
        give_back_some(index);
    }
    if (index.secret == 0) {
        index.secret = make_secret(&index);
    }
    const uint64_t slots = bucket_count(index.current) * bucket_slots;
    if (index.current.used < slots / 3 * 2) {
        return true;
    }
    const bucket_table next = map_table(slots == 0 ? first_bucket_count : bucket_count(index.current) * 2);
    if (next.buckets == nullptr) {
        return false;
    }
    index.retiring = index.current;
    index.retired = 0;
    index.current = next;
    return true;
}

} // namespace growing

template <typename Traits>
uint64_t index_hash(const growing_index<Traits> &index, typename Traits::key_t key)
{
    return growing::hash(key, index.secret);
}

template <typename Traits>
[[gnu::always_inline]] inline index_place index_find(const growing_index<Traits> &index, typename Traits::key_t key)
{
    const uint64_t hash = index_hash(index, key);
    const index_place place = growing::find_in<Traits>(index.current, key, hash);
    return place || index.retiring.buckets == nullptr ? place : growing::find_in_retiring<Traits>(index, key, hash);
}

// Asks for the bucket of a key that is about to be looked for. Inlined by force, as above.
template <typename Traits>
[[gnu::always_inline]] inline void index_expect(const growing_index<Traits> &index, typename Traits::key_t key)
{
    __builtin_prefetch(index.current.buckets + (index_hash(index, key) & index.current.mask));
}

// The record at a place; null for nowhere.
template <typename Traits>
typename Traits::record_t *index_record(const growing_index<Traits> & /*index*/, index_place place)
{
    return place ? static_cast<typename Traits::record_t *>(place.bucket->record[place.slot]) : nullptr;
}

// Gives the whole memory back and forgets every record.
template <typename Traits>
void index_release(growing_index<Traits> &index)
{
    growing::unmap_from(index.current, 0);
    growing::unmap_from(index.retiring, 0);
    growing::unmap_from(index.leaving, index.left);
    index = {};
}

// Adds a record whose key the index does not hold; false when there is no memory for it.
template <typename Traits>
bool index_insert(growing_index<Traits> &index, typename Traits::record_t *record)
{
    if (!growing::make_room(index)) {
        return false;
    }
    growing::put(index.current, index_hash(index, Traits::key_of(*record)), record);
    index.live++;
    return true;
}

// Lets a place hold another record of the same key.
inline void index_replace(index_place place, void *record)
{
    place.bucket->record[place.slot] = record;
}

// Removes the record at a place. An index that has become empty keeps no more than its first table.
template <typename Traits>
void index_erase(growing_index<Traits> &index, index_place place)
{
    const uint64_t hash = index_hash(index, Traits::key_of(*index_record(index, place)));
    growing::take(growing::holds(index.current, place.bucket) ? index.current : index.retiring, hash, place);
    index.live--;
    if (index.live == 0 && growing::bucket_count(index.current) > growing::first_bucket_count) {
        index_release(index);
    }
}

} // namespace edm
