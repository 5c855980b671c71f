// SPDX-License-Identifier: Apache-2.0

// What the module's threads share about the start of the module. These objects are not exported; l2fib_mac_edm.h
// declares the exported ones.
#pragma once

namespace edm {

// The handle that Mac-Edm-Thread is started with. The start writes it before the threads exist.
extern void *edm_handle;

// Null until Mac-Edm-Thread has registered its services, then `edm_handle`. While it is null, the module sends no
// resync. Threads share it without the lock (table/shared_cell.h).
extern void *resync_ready;

} // namespace edm
