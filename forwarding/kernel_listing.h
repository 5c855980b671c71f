// The listing of everything that the kernel holds: what is still to be dumped, and whether what was dumped counts.
//
// A dump of the kernel is no snapshot. It goes on by position, so that each entry deleted meanwhile makes it skip
// another one, silently. A dump counts, therefore, only if nothing of its scope was deleted in its window, from its
// request to the reading of what was notified before its end; otherwise it was disturbed and is repeated, a bounded
// number of times. What disturbed dumps told is true nevertheless, and merged.
//
// Dump and notifications come on two sockets, and a dump's bytes may be older than a notification that was read before
// them. So what was notified in the window holds, and what the dump says of the same key is passed over.
//
// No input or output is done here. Threads: that of the plane.
#pragma once

#include <cstdint>
#include <deque>
#include <set>

#include "forwarding/kernel_socket.h"
#include "forwarding/plane.h"

namespace forwarding {

struct kernel_dump {
    kernel_scope scope = kernel_scope::links;
    uint32_t ifindex = 0; // of the bridge or device
};

struct kernel_listing {
    bool running = false;
    bool clean = true; // so far
    std::deque<kernel_dump> waiting = {};
    kernel_dump current = {};
    uint32_t attempts = 0; // of the current dump
    bool disturbed = false;

    // What was notified in the current window. Past a bound it is no longer kept, and nothing of the dump is believed.
    std::set<fdb_key> changed = {};
    std::set<uint32_t> changed_links = {};
    bool unbounded = false;
};

// Begins with the links; what they tell to dump is added to `waiting`.
void listing_begin(kernel_listing &listing);

// Makes the next one of `waiting` the current dump. False at the end.
bool listing_next(kernel_listing &listing);

// Before each request of the current dump.
void listing_open_window(kernel_listing &listing);

// At its end. True: it is to be repeated.
bool listing_close_window(kernel_listing &listing, bool may_repeat);

// A change was notified. `bridge`: of which the record's device is a port, or 0.
void listing_note_changed(kernel_listing &listing, const fdb_key &key);
void listing_note_gone(kernel_listing &listing, const fdb_record &record, uint32_t bridge);
void listing_note_link(kernel_listing &listing, uint32_t ifindex, bool gone_or_moved);

// Whether what the current dump says of a key is the latest that is known.
bool listing_believes(const kernel_listing &listing, const fdb_key &key);
bool listing_believes_link(const kernel_listing &listing, uint32_t ifindex);

} // namespace forwarding
