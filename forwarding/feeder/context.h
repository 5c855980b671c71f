// SPDX-License-Identifier: Apache-2.0

// What all parts of the feeder share: the plane, the shadow table, the records beside its entries, the settings, the
// event manager of the cache thread, and the clocks. The feeder owns the context, and its parts refer to it.
//
// Threads: the cache thread, except for the members under "Any thread".
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "forwarding/feeder/feed_record.h"
#include "forwarding/forwarding.h"
#include "forwarding/plane.h"
#include "forwarding/shadow_table.h"

namespace forwarding {

struct feeder_settings {
    std::string group;                   // first part of the full names
    uint16_t wait_seconds = 0;           // resync wait time
    uint32_t mac_limit = 0;              // MAC entries that the cache may hold
    uint32_t proof_rate = 0;             // entries compared with the plane each second
    uint16_t domain_limit = max_domains; // ids for bridge domains
    uint32_t port_limit = max_ports;     // ids for ports
    uint32_t event_limit = 0;            // events that are kept, at least 1
    uint32_t move_limit = 0;             // moves and departures that are kept
    reporter report = nullptr;           // takes messages for operators; null: none
};

// What a resync covers: EDM_RESYNC_ALL, EDM_RESYNC_BD with a bridge id, or EDM_RESYNC_BP with an xcid.
struct resync_scope {
    uint32_t type = 0;
    uint32_t arg = 0;
};

struct feed_context {
    shadow_table &shadow;
    feed_records records = {};
    event_manager_t *evm = nullptr; // set when the feeder starts

    // Any thread.
    plane &source; // query, health, lacks, kind and ages_silently only
    const feeder_settings settings;
    std::atomic<int64_t> epoch_offset_ms{0}; // time since the epoch minus the steady clock

    // Adopts the offset between the system's clock and the steady clock if it has drifted. Cache thread.
    void follow_clock();
    // Gives a message to the operator. Cache thread.
    void report(severity how_bad, const std::string &text) const;
};

// Returns the steady clock in ms, cut to 32 bits. It lags a few ms behind, and is cheap enough for every report.
uint32_t coarse_ms();

// Returns the system's clock in ms since the epoch. It lags and costs as coarse_ms does.
int64_t epoch_ms();

// True if the entry ages out when its address is not seen for the bridge's ageing time. Cache thread.
bool entry_ages(const shadow_table &shadow, uint32_t entry);

template <typename Owner>
Owner &owner_of(void (Owner::*)(), void *cookie)
{
    return *static_cast<Owner *>(cookie);
}

// Makes a member function a callback of the event library; `cookie` is the object.
template <auto Member>
void call(void *cookie)
{
    (owner_of(Member, cookie).*Member)();
}

// Returns "1 entry", "2 entries". `what` lacks its last letters: "entr".
std::string count_of_ies(uint64_t count, const char *what);

} // namespace forwarding
