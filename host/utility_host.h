// SPDX-License-Identifier: Apache-2.0

// The hosting process's side of the platform utilities: which node it runs on, which nodes its interfaces belong to,
// and which threads wait for a lock right now.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/export.h"

namespace host {

// The node that this process runs on; 0 until it is set.
L2FIB_EXPORT void node_id_set(uint32_t node_id);

// The node of an interface of another node. An interface that was never told of belongs to this node; the handle 0 is
// no interface. `interface_node_clear` forgets what was told.
L2FIB_EXPORT uint32_t interface_node_set(uint32_t ifhandle, uint32_t node_id);
L2FIB_EXPORT void interface_node_clear();

// A thread that waits for a lock.
struct lock_wait {
    uint32_t thread_id; // as the kernel numbers threads
    std::string thread_name;
    const void *lock;
    const char *function; // where it waits
    uint32_t line;
    uint64_t waited_ns;
};

// The threads that wait now, the one that waits longest first.
L2FIB_EXPORT std::vector<lock_wait> lock_waits();

} // namespace host
