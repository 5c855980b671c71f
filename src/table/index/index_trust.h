// SPDX-License-Identifier: Apache-2.0

// Whether the indexes beside the trees agree with them.
//
// The indexes (address_index.h, object_index.h) repeat what the trees hold, and the module updates both. The hosting
// process can change the same trees without the module: by ordtree_insert and ordtree_delete, by the exported
// accessors, or by records that it allocates itself. The trees therefore count all their changes in one cell
// (ordtree_watch), and the module counts its own. While both counts are equal, the indexes are trusted:
//
//                                              all   accounted
//      start of a new table                      0           0    trusted
//      the module inserts a node                 1           1    trusted
//      the hosting process deletes a node        2           1    not trusted, until the teardown
//
// While the indexes are not trusted, lookups search the trees and nobody updates the indexes. On a platform without
// ordtree_watch they are never trusted.
//
// While the indexes are trusted, three things hold: both global trees run; this module inserted every node of a watched
// tree; every back-pointer names the record whose tree holds the node.
#pragma once

#include <cstdint>

#include "l2fib_mac_edm.h"
#include "platform/ordtree.h"

namespace edm {

struct change_counts {
    uint64_t all;       // changes of the watched trees, and other changes that the indexes do not follow
    uint64_t accounted; // changes that the indexes follow
};

extern change_counts tree_changes L2FIB_GUARDED_BY_TABLE_LOCK;

inline bool indexes_trusted() L2FIB_REQUIRES_TABLE_LOCK
{
    return tree_changes.all == tree_changes.accounted;
}

// Whether this module watches a tree. A watched tree runs, because its end clears `changes`.
inline bool is_watched(const ordtree_t *tree) L2FIB_REQUIRES_TABLE_LOCK
{
    return tree->changes == &tree_changes.all;
}

// ordtree_running, without a call for nearly all trees.
inline bool runs(const ordtree_t *tree) L2FIB_REQUIRES_TABLE_LOCK
{
    return is_watched(tree) || ordtree_running(tree) != 0;
}

// Whether the indexes know the records of this tree. They do not if the hosting process started the tree itself.
inline bool indexes_cover(const ordtree_t *tree) L2FIB_REQUIRES_TABLE_LOCK
{
    return indexes_trusted() && is_watched(tree);
}

// Ends the trust. For calls that let the hosting process change the table in a way that no tree counts.
inline void distrust_indexes() L2FIB_REQUIRES_TABLE_LOCK
{
    tree_changes.all++;
}

// Begins the trust, unless a watched tree has changed since the process started or since the last teardown. The caller
// has started both global trees, watches them, and knows that they are empty.
void trust_indexes_of_new_table() L2FIB_REQUIRES_TABLE_LOCK;

// Ends the trust at the end of a teardown, when no record is left. The next table may begin it.
void forget_tree_changes() L2FIB_REQUIRES_TABLE_LOCK;

// Watches a tree that has just started.
void watch_tree(ordtree_t *tree) L2FIB_REQUIRES_TABLE_LOCK;

// Change a tree and count the changes as some that the indexes follow: the caller updates them. Return the result of
// ordtree_insert, ordtree_delete and ordtree_drain. The platform has the latter.
ordtree_link_t *insert_node(ordtree_t *tree, ordtree_link_t *node) L2FIB_REQUIRES_TABLE_LOCK;
ordtree_link_t *delete_node(ordtree_t *tree, ordtree_link_t *node) L2FIB_REQUIRES_TABLE_LOCK;
uint32_t drain_nodes(ordtree_t *tree, ordtree_link_t **nodes, uint32_t count) L2FIB_REQUIRES_TABLE_LOCK;
void finish_tree(ordtree_t *tree) L2FIB_REQUIRES_TABLE_LOCK;

} // namespace edm
