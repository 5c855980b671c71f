// SPDX-License-Identifier: Apache-2.0

// Operations on MAC entries for callers inside the module, who pass no null.
#pragma once

#include "l2fm_edm_table.h"

namespace edm {

// l2fm_edm_table_mac_update without its checks of the arguments.
uint32_t update_mac(l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac,
                    const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK;

// Destroys an entry that drain_nodes (table/index/index_trust.h) has taken out of its port's tree.
void destroy_drained_mac(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;

} // namespace edm
