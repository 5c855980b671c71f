// SPDX-License-Identifier: Apache-2.0

// The nodes of the ordered trees: how they are laid out and where their memory comes from.
//
// Each index of a tree is a B+tree of nodes of one size, aligned to it, so that an address tells whether it can be a
// node and which slab it was cut from:
//
//        slab  +--------+--------+--------+-----     node  +-------------------------------------------+
//              | header | node   | node   | ...            | tree parent prev next count level index   |
//              +--------+--------+--------+-----           +-------------------------------------------+
//                                                          | entries: key, target; ascending by key    |
//                                                          |   leaf: targets are the nodes of records  |
//                                                          |   inner: targets are the nodes below      |
//                                                          +-------------------------------------------+
//
// Slabs come from the arena and go back to it when their last node is free; one empty slab is kept, so that a tree
// which comes and goes does not map and unmap memory. A free node says that it belongs to no tree: a link that has
// outlived its tree may still be examined.
//
// For the files host/ordtree*.cpp only. Any thread may take and give nodes; a taken node belongs to its tree.
#pragma once

#include "platform/ordtree.h"

#include <cstddef>
#include <cstdint>

namespace host::btree {

struct entry {
    uint64_t key; // the key itself or a link, see ordtree_key.h
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
    node *next;            // also links lists of nodes that are in no tree
    uint32_t count;        // of entries in use
    uint16_t level;        // 0 for a leaf
    uint16_t index;
    alignas(sizeof(entry)) entry entries[node_capacity]; // none lies across cache lines
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

// Asks for the whole of a node at once: a search inside it would wait for one cache line after the other. Inlined by
// force: a function that does nothing but prefetch counts as one without effect, and its calls vanish.
[[gnu::always_inline]] inline void prefetch_node(const node *wanted)
{
    const auto *const start = reinterpret_cast<const char *>(wanted);
#pragma GCC unroll 16
    for (size_t offset = 0; offset < node_size; offset += cache_line_size) {
        __builtin_prefetch(start + offset);
    }
}

// The tree that `place` belongs to. A place that has outlived its tree may meanwhile serve a tree of another thread.
inline const ordtree_t *tree_of(const node *place)
{
    return __atomic_load_n(&place->tree, __ATOMIC_RELAXED);
}

// The node at `address` when node memory lies there, in use or free; null for any other address.
node *node_at(const void *address) noexcept;

// Takes `count` nodes, linked by `next`, or none at all. Their headers are clear but for that link.
bool nodes_take(unsigned count, node *&list) noexcept;

void node_give(node *unused) noexcept;

} // namespace host::btree
