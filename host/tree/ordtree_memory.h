// SPDX-License-Identifier: Apache-2.0

// How much node memory all ordered trees have together.
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

} // namespace host
