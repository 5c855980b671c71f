// SPDX-License-Identifier: Apache-2.0

// An exact index from keys to records that grows without a pause.
//
// The index is a hash table of buckets. A bucket is one cache line with six slots. A slot has a tag of 16 bits and a
// pointer to a record; the key is in the record:
//
//        0                        12       14        16                                        64
//       +----+----+----+----+----+----+---------+---------+------+------+------+------+------+------+
//       | tag 0 ... tag 5             | unused  | passed  | record 0 ... record 5                   |
//       +----+----+----+----+----+----+---------+---------+------+------+------+------+------+------+
//         0: no record                                       lowest bit: the mark of the record
//
// The mark is one bit for the index's user. It answers a question about the record without an access to it.
//
// Overflow: a record whose bucket is full goes to the next bucket with a free slot. Each full bucket that it passes
// counts it in `passed`. A search starts at the key's bucket and ends at the first bucket that no record has passed. An
// example with seven records that all belong to bucket 4, and one (h) that belongs to bucket 5:
//
//       bucket 4    a b c d e f    passed 1      search for g: bucket 4, passed by one record, bucket 5: found
//       bucket 5    g h            passed 0      search for x of bucket 4: buckets 4 and 5; bucket 5 ends it
//       bucket 6                   passed 0      removal of g: `passed` of bucket 4 becomes 0 again
//
// Removal therefore leaves no trace that a later search would pay for.
//
// Growth: a table that is two thirds full is replaced by one of twice the size. The insertions just before map it and
// touch its pages, one each. The insertions that follow move the old buckets, a few each, so no insertion pays for a
// whole table. Meanwhile a key is searched in the new table first, then in the old one. Here three of the four buckets
// of the old table have moved:
//
//       retiring    [ - ][ - ][ - ][ 3 ]                                  retired: 3
//       current     [ 0 ][ 1 ][ 2 ][   ][ 0 ][ 1 ][ 2 ][   ]              a record of bucket 1 moves to bucket 1 or 5
//
// When the last bucket has moved, the old table becomes `emptied`. Later insertions unmap its memory piece by piece.
//
// Notes:
//  - All tags of a bucket are compared at once. A loop over the slots would branch in a way that no processor predicts,
//    and in a table that is fed in random order each instruction less lets more memory accesses overlap.
//  - The memory comes from mmap, apart from the heap. If memory is short, an insertion fails and changes nothing. The
//    caller must then find that record in another way.
//  - The hash has a secret, so that nobody outside can choose keys that collide.
//
// Locking: an index has no lock of its own. The table lock guards the indexes of the table.
//
// Traits name the record and its key:
//
//     struct by_xcid {
//         using record_t = l2fm_edm_bp_t;
//         using key_t = uint32_t; // a number
//         static uint32_t key_of(const l2fm_edm_bp_t &bp) { return bp.xcid; }
//     };
//     growing_index<by_xcid> ports{};
//     index_prepare(ports);
//     index_insert(ports, bp);
//     bp = index_record(ports, index_find(ports, 42));
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
constexpr size_t cache_line_size = 64; // in bytes

struct alignas(cache_line_size) index_bucket {
    uint16_t tag[bucket_slots]; // 0: the slot is free
    uint16_t unused;
    uint16_t passed;                // how many records passed this full bucket, up to max_passed
    uintptr_t record[bucket_slots]; // address and mark
};

static_assert(sizeof(index_bucket) == cache_line_size, "a bucket is one cache line");

// Where a record is in an index. Valid until the index changes.
struct index_place {
    index_bucket *bucket; // null: the index does not hold the record
    uint32_t slot;

    explicit operator bool() const { return bucket != nullptr; }
};

struct bucket_table {
    index_bucket *buckets; // null: no table
    uint64_t mask;         // number of buckets, a power of two, less one
    uint64_t used;         // slots that hold a record
    uint64_t full;         // the index grows when it uses this many
    uint64_t nearly_full;  // the index prepares to grow when it uses this many
};

// Zero-filled: empty.
template <typename Traits>
struct growing_index {
    bucket_table current;
    bucket_table retiring; // the old table while its records move to `current`
    uint64_t retired;      // how many buckets of `retiring` have moved
    bucket_table next;     // a larger table that soon replaces `current`
    uint64_t touched;      // how many buckets of `next` were touched ahead
    bucket_table emptied;  // an older table whose memory is being unmapped
    uint64_t unmapped;     // how many buckets of `emptied` are unmapped
    uint64_t live;         // records in the index
    uint64_t secret;       // an odd number, once chosen by index_prepare
};

namespace growing {

constexpr uint64_t first_bucket_count = 512; // one table of 32 KiB
constexpr uint64_t buckets_retired_at_once = 4;
constexpr uint64_t buckets_unmapped_at_once = 1024; // 64 KiB
constexpr uint64_t buckets_touched_at_once = 64; // 4 KiB, a small page; a virtual machine may take 40 us for a new one
constexpr uint64_t buckets_of_huge_page = (uint64_t{2} << 20) / sizeof(index_bucket);
constexpr uint64_t least_fetched_buckets = 1U << 14; // 1 MiB; the caches hold smaller tables and their records
constexpr uint16_t max_passed = UINT16_MAX;
constexpr uintptr_t mark_bit = 1;

// A table is full at two thirds of its slots. Above that, removals make the search for an absent key long: it visits
// three buckets at two thirds, eight at three quarters, and all buckets of a table without a free slot.
constexpr uint64_t full_parts = 2;
constexpr uint64_t parts = 3;

// The last part of the insertions into a table, during which the next one is touched. Twice as many as there are pages.
constexpr uint64_t part_of_preparation = 64;

static_assert(first_bucket_count % buckets_retired_at_once == 0,
              "a table has a whole number of such groups of buckets");

// Returns an odd number that nobody outside can guess. The load address differs between processes, the time between
// starts. The multiplications spread each of their bits over the whole number.
inline uint64_t make_secret(const void *address)
{
    constexpr uint64_t spread_address = 0x9e3779b97f4a7c15u;
    constexpr uint64_t spread_first = 0xff51afd7ed558ccdu;
    constexpr uint64_t spread_second = 0xc4ceb9fe1a85ec53u;
    constexpr uint32_t half = 33; // just over half of the bits
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    uint64_t mixed = reinterpret_cast<uintptr_t>(address) * spread_address ^ static_cast<uint64_t>(now);
    mixed = (mixed ^ (mixed >> half)) * spread_first;
    mixed = (mixed ^ (mixed >> half)) * spread_second;
    return (mixed ^ (mixed >> half)) | 1;
}

// Returns both halves of a 128-bit product, folded into one. So low and high bits of the key reach all bits of the
// hash.
inline uint64_t hash(uint64_t key, uint64_t secret)
{
    __extension__ using uint128 = unsigned __int128;
    const uint128 product = uint128{key} * secret;
    return static_cast<uint64_t>(product >> 64) ^ static_cast<uint64_t>(product);
}

// Returns the tag of a hash, which is never 0. It uses the highest bits; the lowest ones choose the bucket.
inline uint16_t tag_of(uint64_t hash)
{
    return static_cast<uint16_t>(hash >> 48 | 1);
}

// Returns the slots of a bucket that have a tag, as a set of bits: slot i is bit 2 * i. The comparison of 16-bit tags
// gives two bits for each; `slot_bits` keeps the lower one, and none of the two members behind the tags.
inline uint32_t slots_with_tag(const index_bucket &bucket, uint16_t tag)
{
    constexpr uint32_t slot_bits = 0b0101'0101'0101;
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

// Returns the first slot of a set that is not empty.
inline uint32_t first_slot(uint32_t slots)
{
    return static_cast<uint32_t>(__builtin_ctz(slots)) / 2;
}

// Returns the record in a slot.
template <typename Traits>
typename Traits::record_t *record_in(const index_bucket &bucket, uint32_t slot)
{
    static_assert(alignof(typename Traits::record_t) > mark_bit);
    return reinterpret_cast<typename Traits::record_t *>(bucket.record[slot] & ~mark_bit);
}

inline uint64_t bucket_count(const bucket_table &table)
{
    return table.buckets == nullptr ? 0 : table.mask + 1;
}

inline bool holds(const bucket_table &table, const index_bucket *bucket)
{
    return bucket >= table.buckets && bucket < table.buckets + bucket_count(table);
}

// Maps an empty table, in small pages: a huge one would be cleared at its first touch, which takes hundreds of
// microseconds. Returns a table without buckets if memory is short.
inline bucket_table map_table(uint64_t bucket_count)
{
    const size_t bytes = bucket_count * sizeof(index_bucket);
    void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return {};
    }
#ifdef MADV_NOHUGEPAGE
    madvise(memory, bytes, MADV_NOHUGEPAGE);
#endif
    const uint64_t full = bucket_count * bucket_slots / parts * full_parts;
    return {static_cast<index_bucket *>(memory), bucket_count - 1, 0, full, full - full / part_of_preparation};
}

// Lets the system replace the small pages of a table by huge ones, behind the back of its users. All pages of the table
// are present.
inline void request_huge_pages(const bucket_table &table)
{
#ifdef MADV_HUGEPAGE
    if (bucket_count(table) >= buckets_of_huge_page) {
        madvise(table.buckets, bucket_count(table) * sizeof(index_bucket), MADV_HUGEPAGE);
    }
#endif
}

// Makes pages of a table present ahead of use. A page that is read before it is written would cost two faults.
inline void touch(index_bucket *buckets, uint64_t count)
{
#ifdef MADV_POPULATE_WRITE
    madvise(buckets, count * sizeof(index_bucket), MADV_POPULATE_WRITE);
#else
    (void)buckets;
    (void)count;
#endif
}

// Unmaps a table from a bucket on; the caller has unmapped those before.
inline void unmap_from(bucket_table &table, uint64_t first_bucket)
{
    if (table.buckets != nullptr) {
        munmap(table.buckets + first_bucket, (bucket_count(table) - first_bucket) * sizeof(index_bucket));
        table = {};
    }
}

// Returns the place of a key in one bucket. The place has no bucket if this bucket does not hold the key.
template <typename Traits>
[[gnu::always_inline]] inline index_place find_in_bucket(index_bucket &bucket, typename Traits::key_t key, uint16_t tag)
{
    for (uint32_t slots = slots_with_tag(bucket, tag); slots != 0; slots &= slots - 1) {
        const uint32_t slot = first_slot(slots);
        if (Traits::key_of(*record_in<Traits>(bucket, slot)) == key) {
            return {&bucket, slot};
        }
    }
    return {};
}

// The rest of find_in, for a key that may have passed its own bucket. Visits each bucket at most once, because records
// may have passed all of them.
template <typename Traits>
[[gnu::noinline]] index_place find_behind(const bucket_table &table, typename Traits::key_t key, uint64_t hash)
{
    for (uint64_t step = 1; step <= table.mask; step++) {
        index_bucket &bucket = table.buckets[(hash + step) & table.mask];
        const index_place place = find_in_bucket<Traits>(bucket, key, tag_of(hash));
        if (place || bucket.passed == 0) {
            return place;
        }
    }
    return {};
}

// Returns the place of a key in one table. Always inlined, because each feed makes two of these searches.
template <typename Traits>
[[gnu::always_inline]] inline index_place find_in(const bucket_table &table, typename Traits::key_t key, uint64_t hash)
{
    if (table.buckets == nullptr) {
        return {};
    }
    index_bucket &bucket = table.buckets[hash & table.mask];
    const index_place place = find_in_bucket<Traits>(bucket, key, tag_of(hash));
    return place || bucket.passed == 0 ? place : find_behind<Traits>(table, key, hash);
}

// Not inlined, because a search rarely runs while the index grows.
template <typename Traits>
[[gnu::noinline]] index_place find_in_retiring(const growing_index<Traits> &index, typename Traits::key_t key,
                                               uint64_t hash)
{
    return find_in<Traits>(index.retiring, key, hash);
}

// Stores a record with its mark in the first free slot from its bucket on. The table has a free slot.
inline void put(bucket_table &table, uint64_t hash, uintptr_t record)
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
        bucket.passed = static_cast<uint16_t>(bucket.passed + (bucket.passed < max_passed));
    }
}

// Empties a slot whose record has this hash. A bucket whose counter has reached max_passed keeps it: the counter no
// longer knows how many records passed.
inline void take(bucket_table &table, uint64_t hash, index_place place)
{
    for (uint64_t at = hash & table.mask; &table.buckets[at] != place.bucket; at = (at + 1) & table.mask) {
        uint16_t &passed = table.buckets[at].passed;
        passed = static_cast<uint16_t>(passed - (passed < max_passed));
    }
    place.bucket->tag[place.slot] = 0;
    place.bucket->record[place.slot] = 0;
    table.used--;
}

// Prefetches what the next buckets to retire need, in two steps of two insertions each, so that memory has answered by
// the next step. The first step fetches a bucket. The second one fetches its records, whose keys are hashed again, and
// the two buckets to which most of them move. Always inlined, because the compiler takes a function that only
// prefetches for one without effect and drops its calls.
template <typename Traits>
[[gnu::always_inline]] inline void fetch_for_retiring(const growing_index<Traits> &index)
{
    constexpr uint64_t ahead = 2 * buckets_retired_at_once;
    __builtin_prefetch(&index.retiring.buckets[(index.retired + 2 * ahead) & index.retiring.mask]);
    const uint64_t number = (index.retired + ahead) & index.retiring.mask;
    for (const uintptr_t record : index.retiring.buckets[number].record) {
        __builtin_prefetch(reinterpret_cast<const void *>(record));
    }
    __builtin_prefetch(&index.current.buckets[number], 1);
    __builtin_prefetch(&index.current.buckets[number + bucket_count(index.retiring)], 1);
}

// Moves the records of the next retiring bucket to the current table.
template <typename Traits>
void retire_one(growing_index<Traits> &index)
{
    if (bucket_count(index.retiring) >= least_fetched_buckets) {
        fetch_for_retiring(index);
    }
    index_bucket &bucket = index.retiring.buckets[index.retired];
    for (uint32_t slot = 0; slot < bucket_slots; slot++) {
        if (bucket.tag[slot] != 0) {
            const uint64_t key_hash = hash(Traits::key_of(*record_in<Traits>(bucket, slot)), index.secret);
            put(index.current, key_hash, bucket.record[slot]);
            bucket.tag[slot] = 0;
            bucket.record[slot] = 0;
        }
    }
    index.retired++;
    if (index.retired == bucket_count(index.retiring)) {
        unmap_from(index.emptied, index.unmapped);
        index.emptied = index.retiring;
        index.unmapped = 0;
        index.retiring = {};
        request_huge_pages(index.current);
    }
}

// Unmaps the next piece of the emptied table.
template <typename Traits>
void unmap_some(growing_index<Traits> &index)
{
    if (bucket_count(index.emptied) - index.unmapped <= buckets_unmapped_at_once) {
        unmap_from(index.emptied, index.unmapped);
        return;
    }
    munmap(index.emptied.buckets + index.unmapped, buckets_unmapped_at_once * sizeof(index_bucket));
    index.unmapped += buckets_unmapped_at_once;
}

template <typename Traits>
void retire_some(growing_index<Traits> &index)
{
    for (uint64_t count = 0; count < buckets_retired_at_once; count++) {
        retire_one(index);
    }
}

template <typename Traits>
uint64_t next_bucket_count(const growing_index<Traits> &index)
{
    return index.current.buckets == nullptr ? first_bucket_count : bucket_count(index.current) * 2;
}

// Maps the next table, or touches another piece of it. The pages of a table are new to the process, and no insertion
// should wait for more than one of them.
template <typename Traits>
[[gnu::noinline]] void prepare_next(growing_index<Traits> &index)
{
    if (index.next.buckets == nullptr) {
        index.next = map_table(next_bucket_count(index));
        index.touched = 0;
    } else if (index.touched < bucket_count(index.next)) {
        touch(index.next.buckets + index.touched, buckets_touched_at_once);
        index.touched += buckets_touched_at_once;
    }
}

// Begins to replace the current table by a larger one. Returns false if memory is short.
template <typename Traits>
[[gnu::noinline]] bool grow(growing_index<Traits> &index)
{
    if (index.next.buckets == nullptr) {
        index.next = map_table(next_bucket_count(index));
    }
    if (index.next.buckets == nullptr) {
        return false;
    }
    index.retiring = index.current;
    index.retired = 0;
    index.current = index.next;
    index.next = {};
    return true;
}

// The rest of make_room, for a table that is nearly full.
template <typename Traits>
[[gnu::noinline]] bool prepare_or_grow(growing_index<Traits> &index)
{
    if (index.current.used >= index.current.full) {
        return grow(index);
    }
    prepare_next(index);
    return true;
}

// Ensures that the current table has a free slot, and moves some buckets if the index grows. Returns false if the index
// needs a larger table and memory is short. The old table has moved completely long before the new one, of twice its
// size, is full.
template <typename Traits>
bool make_room(growing_index<Traits> &index)
{
    if (index.retiring.buckets != nullptr) {
        retire_some(index);
        return true;
    }
    if (index.emptied.buckets != nullptr) {
        unmap_some(index);
    }
    return index.current.used < index.current.nearly_full || prepare_or_grow(index);
}

} // namespace growing

// Chooses the secret of the hash, if there is none. Comes before all other uses of the index.
template <typename Traits>
void index_prepare(growing_index<Traits> &index)
{
    if (index.secret == 0) {
        index.secret = growing::make_secret(&index);
    }
}

template <typename Traits>
uint64_t index_hash(const growing_index<Traits> &index, typename Traits::key_t key)
{
    return growing::hash(key, index.secret);
}

// Returns the place of a key with this hash. The place has no bucket if the index does not hold the key.
template <typename Traits>
[[gnu::always_inline]] inline index_place index_find(const growing_index<Traits> &index, typename Traits::key_t key,
                                                     uint64_t hash)
{
    const index_place place = growing::find_in<Traits>(index.current, key, hash);
    return place || index.retiring.buckets == nullptr ? place : growing::find_in_retiring<Traits>(index, key, hash);
}

template <typename Traits>
[[gnu::always_inline]] inline index_place index_find(const growing_index<Traits> &index, typename Traits::key_t key)
{
    return index_find(index, key, index_hash(index, key));
}

// The beginning of a search: the key's own bucket, without a call. That decides nearly all searches. Returns the
// address of the key's record with its mark, index_absent, or index_undecided: only index_find knows.
constexpr uintptr_t index_absent = 0;
constexpr uintptr_t index_undecided = UINTPTR_MAX;
template <typename Traits>
[[gnu::always_inline]] inline uintptr_t index_look(const growing_index<Traits> &index, typename Traits::key_t key,
                                                   uint64_t hash)
{
    if (index.current.buckets == nullptr) {
        return index_undecided;
    }
    const index_bucket &bucket = index.current.buckets[hash & index.current.mask];
    const uint32_t slots = growing::slots_with_tag(bucket, growing::tag_of(hash));
    if (slots == 0) {
        return bucket.passed == 0 && index.retiring.buckets == nullptr ? index_absent : index_undecided;
    }
    const uint32_t slot = growing::first_slot(slots);
    const bool is_found = Traits::key_of(*growing::record_in<Traits>(bucket, slot)) == key;
    return is_found ? bucket.record[slot] : index_undecided;
}

// Prefetches the bucket of a hash that the caller will soon look for. Always inlined, like fetch_for_retiring.
template <typename Traits>
[[gnu::always_inline]] inline void index_expect(const growing_index<Traits> &index, uint64_t hash)
{
    __builtin_prefetch(index.current.buckets + (hash & index.current.mask));
}

// Returns a place that may be that of a key with this hash. Reads its bucket only, and no record.
template <typename Traits>
[[gnu::always_inline]] inline index_place index_guess(const growing_index<Traits> &index, uint64_t hash)
{
    if (index.current.buckets == nullptr) {
        return {};
    }
    index_bucket &bucket = index.current.buckets[hash & index.current.mask];
    const uint32_t slots = growing::slots_with_tag(bucket, growing::tag_of(hash));
    return slots != 0 ? index_place{&bucket, growing::first_slot(slots)} : index_place{};
}

// Returns the record at a place, or null if the place has no bucket.
template <typename Traits>
typename Traits::record_t *index_record(const growing_index<Traits> & /*index*/, index_place place)
{
    return place ? growing::record_in<Traits>(*place.bucket, place.slot) : nullptr;
}

// Whether a result of index_look is index_absent or the address of a record that is not marked.
[[gnu::always_inline]] inline bool index_is_unmarked(uintptr_t record)
{
    return (record & growing::mark_bit) == 0;
}

// Sets the mark of the record at a place. The mark of a new record is clear.
inline void index_set_mark(index_place place, bool mark)
{
    uintptr_t &record = place.bucket->record[place.slot];
    record = (record & ~growing::mark_bit) | (mark ? growing::mark_bit : 0);
}

// Empties the index and releases all its memory. Hashes stay valid.
template <typename Traits>
void index_release(growing_index<Traits> &index)
{
    growing::unmap_from(index.current, 0);
    growing::unmap_from(index.retiring, 0);
    growing::unmap_from(index.next, 0);
    growing::unmap_from(index.emptied, index.unmapped);
    const uint64_t secret = index.secret;
    index = {};
    index.secret = secret;
}

// Adds a record whose key the index does not hold yet. Returns false and changes nothing if memory is short.
template <typename Traits>
bool index_insert(growing_index<Traits> &index, typename Traits::record_t *record)
{
    if (!growing::make_room(index)) {
        return false;
    }
    growing::put(index.current, index_hash(index, Traits::key_of(*record)), reinterpret_cast<uintptr_t>(record));
    index.live++;
    return true;
}

// Replaces the record at a place by another one with the same key. Its mark is clear.
inline void index_replace(index_place place, void *record)
{
    place.bucket->record[place.slot] = reinterpret_cast<uintptr_t>(record);
}

// Removes the record at a place, whose key has this hash. An empty index releases its memory, unless it still has its
// first table.
template <typename Traits>
void index_erase(growing_index<Traits> &index, index_place place, uint64_t hash)
{
    growing::take(growing::holds(index.current, place.bucket) ? index.current : index.retiring, hash, place);
    index.live--;
    if (index.live == 0 && growing::bucket_count(index.current) > growing::first_bucket_count) {
        index_release(index);
    }
}

} // namespace edm
