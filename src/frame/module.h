// SPDX-License-Identifier: Apache-2.0

// What the module's threads share about its start, and nobody outside sees. The exported objects are declared in
// l2fib_mac_edm.h.
#pragma once

namespace edm {

// The handle that Mac-Edm-Thread is started with. Written before the threads exist.
extern void *edm_handle;

// `edm_handle` once Mac-Edm-Thread has registered its services; no resync is sent while it is null. Shared without the
// lock: table/shared_cell.h.
extern void *resync_ready;

} // namespace edm
