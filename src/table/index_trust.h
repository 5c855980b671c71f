// SPDX-License-Identifier: Apache-2.0

// Whether the indexes beside the trees may be asked.
//
// The indexes (address_index.h, object_index.h) repeat what the trees hold, and the module updates them with each
// change that it makes. The hosting process can change the same trees without the module: by ordtree_insert and
// ordtree_delete, by the exported accessors, by records that it makes itself. So the trees count all their changes in
// one cell (ordtree_watch), and the module counts those that it has accounted for. The indexes are trusted while both
// numbers are equal. If they differ, lookups search the trees, and nobody updates the indexes any more.
//
// Trust begins when a new table starts, and once lost it stays lost until the table is torn down. It never begins on a
// platform without ordtree_watch.
//
// What holds while the indexes are trusted: both global trees run; every node in a watched tree was put there by this
// module; every back-pointer names the record whose tree holds the node.
//
// The caller holds the table lock.
#pragma once

#include <cstdint>

#include "platform/ordtree.h"

namespace edm {

struct change_counts {
    uint64_t all;       // of the watched trees; a change of another kind that the indexes do not follow counts as well
    uint64_t accounted; // those that the indexes follow
};

extern change_counts tree_changes;

inline bool indexes_trusted()
{
    return tree_changes.all == tree_changes.accounted;
}

// Whether the indexes answer for the records of this tree: not for a tree that the hosting process started.
inline bool indexes_cover(const ordtree_t *tree)
{
    return indexes_trusted() && tree->changes == &tree_changes.all;
}

// The hosting process gets a way to change the table that no tree counts.
inline void distrust_indexes()
{
    tree_changes.all++;
}

// Trusts the indexes if no watched tree has changed since the process started or the last table was torn down. The
// caller has started both global trees, watches them, and knows that they are empty.
void trust_indexes_of_new_table();

// At the end of a teardown: no record is left.
void forget_tree_changes();

// Counts the changes of a tree that has just started.
void watch_tree(ordtree_t *tree);

// Change a tree on behalf of the module, which updates the indexes itself; the results are those of ordtree_insert and
// ordtree_delete.
ordtree_link_t *insert_node(ordtree_t *tree, ordtree_link_t *node);
ordtree_link_t *delete_node(ordtree_t *tree, ordtree_link_t *node);
void finish_tree(ordtree_t *tree);

} // namespace edm
