// SPDX-License-Identifier: Apache-2.0

// What a bridge port is, read from the forwarding manager: the kind and attributes of its cross-connect's first
// segment.
#pragma once

#include "l2fm_edm_table.h"

namespace edm {

// Reads the kind and attributes of the cross-connect `xcid` into a port, under the forwarding manager's lock. What was
// read before a failure stays. A segment of unknown kind leaves the port as it is and is no failure.
uint32_t read_segment(l2fm_edm_bp_t *bp, uint32_t xcid);

} // namespace edm
