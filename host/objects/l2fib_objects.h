// SPDX-License-Identifier: Apache-2.0

// The forwarding manager's objects: bridge domains, cross-connects and the first segment of each. The hosting process
// creates, changes and removes them; the module reads them through platform/l2fib.h.
//
// A context that the module holds is checked at every use: it names the object and which of its lives is meant, so that
// the context of an object that was removed, even if it has come back since, is refused and not followed.
//
// Removing an object here tells nobody: publish the notification as well (notification_host.h).
//
// Threads: any, with or without l2fib_lock; hold it to make several changes one step for the readers.
// Statuses are 0 for success or an error number, and nothing has changed then.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/l2fib.h"

namespace host {

// The longest name that the field's buffer holds with its end.
inline constexpr size_t max_bridge_domain_name = L2FIB_NAME_BUFFER_SIZE - 1;

// Creates a bridge domain or renames it. Names are unique. EINVAL: the name is empty or holds a zero byte;
// ENAMETOOLONG: it is longer than max_bridge_domain_name, and is refused because names that were cut could meet;
// EEXIST: another bridge domain has it; ENOMEM.
L2FIB_EXPORT uint32_t bridge_domain_set(uint32_t bridge_id, std::string_view name);

// ENOENT: there is none.
L2FIB_EXPORT uint32_t bridge_domain_remove(uint32_t bridge_id);

// The first segment of a cross-connect. `type` is its class and decides which values can be read; any number may stand
// there, and a class without fields has no values.
struct segment {
    uint32_t type = 0;
    uint32_t interface_handle = 0;    // L2FIB_SEGMENT_INTERFACE
    uint32_t interface_3 = 0;         // L2FIB_SEGMENT_INTERFACE
    uint32_t interface_sub_kind = 0;  // L2FIB_SEGMENT_INTERFACE
    uint16_t interface_sub_value = 0; // L2FIB_SEGMENT_INTERFACE with L2FIB_INTERFACE_SUB_KIND_23
    uint32_t pseudowire_44 = 0;       // L2FIB_SEGMENT_PSEUDOWIRE
    std::array<uint32_t, L2FIB_VXLAN_54_WORDS> vxlan_54 = {}; // L2FIB_SEGMENT_VXLAN
};

struct cross_connect {
    uint32_t field_126 = 0;
    segment first;
};

// Creates a cross-connect or changes it. Contexts of its segment stay good unless its type changes. ENOMEM.
L2FIB_EXPORT uint32_t cross_connect_set(uint32_t xcid, const cross_connect &values);

// ENOENT: there is none.
L2FIB_EXPORT uint32_t cross_connect_remove(uint32_t xcid);

struct object_counts {
    size_t bridge_domains;
    size_t cross_connects;
};

L2FIB_EXPORT object_counts objects_count();

// Removes every object.
L2FIB_EXPORT void objects_clear();

} // namespace host
