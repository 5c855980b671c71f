// SPDX-License-Identifier: Apache-2.0

// A full dump of the kernel: which dumps it still has to request, and which dump proves that no entry was missed.
//
// A full dump is a sequence of dumps, each of one scope: the links, the VLANs, then bridge by bridge. The same record
// also runs the dump of a single device between full dumps.
//
// Gaps. A dump is no snapshot. The kernel sends it in parts and remembers only the position at which the next part
// begins. An entry that is deleted from the parts already sent moves all others one position forward, so the next part
// skips one. A part has room for three entries here, and C is deleted after part 1:
//
//      the kernel holds     the kernel sends     next position
//      A B C D E F G H      part 1: A B C        3
//      A B D E F G H        -                    3                 C deleted; D is at position 2 now
//      A B D E F G H        part 2: E F G        6                 D skipped
//      A B D E F G H        part 3: H            end
//
// No message reports the skipped entry. So the boundary between two parts is torn if anything in the dump's scope was
// deleted about its time. A dump without a torn boundary proves its scope. Otherwise each torn boundary of the first
// dump is a gap, here between C and E, and the dump is repeated:
//
//      A B D E F G H        part 1: A B D        3
//      A B D E F G H        part 2: E F G        6
//      A B D E F H          -                    6                 G deleted; H is at position 5 now
//      A B D E F H          part 3: -            end               H skipped
//
// This dump is torn too, but behind E. It reported B, which stands before the gap, and E, which stands behind it, with
// no torn boundary between them. Entries keep their order while they live, and new ones come in front. So this dump has
// reported every entry between B and E, and the gap is closed. Once all gaps of the first dump are closed, the scope is
// proven: H, which the second dump skipped, was in the first one. Entries that any dump reported are true, so the sink
// takes them all. On a busy bridge every dump is torn somewhere, but hardly ever twice at the same entry.
//
// To find a gap again, the first dump remembers some of its entries as anchors, each with the number of gaps before it.
//
// Window. Notifications and dumps come on two sockets. Bytes of a dump may be older than a notification that was read
// before them. The window of a dump begins with its request, and ends when everything that was notified before its end
// has been read. If the kernel notified a change of a key in the window, the notification holds, and the dump's
// record of that key is not believed.
//
// No input or output is done here. Threads: the plane's thread.
//
// Example, for one dump:
//
//      full_dump_begin(dump, {kernel_scope::links});
//      while (full_dump_next(dump)) {
//          do {
//              full_dump_open_window(dump);                request dump.current
//              ...                                         for each part: full_dump_believes for each entry, then
//                                                          full_dump_note_reported; full_dump_end_part after the part
//          } while (!full_dump_close_window(dump) && full_dump_may_repeat(dump));
//      }
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "forwarding/kernel/netlink/kernel_request.h"
#include "forwarding/plane.h"

namespace forwarding {

struct dump_request {
    kernel_scope scope = kernel_scope::links;
    uint32_t ifindex = 0; // the bridge or device
    // The bridge itself, or the bridge of which the device is a port; 0: none. In a dump of a port the kernel counts
    // positions from the beginning of its bridge's entries, so deleting any of those tears the dump.
    uint32_t bridge = 0;
};

// Progress of the proof of one scope.
struct dump_proof {
    bool first_ended = false;                 // the first dump has ended, so its gaps and anchors are known
    std::vector<bool> gaps = {};              // of the first dump, in its order: true until a later dump closes it
    std::map<fdb_key, uint32_t> anchors = {}; // some entries of the first dump: the number of gaps before each
    std::vector<fdb_key> part = {};           // reported in the current part of the current dump
    std::vector<fdb_key> part_before = {};
    bool maybe_torn = false; // the boundary before the current part; the part's first entry decides
    uint32_t tears = 0;      // torn boundaries of the current dump
    uint32_t since = 0;      // gaps before the place where its current untorn run began; UINT32_MAX: not known yet
    uint64_t deletions = 0;
    uint64_t deletions_before[2] = {}; // at the ends of the last part but one, and of the last part
};

struct full_dump {
    bool running = false;
    bool covers_everything = false; // false: the dump of a single device
    bool clean = true;              // so far
    std::deque<dump_request> waiting = {};
    dump_request current = {};
    uint32_t attempts = 0;  // requests of the current dump
    bool disturbed = false; // the current dump proves nothing
    dump_proof proof = {};

    // Keys that the kernel notified in the current window. Above a limit they are no longer kept (`is_unbounded`), and
    // nothing of the dump is believed.
    std::set<fdb_key> changed = {};
    std::set<uint32_t> changed_links = {};
    std::set<uint32_t> changed_vnis = {}; // devices
    std::set<uint32_t> gone_next_hops = {};
    bool is_unbounded = false;
};

// Begins with `first`. The caller may append to `waiting` while it runs: once the links are known, their bridges.
void full_dump_begin(full_dump &dump, const dump_request &first);

// Makes the next one of `waiting` the current dump. Returns false if none is left.
bool full_dump_next(full_dump &dump);

// Call it before each request of the current dump.
void full_dump_open_window(full_dump &dump);

// Call it after a part of `length` bytes, once every waiting notification has been read.
void full_dump_end_part(full_dump &dump, size_t length);

// Call it at the end of the dump, once every waiting notification has been read. Returns whether the dumps of this
// scope have reported all its entries.
bool full_dump_close_window(full_dump &dump);

// Returns whether a dump that proved too little may be requested again.
bool full_dump_may_repeat(const full_dump &dump);

// ---- Notifications ----

void full_dump_note_changed(full_dump &dump, const fdb_key &key);
// `bridge` is the bridge of the record's device, or 0.
void full_dump_note_gone(full_dump &dump, const fdb_record &record, uint32_t bridge);
void full_dump_note_link(full_dump &dump, uint32_t ifindex);
void full_dump_note_vlan_vnis(full_dump &dump, uint32_t ifindex);
// A device is gone, or is no longer a port of `bridge`. A dump that was in the device's entries continues in another
// device's, so this tears it like a deletion.
void full_dump_note_port_left(full_dump &dump, uint32_t bridge);
// The kernel first deletes the entries that deliver to the next hop, without a notification, and then notifies that the
// next hop is gone.
void full_dump_note_next_hop_gone(full_dump &dump, uint32_t id);

// ---- Records of the dump ----

// Return whether the current dump's report is the latest one of the entry or link.
bool full_dump_believes(const full_dump &dump, const fdb_record &record);
bool full_dump_believes_link(const full_dump &dump, uint32_t ifindex);
bool full_dump_believes_vlan_vnis(const full_dump &dump, uint32_t ifindex);

// Call it for each believed entry, in the order of the dump.
void full_dump_note_reported(full_dump &dump, const fdb_record &record);

} // namespace forwarding
