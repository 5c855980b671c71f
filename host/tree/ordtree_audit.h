// SPDX-License-Identifier: Apache-2.0

// What operators and tests ask of the host's ordered trees beyond the contract in platform/ordtree.h: whether a tree is
// sound, how much memory the nodes of all trees take, and a bound on it.
#pragma once

#include "platform/ordtree.h"

L2FIB_BEGIN_DECLS

// Checks the whole structure of a tree: order by key and by comparator, fill, links, counts, neighbours, and that each
// index holds the same records. Takes time in proportion to the tree's size, reads every record, and is called like
// a reader of the tree. Returns null when the tree is sound (also when it does not run), else the first fault, as text.
L2FIB_EXPORT const char *ordtree_audit(const ordtree_t *tree);

typedef struct ordtree_memory_figures {
    size_t nodes;        // in use by trees
    size_t node_bytes;   // of these nodes
    size_t mapped_bytes; // of the slabs that they are cut from
} ordtree_memory_t;

// Node memory of all trees together. Any thread.
L2FIB_EXPORT ordtree_memory_t ordtree_memory(void);

// Bounds the nodes of all trees together; 0 takes the bound away. An insertion that would exceed it is refused. Trees
// that are larger already stay as they are. Any thread.
L2FIB_EXPORT void ordtree_set_node_limit(size_t nodes);

L2FIB_END_DECLS
