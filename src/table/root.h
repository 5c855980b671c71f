// SPDX-License-Identifier: Apache-2.0

// The root of the table: the process-wide objects that everything else hangs from. Guarded by the table lock.
#pragma once

#include "l2fm_edm_table.h"
#include "platform/chunk.h"

namespace edm {

struct table_root {
    l2fm_edm_ll_root_t ll_root;
    ordtree_t bd_root; // index 0 by name, index 1 by bridge id
    ordtree_t bp_root; // every port but the dummy ports, by xcid
    // By pool type code.
    chunk_pool_t *chunk[EDM_POOL_COUNT];
    l2fm_edm_mac_pool_t counters;
};

// Zero at load.
extern table_root root;

// The root of the list of all entries, as the link that its ends point at.
inline l2fm_edm_ll_link_t *list_end()
{
    return reinterpret_cast<l2fm_edm_ll_link_t *>(&root.ll_root);
}

} // namespace edm
