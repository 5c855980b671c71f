// SPDX-License-Identifier: Apache-2.0

// How an entry of the table or a descriptor of the feed becomes a row.
#pragma once

#include "forwarding/feeder/reading.h"
#include "l2fm_edm_table.h"

namespace forwarding {

// Without names and VNIs. Of an entry in the table: under the table lock.
mac_row row_of(const l2fib_mac_edm_entry_t &descriptor);
mac_row row_of(const l2fm_edm_mac_t &entry);

} // namespace forwarding
