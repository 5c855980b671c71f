// SPDX-License-Identifier: Apache-2.0

// The kept events, moves and departures, and the changes of each bridge domain and port. The cache thread writes it
// (history.h); the readers of answers/history.h read it. They hold a share of it, so a reader that waits for an event
// does not delay the end of the module.
//
//      add --> ring of events ------> read, await
//        \---> ring of moves -------> read_moves, find_flaps
//         \--> counts of changes ---> domain_changes, port_changes
//
// Memory. An event takes 32 bytes, a move 37 with its share of the index (at the default limits). The names of places
// come on top: about 200 bytes for each place that kept records name.
//
// Threads: any thread, except where a function says otherwise. A mutex guards everything. A reader holds it for at most
// `records_per_hold` records. The table lock may be held around it, and the mutex of the registry is taken inside.
#pragma once

#include <condition_variable>
#include <unordered_map>

#include "base/mutex.h"
#include "forwarding/feeder/answers/history.h"
#include "forwarding/feeder/history/move_log.h"
#include "forwarding/feeder/history/place_book.h"

namespace forwarding {

// What happened to an entry.
struct noted_change {
    change_kind kind = change_kind::learned;
    bool by_limit = false;
    mac_address mac = {};
    fed_place place = {};     // where it is, with its flags; where it was, if it went
    fed_place before = {};    // moved and changed: where it was
    int64_t was_since_ms = 0; // when it came there; 0: unknown
};

class change_log {
public:
    // `event_limit` is at least 1. The cache thread calls `describe`, under the mutex of the log.
    change_log(uint32_t event_limit, uint32_t move_limit, place_describer describe);

    // ---- The cache thread ----

    // Adds an event, and a move or departure. Throws std::bad_alloc without a change if memory runs out.
    void add(const noted_change &change, int64_t now_ms);
    // Adds an event `lost`.
    void add_loss(uint64_t count, int64_t now_ms);
    // From now on events are added.
    void begin(int64_t now_ms);
    // Something has another name now.
    void begin_naming();
    // Forget the changes of objects that have ended.
    void forget_domain(uint16_t bridge_id);
    void forget_port(uint32_t xcid);
    // Wakes the readers that wait, if there are new events.
    void publish();
    // Ends all waits, now and later.
    void close();

    // ---- Readers ----

    uint64_t newest() const;
    event_batch read(uint64_t from, size_t max_events) const;
    bool await(uint64_t number, std::chrono::milliseconds at_most) const;
    void wake() const;

    move_page read_moves(const move_filter &filter, uint64_t before, size_t max_moves) const;
    flap_page find_flaps(int64_t window_ms, const std::function<bool(const move_record &)> &wanted) const;

    uint64_t domain_changes(uint16_t bridge_id) const;
    uint64_t port_changes(uint32_t xcid) const;
    history_view view() const;

private:
    static constexpr size_t records_per_hold = 256;

    struct kept_event {
        int64_t time_ms = 0;
        uint32_t place = no_slot;  // in the book; no_slot if lost
        uint32_t before = no_slot; // in the book; no_slot unless moved or changed
        uint32_t lost = 0;         // kind lost: how many; UINT32_MAX if more
        uint16_t flags = 0;
        mac_address mac = {};
        change_kind kind = change_kind::lost;
        bool by_limit = false;
    };
    static_assert(sizeof(kept_event) == 32);

    using changed_counts = std::array<uint64_t *, 3>; // a null one does not count

    void join_places(const noted_change &change, kept_event &event) L2FIB_REQUIRES(mutex_);
    void put(const kept_event &event) L2FIB_REQUIRES(mutex_);
    void keep_move(const kept_event &event, int64_t was_since_ms) L2FIB_REQUIRES(mutex_);
    void leave(uint32_t place, uint32_t before) L2FIB_REQUIRES(mutex_);
    changed_counts counts_of(const noted_change &change) L2FIB_REQUIRES(mutex_);
    std::shared_ptr<const place_view> view_of(uint32_t place) const L2FIB_REQUIRES(mutex_);
    change_event event_at(uint64_t number) const L2FIB_REQUIRES(mutex_);
    move_record move_at(uint64_t number) const L2FIB_REQUIRES(mutex_);
    std::vector<move_record> some_moves(const move_filter &filter, uint64_t &before) const;
    int64_t history_since() const;

    mutable base::mutex mutex_;
    mutable std::condition_variable_any changed_;
    place_book places_ L2FIB_GUARDED_BY(mutex_);
    number_ring<kept_event> events_ L2FIB_GUARDED_BY(mutex_);
    move_log moves_ L2FIB_GUARDED_BY(mutex_);
    int64_t moves_since_ms_ L2FIB_GUARDED_BY(mutex_) = 0; // everything since then is kept
    std::array<uint64_t, change_kinds> of_kinds_ L2FIB_GUARDED_BY(mutex_) = {};
    std::unordered_map<uint16_t, uint64_t> of_domains_ L2FIB_GUARDED_BY(mutex_);
    std::unordered_map<uint32_t, uint64_t> of_ports_ L2FIB_GUARDED_BY(mutex_);
    uint64_t published_ L2FIB_GUARDED_BY(mutex_) = 0; // newest event of which waiting readers know
    mutable uint64_t wakes_ L2FIB_GUARDED_BY(mutex_) = 0;
    bool is_closed_ L2FIB_GUARDED_BY(mutex_) = false;
};

} // namespace forwarding
