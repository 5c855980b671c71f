// SPDX-License-Identifier: Apache-2.0

// Everything that the forwarding process uses of this directory. It starts the module on a forwarding plane, stops it,
// and gives views of its state.
//
//     forwarding::options options;
//     if (const base::result started = forwarding::start(options); !started.ok()) { ... }
//     ... requests to the operational database (host/database/operational_db_host.h) ...
//     const forwarding::release_report report = forwarding::stop();
//
// A process runs at most one module at a time. Only one thread may call start and stop. Any thread may call the rest at
// any time, except that the cache thread must not call hasten_proof and tunnel_entries, which wait for it. While no
// module runs, views are empty. Each view is a copy of one moment, and two views may show different moments.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/result.h"
#include "forwarding/plane.h"
#include "forwarding/shared_list.h"
#include "l2fib_mac_edm.h"

namespace forwarding {

enum class severity : uint8_t { warning, info };
using reporter = void (*)(severity how_bad, const std::string &text);

inline constexpr uint16_t max_domains = 65'535;      // a bridge id has 16 bits, and 0 means none
inline constexpr uint32_t max_ports = EDM_XCID_LAST; // xcids are 1 to this

enum class plane_choice : uint8_t { generated, recorded, kernel };

struct options {
    plane_choice plane = plane_choice::generated;

    // generated: the fabric to make, such as "bridges=10,ports=32,macs=100000,vteps=64,churn=1000/s,seed=1". generate.h
    // gives the defaults of omitted values.
    std::string fabric = {};

    // recorded: the directory that holds links.json and fdb.json (replay.h).
    std::string recorded_directory = {};

    // kernel: see kernel_plane.h. When the plane has opened its sockets, start gives up the capabilities that only the
    // opening needed. The calling thread and the threads that it starts later no longer have them.
    uint32_t receive_buffer = 0;
    std::string netns = {};

    // The first part of every full name. If it is empty, default_group() is used.
    std::string group = {};

    uint32_t mac_limit = 2'000'000;

    // How many bridge domains and ports may have an id, at least 1 of each. The defaults are all ids that exist. Tests
    // use lower limits to run out of ids.
    uint16_t domain_limit = max_domains;
    uint32_t port_limit = max_ports;

    // How many entries of the shadow table a sample compares with the plane each second, to find changes that the plane
    // did not report. 0: none.
    uint32_t proof_rate = 256;

    // How many events, and how many moves and departures, are kept (feeder/answers/history.h). At least 1 event; no
    // move is kept if `move_limit` is 0.
    uint32_t event_limit = 65'536;
    uint32_t move_limit = 100'000;

    // Takes log messages for the operator. The cache thread calls it, so it must not block. Null: messages are dropped.
    reporter report = nullptr;

    // How many seconds a request waits for the plane, at least 1.
    uint16_t resync_wait_seconds = EDM_RESYNC_WAIT_TIME;
};

// Returns the host's name, cut to 32 characters. "_" replaces characters that a group name must not hold.
std::string default_group();

// Fails if `group` is no valid group name. A group name has 1 to 32 characters and holds no comma, colon, white space
// or control character.
base::result check_group(std::string_view group);

// Creates the plane, starts the module on it and waits until both of the module's threads serve. If it fails, it ends
// everything that it started.
//
// The first full dump may still be running when this returns. Requests wait for its end, up to the resync wait time.
base::result start(const options &options);

struct release_report {
    bool orderly = false; // both threads ended in time, and the table released everything
    uint32_t mac_entries = 0;
    uint32_t bridge_domains = 0;
    uint32_t bridge_ports = 0; // dummy ports included
    uint32_t vteps = 0;
    std::string text = {}; // one line for the log
};

// Ends both threads, detaches the plane, destroys the table and removes the forwarding manager's objects. The report
// counts the records that the table held. Pending requests end with an error status. If nothing runs, this does
// nothing.
release_report stop();

// ---- Completeness ----

// What an answer from the table is worth.
enum class completeness : uint8_t {
    whole,
    limited,  // the plane holds entries that the table lacks: the table is full or refused them, or no id was left
    degraded, // changes were lost and no full dump has proven the table since, the first full dump is still running, or
              // the plane did not confirm an age that the answer shows
};

const char *text_of(completeness state);

// Watches the completeness while an answer is made. Create one before the answer, and call worst when the answer is
// complete. Any thread.
//
//     const completeness_watch watch;
//     ... make the answer ...
//     if (watch.worst() != completeness::whole) { mark it with watch.reason() }
class completeness_watch {
public:
    completeness_watch();

    // The worst completeness since the watch was created. A degradation that began and ended meanwhile counts.
    completeness worst() const;

    // Why the answer is not whole, for the operator; empty if it is whole.
    std::string reason() const;

private:
    completeness at_first_;
    uint64_t degradations_; // begun before the watch was created
    uint64_t limitations_;  // likewise
    uint64_t old_ages_;     // answers with ages that the plane did not confirm, likewise
};

// How many seconds a request waits for the plane; 0 while nothing runs. Any thread.
uint16_t wait_seconds();

// If answers are degraded, asks the plane for the next full dump as soon as its interval allows. Otherwise does
// nothing. Waits for the cache thread; any other thread may call it.
void hasten_proof();

// ---- Views ----

// How many entries of a port the table has evicted or refused since the start.
struct limited_view {
    std::string domain;
    std::string port; // empty: the bridge domain's dummy port
    uint64_t evicted = 0;
    uint64_t refused = 0;
};

// The ids of one kind of object.
struct id_view {
    uint32_t limit = 0;
    uint64_t waiting = 0; // objects without an id, because all ids are in use
};

struct proof_view {
    uint64_t asked = 0;          // entries compared with the plane
    uint64_t disagreed = 0;      // of these, those that disagreed twice although no change was reported
    uint64_t listed_stale = 0;   // entries that a clean full dump did not report and a query then found gone
    uint64_t listed_missing = 0; // entries that a full dump found and no change had reported
    int64_t last = 0;            // when a full dump last proved the shadow table, in seconds since the epoch; 0: never
};

inline constexpr size_t change_kinds = 6; // of change_kind (feeder/answers/history.h)

// What is kept of the events, and of the moves and departures.
struct history_view {
    uint64_t events_kept = 0;
    uint64_t events = 0; // since the start
    uint64_t moves_kept = 0;
    uint64_t bytes = 0;                                     // that all of it takes, names excluded
    std::array<uint64_t, change_kinds> events_by_kind = {}; // since the start
};

struct counted_reason {
    const char *reason; // a string literal, such as "VXLAN device without a bridge"
    uint64_t count;
};

// Lifetime counters and current gauges.
struct health_view {
    bool running = false;
    std::string plane; // "kernel", "recorded", "generated"
    std::string group;
    plane_health of_plane; // the plane's own counters

    uint64_t links = 0;         // links of the shadow table now
    uint64_t entries = 0;       // entries of the shadow table now; a joined entry and its bridge's entry count as two
    uint64_t events_merged = 0; // changes overtaken by another one before the cache saw them, or without effect
    uint64_t ipv6_destinations = 0;
    uint64_t next_hop_destinations = 0;

    uint64_t resyncs = 0;
    uint64_t resyncs_degraded = 0; // of these, those that ended while the plane was degraded
    uint64_t doubtful_asked = 0;   // questions to the plane about entries in doubt
    uint64_t doubtful_kept = 0;    // of these, those whose entry the plane held, or could not decide on
    uint64_t feeds = 0;            // entries given to the table
    uint64_t feeds_full = 0;       // times that a whole scope was marked, fed again and swept

    completeness state = completeness::whole;
    uint32_t limit = 0;
    uint64_t missing = 0; // entries that the plane holds and the table lacks, because it is full or refused them
    uint64_t evictions = 0;
    uint64_t entries_refused = 0;
    id_view domain_ids;
    id_view port_ids;
    std::vector<limited_view> limited; // the first 100 ports that lost an entry so
    proof_view proof;
    history_view history;

    std::vector<counted_reason> unmapped; // entries that are not fed now, by reason; reasons without any are left out
    std::vector<counted_reason> refused;  // failures since the start, by reason; reasons without any are left out
    std::vector<std::string> lacks;       // features that the plane's system lacks
    std::vector<std::string> notes;       // the latest changed names and refused objects
};

health_view health();

struct domain_view {
    uint16_t bridge_id = 0;
    std::string name; // full name: group, ":" and bridge, with ".VID" for a VLAN of a VLAN-aware bridge
    std::string bridge;
    uint32_t bridge_ifindex = 0;
    uint16_t vlan = 0; // 0: none
    bool vlan_aware = false;
    uint32_t ageing_ms = 0; // 0: unknown
};

// Sorted by bridge id.
std::vector<domain_view> domains();

enum class port_kind : uint8_t { interface, vxlan, tunnel };

struct port_view {
    uint32_t xcid = 0;
    std::string name; // of the interface
    uint32_t ifindex = 0;
    port_kind kind = port_kind::interface;
    uint16_t vlan = 0;
    uint32_t vni = 0; // VXLAN ports only; 0: each entry has its own
    bool up = false;
    uint16_t bridge_id = 0;
    std::string domain; // full name of its bridge domain
};

// Sorted by xcid.
std::vector<port_view> ports();

// The order of a list of views: domains by bridge id, ports by bridge id and xcid.
inline uint16_t key_of(const domain_view &view)
{
    return view.bridge_id;
}
inline std::pair<uint16_t, uint32_t> key_of(const port_view &view)
{
    return {view.bridge_id, view.xcid};
}

// Domains and ports of one moment. It shares with later ones what did not change.
struct object_views {
    shared_list<domain_view> domains; // sorted by bridge id
    shared_list<port_view> ports;     // sorted by bridge id and xcid

    // Both return null if there is none. The result lives as long as this object.
    const domain_view *find_domain(uint16_t bridge_id) const { return domains.find(bridge_id); }
    const port_view *find_port(uint16_t bridge_id, uint32_t xcid) const
    {
        return ports.find(std::pair(bridge_id, xcid));
    }
};

// Null while nothing runs.
std::shared_ptr<const object_views> objects();

// The entries of a bridge domain, each in one of the numbers. Together they count against the limit of the table.
struct kind_counts {
    uint32_t learned = 0;
    uint32_t fixed = 0;
    uint32_t local = 0; // not static; with the bridge's own
};

struct domain_counts {
    std::shared_ptr<const object_views> objects = nullptr; // null while nothing runs
    std::vector<kind_counts> counts = {};                  // in the order of objects->domains
};

// Counts the entries of all bridge domains. It takes no lock of the table and does not wait for the cache thread, so
// changes that are still queued do not count.
domain_counts count_domains();

// A VXLAN device's own entry, as the plane holds it. The cache cannot show it in full: for each MAC address it holds
// one destination, and only as an IPv4 address. If the device is in no bridge, `bridge_id` and `xcid` are 0 and
// `domain` is empty.
struct tunnel_entry {
    uint16_t bridge_id = 0;
    uint32_t xcid = 0;
    std::string domain; // full name of the bridge domain
    uint16_t vlan = 0;  // of the bridge domain; 0: none
    std::string port;   // name of the device
    uint32_t vni = 0;   // with which it sends; 0: unknown
    fdb_record record = {};
};

// Returns the next page of tunnel entries, at most `limit`, and moves `cursor` behind it. The first call passes 0. An
// empty page is the end. The call waits for the cache thread; any other thread may make it. Entries that come or go
// between two pages may be missing, or be on two pages.
std::vector<tunnel_entry> tunnel_entries(uint32_t &cursor, size_t limit);

} // namespace forwarding
