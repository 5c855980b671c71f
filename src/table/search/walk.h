// SPDX-License-Identifier: Apache-2.0

// The walk of the sweep.
#pragma once

#include "l2fm_edm_table.h"

namespace edm {

// l2fm_edm_table_walk_all_macs, for a callback that destroys many entries. The walk reads some entries ahead, so the
// callback must destroy no other entry than its own.
uint32_t walk_all_macs_to_destroy(l2fm_edm_mac_walk_fn callback);

} // namespace edm
