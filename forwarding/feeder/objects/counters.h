// SPDX-License-Identifier: Apache-2.0

// Counts the entries of the cache by bridge domain, port and kind, and the entries of the shadow table by standing and
// by kind of destination. The module counts the same by itself; with both numbers the feeder notices that the cache has
// left its step.
//
// An entry counts at its place (feed_record.h). The destinations of a flood list share one place in the cache and count
// once: only the one whose standing is `fed` counts.
//
// Threads: the cache thread, without a lock. Any thread may call the functions of the last section; each number is
// right by itself.
#pragma once

#include <array>
#include <atomic>
#include <vector>

#include "forwarding/feeder/context.h"

namespace forwarding {

class registry;

class entry_counters {
public:
    entry_counters(feed_context &context, const registry &objects);

    // Brings the standing and the kind of destination of an entry up to date.
    void follow_standing(uint32_t entry);
    // Moves an entry to the counters of the kind that it has in the cache now. `flags` are the EDM_MAC_ bits of its
    // descriptor. They do not matter if the entry is not fed.
    void count(uint32_t entry, uint16_t flags);
    // Sets the place at which the cache holds the entry now. It does not count at its former place any more.
    void move(uint32_t entry, const fed_place &to);

    // Begins the counters of a port, given by its slot.
    void begin_port(uint32_t port);
    const edm_mac_counters_t &of_port(uint32_t port) const { return of_ports_[port]; }
    uint64_t all_of_port(uint32_t port) const;
    // Entries that the cache should hold.
    uint64_t total() const { return total_; }

    // ---- Any thread ----

    void read_domain(uint16_t bridge_id, edm_mac_counters_t &counters) const;
    uint64_t all_of_domain(uint16_t bridge_id) const;
    kind_counts kinds_of_domain(uint16_t bridge_id) const;
    // Adds the entries that are not fed, by reason.
    void add_to(health_view &view) const;
    uint64_t of_standing(standing which) const { return standings_[static_cast<size_t>(which)]; }
    uint64_t of_destination(destination_kind kind) const { return destinations_[static_cast<size_t>(kind)]; }

private:
    // Entries of a bridge domain in the cache, by kind; an entry counts in one of them.
    struct domain_counters {
        std::atomic<uint32_t> plain, fixed, local, both; // fixed: static; both: static and local
    };

    void change(uint32_t entry, uint32_t by);
    std::atomic<uint32_t> &domain_counter(uint16_t bridge_id, uint8_t counted_as);

    feed_context &context_;
    const registry &objects_;
    slot_records<edm_mac_counters_t> of_ports_;
    uint64_t total_ = 0;

    std::vector<domain_counters> of_domains_; // by bridge id
    std::array<std::atomic<uint64_t>, static_cast<size_t>(standing::count)> standings_ = {};
    std::array<std::atomic<uint64_t>, static_cast<size_t>(destination_kind::backbone) + 1> destinations_ = {};
};

} // namespace forwarding
