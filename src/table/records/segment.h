// SPDX-License-Identifier: Apache-2.0

// Reads what a bridge port is from the forwarding manager: the kind and attributes of its cross-connect's first
// segment.
#pragma once

#include "l2fm_edm_table.h"

namespace edm {

// Reads the kind and attributes of the cross-connect `xcid` into a port. Takes the forwarding manager's lock meanwhile.
// On failure it returns a status and keeps what it has read so far. A segment of unknown kind leaves the port unchanged
// and is no failure.
uint32_t read_segment(l2fm_edm_bp_t *bp, uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK;

} // namespace edm
