// SPDX-License-Identifier: Apache-2.0

// The part of the table lock that l2fib_mac_edm.h does not export: its creation, and the check that no thread waits
// while it holds the lock.
#pragma once

#include <cstdint>

namespace edm {

// Replaces the lock by a new one. The start calls it before the module's threads exist, while no thread holds the lock
// or waits for it. Returns 0 or an error number. The lock also works before: a process that uses the table without the
// threads needs no creation.
uint32_t table_lock_create();

#ifndef NDEBUG
// Returns how many takes of the lock the calling thread has not released yet. For assertions in debug builds.
uint32_t table_lock_depth();
#endif

} // namespace edm
