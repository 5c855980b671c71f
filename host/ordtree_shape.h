/*
 * The shape of an index: where records are put into leaves and taken out, full nodes are split and sparse ones merged.
 *
 * What holds between two operations:
 *  - All leaves are on level 0, and the nodes of each level are linked in order.
 *  - No node is empty; the root has two children at least unless it is a leaf. An index without records has no node.
 *  - The key beside an inner node's slot is greater than all keys before it and not greater than those below it; the
 *    key beside its first slot means nothing. Where key words are links, it is the least link below it, so that it
 *    never outlives its record.
 *
 * A node that falls below a third is merged with a sibling if the result leaves room; otherwise it may run empty. So
 * nothing is moved to fill up a node that a sweep is about to empty, and taking a record out never needs memory.
 *
 * For the files host/ordtree*.cpp only, under the lock of whoever changes the tree.
 */
#ifndef L2FIB_HOST_ORDTREE_SHAPE_H
#define L2FIB_HOST_ORDTREE_SHAPE_H

#include "host/ordtree_node.h"

namespace host::btree {

/* Where a record is, or would be, in an index. `leaf` is null for a record that is not there, or without any leaf. */
struct leaf_place {
    node *leaf;
    unsigned slot;
};

/*
 * An index remembers where its last successor was found: walks ask for the successor of that record next, or take the
 * record before it out. It is a hint, checked before use. Readers may write it at the same time.
 */
leaf_place cursor_of(const ordtree_index_t &index) noexcept;
void set_cursor(const ordtree_index_t &index, leaf_place at) noexcept;

/* How many nodes put_record takes from `spare` at most for a record that goes into `leaf`. */
unsigned nodes_needed(const node *leaf) noexcept;

/* Puts a record's node to its place in index number `number`. `spare` is a list of as many nodes as are needed. */
void put_record(ordtree_t *tree, unsigned number, leaf_place at, ordtree_link_t *record, node *&spare) noexcept;

/* Takes the record at a place out of its index. The record itself is not touched. */
void take_record(ordtree_t *tree, leaf_place at) noexcept;

/* Gives all nodes of an index back, whatever they hold. */
void free_nodes(ordtree_index_t &index) noexcept;

} // namespace host::btree

#endif
