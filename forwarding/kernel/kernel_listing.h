// SPDX-License-Identifier: Apache-2.0

// A listing of what the kernel holds, of everything or of a part: what is still to be dumped, and whether what was
// dumped counts.
//
// A dump of the kernel is no snapshot. It comes in parts, and goes on by position: each entry that was deleted between
// two parts makes it skip another one there, silently. A boundary of two parts is torn, therefore, when something of
// the dump's scope was deleted about its time. A dump without a torn boundary counts. Another one is repeated, a
// bounded number of times, and counts once each of its gaps was read over by a later dump: entries keep their order for
// as long as they live (new ones come in front), so that a dump that tells one from before the gap and one from behind
// it, with no torn boundary between them, has told all between them. What dumps with gaps told is true nevertheless,
// and merged.
//
// Dump and notifications come on two sockets, and a dump's bytes may be older than a notification that was read before
// them. So what was notified in the window of a dump (from its request to the reading of what was notified before its
// end) holds, and what the dump says of the same key is passed over.
//
// No input or output is done here. Threads: that of the plane.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "forwarding/kernel/kernel_socket.h"
#include "forwarding/plane.h"

namespace forwarding {

struct kernel_dump {
    kernel_scope scope = kernel_scope::links;
    uint32_t ifindex = 0; // of the bridge or device
    // The bridge itself, or the one of which the device is a port; 0: none. The kernel counts the position in a port's
    // own entries from the beginning of its bridge's, so that a deletion of any of these moves it.
    uint32_t bridge = 0;
};

// What the dumps of one scope have shown so far.
struct kernel_dump_proof {
    bool whole = false;                       // one was read to its end: the gaps and the anchors are its
    std::vector<bool> gaps = {};              // in its order: true until one was read over
    std::map<fdb_key, uint32_t> anchors = {}; // some of what it told: how many gaps come before each
    std::vector<fdb_key> part = {};           // told in the current part of the current dump
    std::vector<fdb_key> part_before = {};
    bool torn = false;  // maybe, the boundary between the two; what the current part begins with shows
    uint32_t tears = 0; // of the current dump
    uint32_t since = 0; // how many gaps come before what it has told since its last tear; UINT32_MAX: not known yet
    uint64_t deletions = 0;
    uint64_t deletions_before[2] = {}; // at the ends of the part before the last one, and of the last one
};

struct kernel_listing {
    bool running = false;
    bool whole = false; // of everything: it begins with the links
    bool clean = true;  // so far
    std::deque<kernel_dump> waiting = {};
    kernel_dump current = {};
    uint32_t attempts = 0;  // of the current dump
    bool disturbed = false; // the current dump, so that it shows nothing
    kernel_dump_proof proof = {};

    // What was notified in the current window. Past a bound it is no longer kept, and nothing of the dump is believed.
    std::set<fdb_key> changed = {};
    std::set<uint32_t> changed_links = {};
    std::set<uint32_t> changed_vnis = {}; // of devices
    std::set<uint32_t> gone_next_hops = {};
    bool unbounded = false;
};

// More to dump may be added to `waiting` while it runs, such as what the links tell.
void listing_begin(kernel_listing &listing, const kernel_dump &first);

// Makes the next one of `waiting` the current dump. False at the end.
bool listing_next(kernel_listing &listing);

// Before each request of the current dump.
void listing_open_window(kernel_listing &listing);

// A part of `length` bytes was taken, and then everything that had been notified.
void listing_end_part(kernel_listing &listing, size_t length);

// At the end of the dump, once everything that had been notified was taken. True: it counts.
bool listing_close_window(kernel_listing &listing);

// Whether a dump that does not count may be repeated.
bool listing_may_repeat(const kernel_listing &listing);

// A change was notified. `bridge`: of which the record's device is a port, or 0.
void listing_note_changed(kernel_listing &listing, const fdb_key &key);
void listing_note_gone(kernel_listing &listing, const fdb_record &record, uint32_t bridge);
void listing_note_link(kernel_listing &listing, uint32_t ifindex);
void listing_note_vlan_vnis(kernel_listing &listing, uint32_t ifindex);
// A device has gone or is no longer a port of `bridge`, so that a dump among its entries goes on among another one's.
void listing_note_port_left(kernel_listing &listing, uint32_t bridge);
// The kernel deletes the entries that deliver to a next hop before it reports that the next hop has gone, and reports
// none of them.
void listing_note_next_hop_gone(kernel_listing &listing, uint32_t id);

// Whether what the current dump says of an entry is the latest that is known.
bool listing_believes(const kernel_listing &listing, const fdb_record &record);
bool listing_believes_link(const kernel_listing &listing, uint32_t ifindex);
bool listing_believes_vlan_vnis(const kernel_listing &listing, uint32_t ifindex);

// The dump told an entry that is believed.
void listing_note_told(kernel_listing &listing, const fdb_record &record);

} // namespace forwarding
