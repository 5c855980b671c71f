// The forwarding tables of this machine's kernel: bridges and VXLAN devices, by its routing messages.
//
// Three sockets. One is subscribed to changes before anything else is asked; one is for dumps, which the event loop
// reads in slices as they come; one is for questions about single entries, so that an answer never stands behind a
// dump. Reading takes no privilege.
//
// A generation dumps the links, then bridge by bridge (kernel_listing.h), then the VXLAN devices without a bridge. It
// is clean when each dump was. After one that was not, and after an overrun of the notifications, the next one begins
// by itself: at least `generation_interval_ms` after the end of the last one, twice as long after each that fails
// again, up to 16 times as long, and no sooner than the last one took. Between generations the own entries of a VXLAN
// device that appears are dumped: from another network namespace it brings entries that nobody notifies.
//
// Told are the entries of bridges and the own entries of VXLAN devices; the own entries of other devices are receive
// filters and not told.
//
// Limits, both of the kernel: the presence of one destination of several (of a zero address on a VXLAN device) can be
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
};

// Opens the sockets, in the calling thread; when that fails, start tells why. Once it has returned, the thread may give
// up the capabilities (kernel_socket.h) before it starts others.
std::unique_ptr<plane> make_kernel_plane(const kernel_options &options);

} // namespace forwarding
