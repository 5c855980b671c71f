// SPDX-License-Identifier: Apache-2.0

// Lookups that ask the indexes first, inlined for the feed. The exported lookups of lookup.cpp give the same answers.
#pragma once

#include "table/index/address_index.h"
#include "table/index/index_trust.h"
#include "table/index/object_index.h"

namespace edm {

[[gnu::always_inline]] inline l2fm_edm_bd_t *find_bd(uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bd_t *bd = indexes_trusted() ? bd_index_find(bridge_id) : nullptr;
    return bd != nullptr ? bd : l2fm_edm_table_bd_get_by_bridgeid(bridge_id);
}

[[gnu::always_inline]] inline l2fm_edm_bp_t *find_bp(uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = indexes_trusted() ? recent_bp_of(xcid) : nullptr;
    return bp != nullptr ? bp : l2fm_edm_table_bp_get_by_xcid(xcid);
}

// The same as l2fm_edm_table_mac_lookup of a descriptor with this address, for the bridge domain that it names.
[[gnu::always_inline]] inline l2fm_edm_mac_t *find_fed_mac(const address_probe &probe,
                                                           const l2fib_mac_edm_entry_t *entry, const l2fm_edm_bd_t *bd,
                                                           l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    if (indexes_cover(&bp->mac_tree)) {
        const address_answer answer = address_index_look(probe, bp, bd);
        if (answer.known) {
            return answer.mac;
        }
    }
    return l2fm_edm_table_mac_lookup(entry, bd, bp);
}

} // namespace edm
