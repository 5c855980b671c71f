// SPDX-License-Identifier: Apache-2.0

// The shape of one index: puts records into leaves, takes them out, splits full nodes and merges sparse ones.
//
// Between two operations:
//  - All leaves are on level 0. The nodes of each level are linked in order.
//  - No node is empty. A root that is not a leaf has at least two children. An index without records has no node.
//  - The key beside a slot of an inner node is a separator: it is greater than all keys before it, and not greater than
//    the keys below it. The key beside the first slot has no meaning. Where key words are links, a separator is the
//    least link below it, so that it never outlives its record.
//
// Splitting, with four entries per node and 25 inserted into a full leaf:
//
//      inner   | - 50 |                   | - 30 50 |
//      leaves  | 10 20 30 40 |  | 50 |    | 10 20 25 |  | 30 40 |  | 50 |
//
// Merging. If a node falls below a third of its entries, it is merged with a sibling, provided that the result leaves
// room. Otherwise it stays, until it is empty. So removals move no entries to fill a node that a sweep is about to
// empty, and a removal needs no memory.
//
// Only the files host/tree/ordtree*.cpp use this header, under the lock of the caller who changes the tree.
#pragma once

#include "host/tree/ordtree_key.h"

namespace host::btree {

constexpr unsigned sparse_count = node_capacity / 3;

// Where a record is, or would be, in an index. `leaf` is null if the record is not there, or the index has no leaf.
struct leaf_place {
    node *leaf;
    unsigned slot;
};

// The cursor of an index is the place where it last found a successor. A walk next asks for the successor of that
// record, or removes the record before it. The cursor is a hint that is checked before use, because readers write it at
// the same time. A leaf is aligned to its size, so the low bits of one word hold the slot.
inline leaf_place cursor_of(const ordtree_index_t &index)
{
    const auto cursor = reinterpret_cast<uintptr_t>(__atomic_load_n(&index.cursor, __ATOMIC_RELAXED));
    return {reinterpret_cast<node *>(cursor & ~(node_size - 1)), static_cast<unsigned>(cursor & (node_size - 1))};
}

inline void set_cursor(const ordtree_index_t &index, leaf_place at)
{
    void *const cursor = reinterpret_cast<char *>(at.leaf) + at.slot;
    __atomic_store_n(&const_cast<ordtree_index_t &>(index).cursor, cursor, __ATOMIC_RELAXED);
}

// Moves entries within a node or to another one. The caller updates the counts, and the links of the targets.
inline void move_entries(node *to, unsigned to_slot, const node *from, unsigned from_slot, unsigned count)
{
    std::memmove(to->entries + to_slot, from->entries + from_slot, count * sizeof(entry));
}

inline void insert_entry(node *into, unsigned slot, entry added)
{
    move_entries(into, slot + 1, into, slot, into->count - slot);
    into->entries[slot] = added;
    into->count++;
    into->newest = slot;
}

inline void remove_entry(node *from, unsigned slot)
{
    from->count--;
    move_entries(from, slot, from, slot + 1, from->count - slot);
}

// Whether putting a record into `leaf` needs new nodes, and how many. `leaf` is null for an empty index.
inline bool needs_nodes(const node *leaf)
{
    return leaf == nullptr || leaf->count == node_capacity;
}

unsigned nodes_needed(const node *leaf) noexcept;

// Puts a record to a place that needs new nodes. `spare` is a list of at least as many.
void put_with_nodes(ordtree_t *tree, unsigned number, leaf_place at, entry added, node *&spare) noexcept;

// Restores the shape of a leaf, and above it, after the entry at `slot` was removed.
void reshape_after_removal(ordtree_index_t &index, node *leaf, unsigned slot) noexcept;

// Takes the first `count` records out of the first leaf of an index. The caller zeroes their links.
void take_first_records(ordtree_index_t &index, node *leaf, unsigned count) noexcept;

// Gives all nodes of an index back. Does not touch the records.
void free_nodes(ordtree_index_t &index) noexcept;

// Puts the entry of a record to its place in an index.
inline void put_record(ordtree_t *tree, unsigned number, leaf_place at, entry added, node *&spare)
{
    if (needs_nodes(at.leaf)) {
        put_with_nodes(tree, number, at, added, spare);
        return;
    }
    insert_entry(at.leaf, at.slot, added);
    record_at(at.leaf, at.slot)[number].place = at.leaf;
}

// Takes the record at a place out of its index and zeroes its link.
inline void take_record(ordtree_t *tree, unsigned number, leaf_place at)
{
    ordtree_index_t &index = tree->index[number];
    record_at(at.leaf, at.slot)[number].place = nullptr;
    remove_entry(at.leaf, at.slot);
    set_cursor(index, at);
    const bool affects_parent = at.leaf->count < sparse_count || (at.slot == 0 && !has_inline_keys(index));
    if (at.leaf->count == 0 || (affects_parent && at.leaf->parent != nullptr)) {
        reshape_after_removal(index, at.leaf, at.slot);
    }
}

} // namespace host::btree
