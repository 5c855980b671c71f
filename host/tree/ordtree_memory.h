// SPDX-License-Identifier: Apache-2.0

// The node memory of all ordered trees together: how much there is, and a bound on it.
//
// Threads: any, without the locks of the trees.
#pragma once

#include <cstddef>

#include "platform/export.h"

namespace host {

struct ordtree_memory_figures {
    size_t nodes;        // in use by trees
    size_t node_bytes;   // of these nodes
    size_t mapped_bytes; // of the slabs that the nodes are cut from
};

L2FIB_EXPORT ordtree_memory_figures ordtree_memory();

// Bounds the nodes of all trees together; 0 takes the bound away. An insertion that would exceed the bound is refused.
// Larger trees that exist already stay as they are.
L2FIB_EXPORT void ordtree_set_node_limit(size_t nodes);

} // namespace host
