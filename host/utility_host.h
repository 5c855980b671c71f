// SPDX-License-Identifier: Apache-2.0

// The hosting process's side of the platform utilities (platform/utility.h): it reads which threads wait for a lock.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/export.h"

namespace host {

// A thread that waits for a lock.
struct lock_wait {
    uint32_t thread_id; // as the kernel numbers threads
    std::string thread_name;
    const void *lock;
    const char *function; // where the thread waits
    uint32_t line;
    uint64_t waited_ns;
};

// Returns the threads that wait now, the longest wait first.
L2FIB_EXPORT std::vector<lock_wait> lock_waits();

} // namespace host
