// SPDX-License-Identifier: Apache-2.0

// Checks whether a tree of the host platform is sound.
#pragma once

#include "platform/ordtree.h"

namespace test {

// Checks order by key and by comparator, fill, links, counts, neighbours, and that each index holds the same records.
// Reads every record. Null if the tree is sound or does not run, else the first fault.
const char *tree_fault(const ordtree_t *tree);

} // namespace test
