// SPDX-License-Identifier: Apache-2.0

// The shape of an index: where records are put into leaves and taken out, full nodes are split and sparse ones merged.
//
// What holds between two operations:
//  - All leaves are on level 0, and the nodes of each level are linked in order.
//  - No node is empty; the root has two children at least unless it is a leaf. An index without records has no node.
//  - The key beside an inner node's slot is greater than all keys before it and not greater than those below it; the
//    key beside its first slot means nothing. Where key words are links, it is the least link below it, so that it
//    never outlives its record.
//
// A node that falls below a third is merged with a sibling if the result leaves room; otherwise it may run empty. So
// nothing is moved to fill up a node that a sweep is about to empty, and taking a record out never needs memory.
//
// For the files host/ordtree*.cpp only, under the lock of whoever changes the tree.
#pragma once

#include "host/tree/ordtree_key.h"

namespace host::btree {

constexpr unsigned sparse_count = node_capacity / 3;

// Where a record is, or would be, in an index. `leaf` is null for a record that is not there, or without any leaf.
struct leaf_place {
    node *leaf;
    unsigned slot;
};

// An index remembers where its last successor was found: walks ask for the successor of that record next, or take the
// record before it out. It is a hint, checked before use. Readers may write it at the same time.
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

// Moves entries within a node or to another one. Counts, and what the targets know of it, are left to the caller.
inline void move_entries(node *to, unsigned to_slot, const node *from, unsigned from_slot, unsigned count)
{
    std::memmove(to->entries + to_slot, from->entries + from_slot, count * sizeof(entry));
}

inline void insert_entry(node *into, unsigned slot, entry added)
{
    move_entries(into, slot + 1, into, slot, into->count - slot);
    into->entries[slot] = added;
    into->count++;
}

inline void remove_entry(node *from, unsigned slot)
{
    from->count--;
    move_entries(from, slot, from, slot + 1, from->count - slot);
}

// Whether, and how many, nodes it takes to put a record into `leaf`; null for an index without any.
inline bool needs_nodes(const node *leaf)
{
    return leaf == nullptr || leaf->count == node_capacity;
}

unsigned nodes_needed(const node *leaf) noexcept;

// Puts a record to a place where nodes are needed: `spare` is a list of as many, or more.
void put_with_nodes(ordtree_t *tree, unsigned number, leaf_place at, entry added, node *&spare) noexcept;

// Restores what has to hold for a leaf, and above it, after the entry at `slot` was removed.
void reshape_after_removal(ordtree_index_t &index, node *leaf, unsigned slot) noexcept;

// Gives all nodes of an index back, whatever they hold.
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
