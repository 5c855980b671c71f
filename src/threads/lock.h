// SPDX-License-Identifier: Apache-2.0

// The table lock beyond what is exported (l2fib_mac_edm_mutex_lock and _unlock): its creation, and the check that
// nobody waits with it held.
#pragma once

#include <cstdint>

namespace edm {

// Creates the lock anew; the start calls it before the module's threads exist, while nobody holds or awaits the lock.
// Returns 0 or an error number. The lock also works before: who uses the table without starting the threads needs no
// creation.
uint32_t table_lock_create();

#ifndef NDEBUG
// How many takes of the lock the calling thread has not released. For assertions: counted in debug builds only.
uint32_t table_lock_depth();
#endif

} // namespace edm
