// SPDX-License-Identifier: Apache-2.0

// The root of the table: the process-wide objects from which all records can be reached.
#pragma once

#include "l2fm_edm_table.h"
#include "platform/chunk.h"

namespace edm {

struct table_root {
    l2fm_edm_ll_root_t ll_root;          // the list of all entries
    ordtree_t bd_root;                   // all bridge domains; index 0 by name, index 1 by bridge id
    ordtree_t bp_root;                   // all ports but the dummy ports, by xcid
    chunk_pool_t *chunk[EDM_POOL_COUNT]; // indexed by EDM_POOL_
    l2fm_edm_mac_pool_t counters;
};

// The addresses of its members never change, and taking one needs no lock. All members are zero when the library is
// loaded.
extern table_root root L2FIB_GUARDED_BY_TABLE_LOCK;

// The root of the list of all entries as a link. The first and the last entry of the list point at it.
inline l2fm_edm_ll_link_t *list_end()
{
    return reinterpret_cast<l2fm_edm_ll_link_t *>(&root.ll_root);
}

// Whether the entries and what leads to them are more than the caches hold. Below, prefetches cost more than they save.
inline bool exceeds_caches() L2FIB_REQUIRES_TABLE_LOCK
{
    constexpr uint32_t entries_in_caches = 1U << 16;
    return root.ll_root.ll_count >= entries_in_caches;
}

} // namespace edm
