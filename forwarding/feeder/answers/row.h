// SPDX-License-Identifier: Apache-2.0

// Makes the row that an answer shows from a descriptor of the feed or from an entry of the table. For the readers in
// this directory (reading.cpp, answers.cpp).
//
// The row has no names (`domain` and `port` are null), no VNIs and no time left. The caller adds them.
#pragma once

#include "forwarding/feeder/answers/reading.h"
#include "l2fm_edm_table.h"

namespace forwarding {

// Any thread.
mac_row row_of(const l2fib_mac_edm_entry_t &descriptor);
// Under the table lock, because the entry belongs to the table. The row is a copy and outlives the lock.
mac_row row_of(const l2fm_edm_mac_t &entry);

} // namespace forwarding
