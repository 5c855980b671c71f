// An exact index from keys to records that never stops the table to grow.
//
// Open addressing over slots of 8 bytes, each a tag and a pointer; the key stays in the record:
//
//        63        48 47                                             0
//       +------------+------------------------------------------------+
//       | tag        | address of the record                          |     0: empty     1: removed
//       +------------+------------------------------------------------+
//
// Not obvious:
//  - Growing is spread over the insertions that follow: the old slots are retired a few at a time, and a key is looked
//    for in the new ones first and then in those not retired yet. No insertion pays for a whole table.
//  - The memory is mapped apart from the heap and given back likewise. Without memory an insertion is refused, nothing
//    is lost, and the caller has to find that record in another way.
//  - Keys are hashed with a seed of the process, so that nobody outside can choose keys that collide.
//
// The caller holds the table lock. Traits name the record and its key:
//     struct traits {
//         using record_t = ...;
//         using key_t = ...;                        // a number
//         static key_t key_of(const record_t &);
//     };
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace edm {

// The process's seed; not 0.
uint64_t index_seed();

template <typename Traits>
struct growing_index {
    struct slot_table {
        uint64_t *slots; // null: no table
        uint64_t mask;   // number of slots, a power of two, less one
        uint64_t used;   // slots that are not empty
    };

    slot_table current;
    slot_table retiring; // while growing: what is not yet in `current`
    uint64_t retired;    // how many slots of `retiring` have been emptied
    slot_table leaving;  // emptied, and given back piece by piece
    uint64_t left;       // how many slots of `leaving` have been given back
    uint64_t live;       // records in the index
};

namespace growing {

constexpr uint64_t empty = 0;
constexpr uint64_t removed = 1;
constexpr uint64_t address_bits = 48;
constexpr uint64_t address_mask = (uint64_t{1} << address_bits) - 1;
constexpr uint64_t first_slot_count = 4096;
constexpr uint64_t slots_retired_at_once = 8;
constexpr uint64_t slots_given_back_at_once = 32768;
constexpr uint64_t huge_page_slots = uint64_t{2} << 20 >> 3;

inline uint64_t hash(uint64_t key)
{
    uint64_t mixed = key ^ index_seed();
    mixed = (mixed ^ (mixed >> 33)) * 0xff51afd7ed558ccdu;
    mixed = (mixed ^ (mixed >> 33)) * 0xc4ceb9fe1a85ec53u;
    return mixed ^ (mixed >> 33);
}

inline bool holds_record(uint64_t slot)
{
    return slot > removed;
}

template <typename Record>
Record *record_of(uint64_t slot)
{
    return reinterpret_cast<Record *>(slot & address_mask);
}

template <typename Record>
uint64_t slot_of(Record *record, uint64_t hash)
{
    return (hash & ~address_mask) | reinterpret_cast<uintptr_t>(record);
}

template <typename Table>
uint64_t slot_count(const Table &table)
{
    return table.slots == nullptr ? 0 : table.mask + 1;
}

// Maps an all-empty table; one without slots when there is no memory.
template <typename Table>
Table map_table(uint64_t slot_count)
{
    const size_t bytes = slot_count * sizeof(uint64_t);
    void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return {};
    }
#ifdef MADV_HUGEPAGE
    if (slot_count >= 2 * huge_page_slots) {
        madvise(memory, bytes, MADV_HUGEPAGE);
    }
#endif
    return {static_cast<uint64_t *>(memory), slot_count - 1, 0};
}

template <typename Table>
void unmap_from(Table &table, uint64_t first_slot)
{
    if (table.slots != nullptr) {
        munmap(table.slots + first_slot, (slot_count(table) - first_slot) * sizeof(uint64_t));
        table = {};
    }
}

// The slot of a key in one table, or null.
template <typename Traits, typename Table>
uint64_t *find_in(const Table &table, typename Traits::key_t key, uint64_t hash)
{
    if (table.slots == nullptr) {
        return nullptr;
    }
    for (uint64_t at = hash & table.mask;; at = (at + 1) & table.mask) {
        const uint64_t slot = table.slots[at];
        if (slot == empty) {
            return nullptr;
        }
        const bool tag_matches = ((slot ^ hash) & ~address_mask) == 0;
        if (tag_matches && holds_record(slot) && Traits::key_of(*record_of<typename Traits::record_t>(slot)) == key) {
            return &table.slots[at];
        }
    }
}

// Puts a slot value into the first place that is free. The caller has seen to it that there is an empty one.
template <typename Table>
void place(Table &table, uint64_t hash, uint64_t value)
{
    uint64_t at = hash & table.mask;
    while (holds_record(table.slots[at])) {
        at = (at + 1) & table.mask;
    }
    table.used += table.slots[at] == empty ? 1u : 0u;
    table.slots[at] = value;
}

// Moves the next few slots of the retiring table to the current one. Their records are fetched side by side first.
template <typename Traits>
void retire_some(growing_index<Traits> &index)
{
    using record_t = typename Traits::record_t;
    uint64_t *slots = index.retiring.slots + index.retired;
    for (uint64_t i = 0; i < slots_retired_at_once; i++) {
        __builtin_prefetch(record_of<record_t>(slots[i]));
    }
    for (uint64_t i = 0; i < slots_retired_at_once; i++) {
        if (holds_record(slots[i])) {
            const uint64_t hash = growing::hash(Traits::key_of(*record_of<record_t>(slots[i])));
            place(index.current, hash, slots[i]);
            slots[i] = removed;
        }
    }
    index.retired += slots_retired_at_once;
    if (index.retired == slot_count(index.retiring)) {
        unmap_from(index.leaving, index.left);
        index.leaving = index.retiring;
        index.left = 0;
        index.retiring = {};
    }
}

template <typename Traits>
void give_back_some(growing_index<Traits> &index)
{
    const uint64_t rest = slot_count(index.leaving) - index.left;
    if (rest <= slots_given_back_at_once) {
        unmap_from(index.leaving, index.left);
        return;
    }
    munmap(index.leaving.slots + index.left, slots_given_back_at_once * sizeof(uint64_t));
    index.left += slots_given_back_at_once;
}

// The size for the next table, such that retiring the present one ends long before the next is full.
template <typename Traits>
uint64_t next_slot_count(const growing_index<Traits> &index)
{
    const uint64_t now = slot_count(index.current);
    if (now == 0) {
        return first_slot_count;
    }
    if (index.live > now / 8 * 3) {
        return now * 2;
    }
    return index.live > now / 8 || now == first_slot_count ? now : now / 2;
}

// Sees to it that the current table has a place for one more record; false when it has not and there is no memory.
template <typename Traits>
bool make_room(growing_index<Traits> &index)
{
    if (index.retiring.slots != nullptr) {
        retire_some(index);
        return true;
    }
    if (index.leaving.slots != nullptr) {
        give_back_some(index);
    }
    const uint64_t now = slot_count(index.current);
    if (index.current.used < now / 4 * 3) {
        return true;
    }
    auto next = map_table<typename growing_index<Traits>::slot_table>(next_slot_count(index));
    if (next.slots == nullptr) {
        return index.current.used + 1 < now;
    }
    index.retiring = index.current;
    index.retired = 0;
    index.current = next;
    return true;
}

} // namespace growing

// The slot that holds the record with this key, or null. The slot is good until the index is changed.
template <typename Traits>
uint64_t *index_find(const growing_index<Traits> &index, typename Traits::key_t key)
{
    const uint64_t hash = growing::hash(key);
    uint64_t *slot = growing::find_in<Traits>(index.current, key, hash);
    return slot != nullptr ? slot : growing::find_in<Traits>(index.retiring, key, hash);
}

// The record of a slot; null for none.
template <typename Traits>
typename Traits::record_t *index_record(const growing_index<Traits> &, const uint64_t *slot)
{
    return slot == nullptr ? nullptr : growing::record_of<typename Traits::record_t>(*slot);
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
    const bool addressable = (reinterpret_cast<uintptr_t>(record) & ~growing::address_mask) == 0;
    if (!addressable || !growing::make_room(index)) {
        return false;
    }
    const uint64_t hash = growing::hash(Traits::key_of(*record));
    growing::place(index.current, hash, growing::slot_of(record, hash));
    index.live++;
    return true;
}

// Lets a slot hold another record of the same key.
template <typename Record>
void index_replace(uint64_t *slot, Record *record)
{
    *slot = growing::slot_of(record, *slot);
}

// Removes the record of a slot. An index that has become empty keeps no more than its first table.
template <typename Traits>
void index_erase(growing_index<Traits> &index, uint64_t *slot)
{
    *slot = growing::removed;
    index.live--;
    if (index.live == 0 && growing::slot_count(index.current) > growing::first_slot_count) {
        index_release(index);
    }
}

} // namespace edm
