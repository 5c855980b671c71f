// SPDX-License-Identifier: Apache-2.0

// Reads what has happened to the table's entries: the latest events, the latest moves and departures, addresses that
// flap, and how much each bridge domain and port changes.
//
// An event says what the table did with an entry, at the moment when it did so. If several changes of one entry
// overtake each other before the table sees them, there is one event or none. Events replayed over an earlier state of
// the table give its present state:
//
//      learned    the entry came
//      moved      to another port of its bridge domain, or one VTEP has replaced another
//      changed    another type, flags or VNI at the same place; a VTEP that came or went counts here
//      aged       the entry went, and the plane said that its ageing time had passed
//      removed    the entry went for any other reason
//      lost       the plane lost changes; no entry
//
// These make no event: a new age, a rename of a bridge or port, a resync, and entries that the first full dump finds.
// All destinations of a flood list (the zero address) are one entry, which is only learned and removed.
//
// Events are numbered 1, 2, 3 and so on, from the start of the process. The daemon keeps the latest ones (options
// `event_limit`, `move_limit`). A reader is a number:
//
//      uint64_t next = forwarding::newest_event() + 1;
//      while (!done) {
//          if (forwarding::await_event(next, std::chrono::seconds(15))) {
//              const forwarding::event_batch batch = forwarding::read_events(next, 256);
//              ... batch.missed, then batch.events ...
//              next = batch.next;
//          }
//      }
//
// Threads. Call these functions on any thread but the cache thread, without the table lock. Results are copies and
// share only names, which never change. While nothing runs, results are empty.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "forwarding/forwarding.h"
#include "forwarding/plane.h"

namespace forwarding {

// ---- Events ----

enum class change_kind : uint8_t { learned, moved, aged, removed, changed, lost };

// Returns "learned", "moved" and so on.
const char *text_of(change_kind kind);

// Where an entry is or was, with the names of that moment. Many events share one.
struct place_view {
    std::string domain; // full name
    std::string port;   // of the interface; empty: the bridge domain itself
    uint16_t bridge_id = 0;
    uint32_t xcid = 0;                // EDM_XCID_DUMMY: the bridge domain itself
    uint16_t vlan = 0;                // 0: none
    std::array<uint8_t, 4> vtep = {}; // network byte order; zeros: none
    uint32_t vni = 0;                 // with which frames to the entry are sent; 0: none
};

struct change_event {
    uint64_t number = 0;
    int64_t time_ms = 0; // since the epoch
    change_kind kind = change_kind::learned;
    bool by_limit = false; // removed because the table is full, or has refused the entry
    mac_address mac = {};
    uint16_t flags = 0;                                 // EDM_MAC_ bits; as they were, if aged or removed
    std::shared_ptr<const place_view> place = nullptr;  // where it is; where it was, if aged or removed; null if lost
    std::shared_ptr<const place_view> before = nullptr; // moved and changed: where it was; otherwise null
    uint64_t lost = 0;                                  // kind lost: how many changes; 0: unknown
};

struct event_batch {
    std::vector<change_event> events = {};
    uint64_t missed = 0; // events from the wanted number on that are no longer kept; they come before `events`
    uint64_t next = 0;   // number at which to continue
};

// Number of the newest event; 0: there is none yet.
uint64_t newest_event();

// Reads up to `max_events` events from number `from` on. If `from` is behind the newest event, the batch is empty and
// continues at `from`.
event_batch read_events(uint64_t from, size_t max_events);

// Waits until event `number` exists. Returns whether it does: false after `at_most`, after wake_event_readers, and when
// the module stops. An event may be up to 20 ms old when this returns. Stopping the module does not wait for it.
bool await_event(uint64_t number, std::chrono::milliseconds at_most);

// Ends every wait of await_event that is under way now.
void wake_event_readers();

// ---- Moves and departures ----

// An event `moved`, `aged` or `removed`. Flood lists have none.
struct move_record {
    uint64_t number = 0; // among the moves and departures, from 1
    int64_t time_ms = 0; // since the epoch
    change_kind kind = change_kind::moved;
    bool by_limit = false; // as change_event::by_limit
    mac_address mac = {};
    std::shared_ptr<const place_view> place = nullptr;  // where it went; null unless moved
    std::shared_ptr<const place_view> before = nullptr; // where it was
    int64_t was_since_ms = 0; // when it came to `before`, to the second, since the epoch; 0: unknown
};

// Which moves and departures to read. A member that is empty lets all of them pass.
struct move_filter {
    std::optional<mac_address> mac = std::nullopt; // found by an index: looks at this address's records only
    std::function<bool(const move_record &)> passes = nullptr;
};

struct move_page {
    std::vector<move_record> moves = {}; // newest first
    int64_t history_since_ms = 0;        // everything that happened since then is kept
    bool more = false;                   // older ones may follow
    uint64_t next = 0;                   // pass it as `before` for the next page
};

// Reads up to `max_moves` records with numbers below `before`. 0: from the newest one on.
move_page read_moves(const move_filter &filter, uint64_t before, size_t max_moves);

// An address that moved at least twice in a time window.
struct flap_record {
    mac_address mac = {};
    uint32_t moves = 0;   // in the window
    int64_t first_ms = 0; // time of the first and last of them, since the epoch
    int64_t last_ms = 0;
    std::shared_ptr<const place_view> place = nullptr; // where the last move went
    std::shared_ptr<const place_view> other = nullptr; // where it came from
};

struct flap_page {
    std::vector<flap_record> flaps = {}; // most moves first, then the latest first
    int64_t history_since_ms = 0;        // as move_page; a longer window is counted from then on only
};

// Counts the moves of the latest `window_ms` by bridge domain and address. `wanted` chooses moves by the page's
// filters; null: all.
flap_page find_flaps(int64_t window_ms, const std::function<bool(const move_record &)> &wanted = nullptr);

// ---- Bridge domains and ports ----

struct object_activity {
    uint64_t entries = 0; // rows of the object now
    uint64_t changes = 0; // events of the object since the start; a move counts for both ports
};

// Return the activity of objects in their order; zeros for an object that does not exist. They wait for the cache
// thread, once for all objects.
std::vector<object_activity> domain_activity(std::span<const uint16_t> bridge_ids);
std::vector<object_activity> port_activity(std::span<const uint32_t> xcids);

} // namespace forwarding
