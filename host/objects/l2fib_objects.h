// SPDX-License-Identifier: Apache-2.0

// The objects of the forwarding manager, and the main header of this room: bridge domains, cross-connects and the first
// segment of each cross-connect. The hosting process creates, changes and removes them here. The module reads them
// through platform/l2fib.h.
//
//      host::bridge_domain_set(1, "campus:br0");
//      host::cross_connect_set(7, {.first = {.type = L2FIB_SEGMENT_INTERFACE, .interface_handle = 3}});
//
// A context that the module holds names the object and one of its lives. Each use checks both. So the context of an
// object that was removed is refused, even if an object with the same id has been created since.
//
// The removal of an object here notifies nobody: publish the notification as well (notification_host.h).
//
// Threads: any, with or without l2fib_lock. Hold l2fib_lock to make several changes appear as one to the readers.
// Statuses are 0 for success or an error number; after an error nothing has changed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/l2fib.h"

namespace host {

// The field's buffer holds a name of this length, and the zero byte that ends it.
inline constexpr size_t max_bridge_domain_name = L2FIB_NAME_BUFFER_SIZE - 1;

// Creates or renames a bridge domain. Names are unique. EINVAL: the name is empty or holds a zero byte; ENAMETOOLONG:
// it is longer than max_bridge_domain_name (two names that were cut could become equal); EEXIST: another bridge domain
// has the name; ENOMEM.
L2FIB_EXPORT uint32_t bridge_domain_set(uint32_t bridge_id, std::string_view name);

// ENOENT: there is no such bridge domain.
L2FIB_EXPORT uint32_t bridge_domain_remove(uint32_t bridge_id);

// The first segment of a cross-connect. `type` is its class: it decides which values the module can read. A class that
// is not listed here has no values.
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

// Creates or changes a cross-connect. Contexts of its segment stay valid unless the type changes. ENOMEM.
L2FIB_EXPORT uint32_t cross_connect_set(uint32_t xcid, const cross_connect &values);

// ENOENT: there is no such cross-connect.
L2FIB_EXPORT uint32_t cross_connect_remove(uint32_t xcid);

// Removes every object.
L2FIB_EXPORT void objects_clear();

} // namespace host
