// SPDX-License-Identifier: Apache-2.0

// The nodes of the ordered trees, and the main header of this room: how nodes are laid out and where their memory comes
// from. This room implements platform/ordtree.h in four layers:
//
//      ordtree.cpp          the operations of a tree over all its indexes
//      ordtree_shape.*      one index: nodes are split, merged and released
//      ordtree_key.*        keys beside the slots, and the search for one
//      ordtree_node.*       nodes and their memory
//
// Each index of a tree is a B+tree. The leaves are linked in order and hold the records; the nodes above lead to them.
// Example, with four entries per node instead of 61:
//
//                           inner | -  30 |
//                                   |   |
//                   .---------------'   '---.
//            leaf | 10 15 20 | <-----> leaf | 30 40 |
//                   |  |  |                   |  |
//                   records                   records
//
//      search 15     in the inner node 15 < 30, so the first child; in the leaf, slot 1
//      after 20      the record of 20 knows its leaf; 20 is in the last slot, so the next leaf, slot 0: 30
//
// All nodes have one size and are aligned to it. So an address shows whether it can be a node, and in which slab it
// lies:
//
//        slab  +--------+--------+--------+-----     node  +-------------------------------------------+
//              | header | node   | node   | ...            | tree parent prev next count level ...     |
//              +--------+--------+--------+-----           +-------------------------------------------+
//                                                          | entries: key, target; ascending by key    |
//                                                          |   leaf: targets are the nodes of records  |
//                                                          |   inner: targets are the nodes below      |
//                                                          +-------------------------------------------+
//
// Slabs come from the arena. A slab goes back to it when its last node is free, except for one empty slab. Without that
// exception, a tree that is created and finished again and again would map and unmap memory each time. A free node
// belongs to no tree, so a link that outlived its tree can still be examined.
//
// Only the files host/tree/ordtree*.cpp use this header. Any thread may take and give nodes. A taken node belongs to
// its tree, and the caller of the tree's operation holds the lock of the tree.
#pragma once

#include "platform/ordtree.h"

#include <cstddef>
#include <cstdint>

#include "host/pool/slab_owner.h"

namespace host::btree {

struct entry {
    uint64_t key; // the key itself or the address of a link, see ordtree_key.h
    void *target;
};

constexpr size_t cache_line_size = 64;
constexpr size_t node_size = 1024;
constexpr size_t node_header_size = 48;
constexpr unsigned node_capacity = (node_size - node_header_size) / sizeof(entry);

struct alignas(node_size) node {
    const ordtree_t *tree; // null while the node is free
    node *parent;          // null for the root
    node *prev;            // neighbours on the same level, in the order of the index
    node *next;            // also links the nodes of a list outside of any tree
    uint32_t count;        // entries in use
    uint16_t level;        // 0 for a leaf
    uint16_t index;
    uint32_t newest;                                     // slot of the latest insertion; removals may have moved it
    alignas(sizeof(entry)) entry entries[node_capacity]; // no entry crosses a cache line
};

static_assert(sizeof(node) == node_size);
static_assert(offsetof(node, entries) == node_header_size);

inline ordtree_link_t *record_at(const node *leaf, unsigned slot)
{
    return static_cast<ordtree_link_t *>(leaf->entries[slot].target);
}

inline node *child_at(const node *inner, unsigned slot)
{
    return static_cast<node *>(inner->entries[slot].target);
}

// Prefetches a whole node at once, because a search inside it would wait for one cache line after the other. Always
// inlined: the compiler treats a function that only prefetches as one without effect, and removes its calls.
[[gnu::always_inline]] inline void prefetch_node(const node *wanted)
{
    const auto *const start = reinterpret_cast<const char *>(wanted);
#pragma GCC unroll 16
    for (size_t offset = 0; offset < node_size; offset += cache_line_size) {
        __builtin_prefetch(start + offset);
    }
}

// Returns the tree of a node. A node whose tree ended may belong to a tree of another thread by now, hence the atomic.
inline const ordtree_t *tree_of(const node *place)
{
    return __atomic_load_n(&place->tree, __ATOMIC_RELAXED);
}

// Its address owns the slabs of nodes.
extern const char node_slab_owner [[gnu::visibility("hidden")]];

// Returns the node at `address`, in use or free. Null if the address is not that of a node.
inline node *node_at(const void *address) noexcept
{
    const auto value = reinterpret_cast<uintptr_t>(address);
    const bool aligned = value % node_size == 0 && value % arena_slab_size != 0;
    return aligned && slab_owner(address) == &node_slab_owner ? reinterpret_cast<node *>(value) : nullptr;
}

// Takes `count` nodes as a list linked by `next`, or takes none and returns false. All else in their headers is zero.
bool nodes_take(unsigned count, node *&list) noexcept;

void node_give(node *unused) noexcept;

} // namespace host::btree
