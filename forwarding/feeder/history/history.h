// SPDX-License-Identifier: Apache-2.0

// Follows what happens to the entries of the cache, and adds it to the log of changes (change_log.h). The function that
// feeds or withdraws an entry passes what the cache held of it before. History compares that with what it holds now:
//
//      const held_entry before = history.held(entry);
//      ... feed, withdraw or evict it ...
//      history.follow(entry, before);
//
//      before     now                             event
//      none       held                            learned
//      held       none                            aged, removed
//      held       another port or VTEP            moved
//      held       other flags or VNI, or a VTEP   changed
//                 that came or went
//      held       another bridge domain           removed, learned
//
// The start. Events begin when the queue of changes is settled after the first full dump. If that dump was not clean,
// entries that only a further full dump finds make no event until one has proven the shadow table.
//
// Names. A removal settles the entries of a bridge domain or port after its views have gone, so history keeps the names
// of what is going until the queue is settled.
//
// Threads: the cache thread; the functions that follow entries under the table lock. Any thread may call log().
#pragma once

#include <map>
#include <memory>

#include "forwarding/feeder/history/change_log.h"
#include "forwarding/feeder/history/creation_times.h"
#include "forwarding/feeder/objects/registry.h"

namespace forwarding {

// What the cache holds of an entry.
struct held_entry {
    bool is_held = false;
    fed_place place = {};
    uint64_t created = 0;
};

class history {
public:
    history(feed_context &context, const registry &objects);
    ~history();
    history(const history &) = delete;
    history &operator=(const history &) = delete;

    held_entry held(uint32_t entry) const;
    // Adds what has happened to an entry since `before`.
    void follow(uint32_t entry, const held_entry &before);
    // As follow, for an entry that the cache did not hold before and holds now at `place`. Before events begin, only
    // flood lists are followed, which VXLAN ports have.
    void follow_new(uint32_t entry, const fed_place &place)
    {
        if (has_begun_ || (place.is_tunnel && context_.shadow.entries[entry].mac == mac_address{})) {
            follow(entry, {});
        }
    }

    // The plane has lost `count` more changes (0: unknown). Adds an event at once, and at most one more each second.
    void note_loss(uint64_t count);
    // Adds the losses that wait for their event.
    void end_loss();

    // The port is going, and the registry still knows it and its bridge domain. EDM_XCID_DUMMY: the bridge domain is
    // going, after its ports.
    void keep_names(uint16_t bridge_id, uint32_t xcid);
    // The queue of changes is settled, so no entry of what has ended is left.
    void forget_ended();
    // A bridge domain or port has another name.
    void begin_naming() { log_->begin_naming(); }

    // Wakes the readers that wait for events.
    void publish() { log_->publish(); }
    // The queue of changes is settled. `has_full_dump`: the first full dump has ended. `is_proven`: answers are not
    // degraded. `last_created`: the number of the latest creation.
    void follow_settled(bool has_full_dump, bool is_proven, uint64_t last_created);
    // When the cache took the entry at its present place, in ms since the epoch; 0: unknown.
    int64_t since(uint32_t entry) const;

    // Any thread. The log outlives the feeder while a reader has a share of it.
    const std::shared_ptr<change_log> &log() const { return log_; }

private:
    using port_place = std::pair<uint16_t, uint32_t>; // bridge id and xcid

    void add(change_kind kind, uint32_t entry, const held_entry &before);
    void add(const noted_change &change);
    void follow_held(uint32_t entry, const held_entry &before);
    void follow_flood_list(uint32_t entry, const held_entry &before);
    change_kind departure_of(uint32_t entry) const;
    bool is_of_start(uint32_t entry) const;
    place_view describe(const fed_place &place) const;

    feed_context &context_;
    const registry &objects_;
    const std::shared_ptr<change_log> log_;
    creation_times creation_times_;
    std::map<port_place, uint32_t> flood_lists_; // how many destinations of each flood list the cache holds

    std::map<port_place, place_names> ended_; // since the queue was settled last

    bool has_begun_ = false; // events are added
    bool is_proven_ = false; // the shadow table has been proven once
    bool has_loss_ = false;  // losses wait for their event
    uint64_t lost_ = 0;      // how many, as far as known
    int64_t loss_ms_ = 0;    // time of the latest event `lost`
};

} // namespace forwarding
