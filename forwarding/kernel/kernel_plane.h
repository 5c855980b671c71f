// SPDX-License-Identifier: Apache-2.0

// This room is the forwarding plane of this machine's kernel: bridges and VXLAN devices, by its routing messages. Other
// rooms include this header and netlink/kernel_privileges.h. The recorded room also includes netlink/kernel_decode.h,
// for the kernel's names of link kinds and its unit of ageing times.
//
//      kernel_plane.cpp     start and stop, health, questions
//      kernel_changes.cpp   notifications, overruns; which function takes which change
//      kernel_links.cpp     changes of links, VLANs and local addresses
//      kernel_entries.cpp   changes of entries and next hops
//      kernel_dumps.cpp     full dumps: when they begin, what they request and read
//      full_dump.h          which dump proves that nothing was missed
//      kernel_query.h       questions about single entries
//      kernel_ages.h        ages of whole bridges, by dumps that readers of long lists start
//      netlink/             what the above exchange with the kernel; it includes nothing from this directory
//        kernel_socket.h      sockets
//        kernel_request.h     requests to bytes
//        kernel_decode.h      bytes to records
//        kernel_privileges.h  network namespaces, and the capabilities that opening a socket needs
//
// Sockets. The plane has four. One is subscribed to changes before the plane asks for anything. One is for dumps,
// which the event loop reads in slices as they arrive. One is for questions about single entries, so that no answer
// queues behind a dump. One is for dumps of ages, which the threads of readers make. Reading needs no privilege.
//
// Full dumps. A full dump requests the links, then the VLANs of all ports, then each bridge, then each VXLAN device
// without a bridge. It is clean if each dump was (full_dump.h).
//  - While the plane is degraded, the next one begins by itself: `full_dump_interval_ms` or more after the end of the
//    last one. Each unclean one doubles that pause, up to 16 times the interval. No pause is shorter than the last full
//    dump took. request_full_dump ends the doubling.
//  - While the plane is clean, one begins as a proof every `proof_interval_ms`, or less often if dumps would take more
//    than 1 % of the time.
//  - Between full dumps, the plane dumps the own entries of a VXLAN device that appears. A device from another network
//    namespace brings entries that the kernel does not notify.
//  - The kernel describes the VLANs of a port, and their VNIs, in one attribute of at most 64 KiB. If it is too short,
//    the plane dumps the VLANs of that port, in a full dump as well as after a notification.
//
// Losses. The plane loses changes by a receive buffer overrun, by a notification that is cut off or malformed, and by
// lack of memory. The kernel counts what it drops in an overrun, and the plane reports that number.
//
// Next hops. The kernel deletes the entries of a next hop together with it, and notifies the next hop only. The plane
// reports next_hop_gone for a next hop that was made for entries, or with which it reported an entry. The kernel does
// not notify a next hop that goes because its device goes down. Only a group whose members were replaced by those of
// routes can have entries then; the next proof finds them.
//
// Entries. The plane reports bridge entries and the VXLAN devices' own entries. Other devices' entries are receive
// filters and are skipped.
//
// Limits of the kernel. A question about one of several destinations of an address is answered for the first one only;
// for the others query answers `unknown`. The kernel notifies no ages: an age is as old as the last report, and only
// query refreshes it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "forwarding/plane.h"

namespace forwarding {

struct kernel_options {
    // Receive buffer for notifications, in bytes. Granted in full with CAP_NET_ADMIN; otherwise capped at
    // net.core.rmem_max. 0: 128 MiB, enough for 50,000 notifications and more.
    uint32_t receive_buffer = 0;

    // The network namespace of the tables: a path or a name. Entering it needs CAP_SYS_ADMIN. Empty: the caller's.
    std::string netns = {};

    uint32_t full_dump_interval_ms = 3000;

    // Time between two full dumps of a clean plane. A change that the kernel does not notify stays wrong for at most
    // this long, unless dumps take too long.
    uint32_t proof_interval_ms = 600'000;
};

// Opens the sockets on the calling thread. If that fails, start returns the failure. Afterwards the thread may give up
// its capabilities (netlink/kernel_privileges.h) before it starts others.
std::unique_ptr<plane> make_kernel_plane(const kernel_options &options);

} // namespace forwarding
