// SPDX-License-Identifier: Apache-2.0

// The hosting process's side of the platform utilities (platform/utility.h): it sets which node the process runs on and
// which nodes its interfaces belong to, and it reads which threads wait for a lock.
//
// Threads: any. Statuses are 0 for success or an error number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/export.h"

namespace host {

// Sets the node that this process runs on; 0 until then.
L2FIB_EXPORT void node_id_set(uint32_t node_id);

// Sets the node of an interface of another node. All other interfaces belong to this node. EINVAL: the handle is 0,
// which is no interface; ENOMEM.
L2FIB_EXPORT uint32_t interface_node_set(uint32_t ifhandle, uint32_t node_id);

// Gives all interfaces back to this node.
L2FIB_EXPORT void interface_node_clear();

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
