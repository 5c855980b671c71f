// SPDX-License-Identifier: Apache-2.0

// The forwarding tables of this machine's kernel: bridges and VXLAN devices, by its routing messages.
//
// Three sockets. One is subscribed to changes before anything else is asked; one is for dumps, which the event loop
// reads in slices as they come; one is for questions about single entries, so that an answer never stands behind a
// dump. Reading takes no privilege.
//
// A generation dumps the links, then bridge by bridge (kernel_listing.h), then the VXLAN devices without a bridge. It
// is clean when each dump was. While the plane is degraded, the next generation begins by itself: at least
// `generation_interval_ms` after the end of the last one, twice as long after each that fails again, up to 16 times as
// long, and no sooner than the last one took. list_again ends the doubling. While the plane is clean, a generation
// begins as a proof every `proof_interval_ms`, or less often if dumps would take more than 1 % of the time. Between
// generations the own entries of a VXLAN device that appears are dumped: from another network namespace it brings
// entries that the kernel does not report.
//
// Losses. An overrun of the receive buffer, a notification that is cut off or malformed, and lack of memory each lose
// changes. The kernel counts what it drops in an overrun, and that number is passed on.
//
// Next hops. The kernel deletes the entries of a next hop together with it, and reports the next hop only.
// sink::next_hop_gone is called for next hops that were made for entries, and for those that an entry was reported
// with. A next hop that goes because its device goes down is not reported by the kernel. Only a group whose members
// were replaced by those of routes can have entries then; the next proof finds these.
//
// Told are the entries of bridges and the own entries of VXLAN devices; the own entries of other devices are receive
// filters and not told.
//
// Further limits of the kernel: the presence of one destination of several (of a zero address on a VXLAN device) can be
// told only for the first of them, for the others query cannot tell; ages are as old as what was told last, and query
// is what refreshes them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "forwarding/plane.h"

namespace forwarding {

struct kernel_options {
    // Wanted size of the buffer that holds notifications, in bytes; more than the system's limit takes CAP_NET_ADMIN,
    // without which it gets what it can. 0: 128 MiB, which hold 50,000 notifications and more.
    uint32_t receive_buffer = 0;

    // The network namespace to look at, a path or a name; entering it takes CAP_SYS_ADMIN. Empty: the caller's.
    std::string netns = {};

    uint32_t generation_interval_ms = 3000;

    // How long a clean plane goes without a full dump. What the kernel changes without a notification is wrong for at
    // most this long, unless dumps take too long.
    uint32_t proof_interval_ms = 600'000;
};

// Opens the sockets, in the calling thread; when that fails, start tells why. Once it has returned, the thread may give
// up the capabilities (kernel_socket.h) before it starts others.
std::unique_ptr<plane> make_kernel_plane(const kernel_options &options);

} // namespace forwarding
