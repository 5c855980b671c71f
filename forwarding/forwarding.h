// SPDX-License-Identifier: Apache-2.0

// The forwarding process's whole use of this directory: starts the module on a forwarding plane, ends it, and tells
// what goes on meanwhile.
//
//     forwarding::options options;
//     if (const std::string error = forwarding::start(options); !error.empty()) { ... }
//     ... requests to the operational database (host/database/operational_db_host.h) ...
//     const forwarding::release_report report = forwarding::stop();
//
// One at a time in a process. start and stop are for one thread; the views are for any thread at any time, and empty
// while nothing runs. A view is a copy of one moment; two of them need not belong together.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "forwarding/plane.h"
#include "l2fib_mac_edm.h"

namespace forwarding {

enum class severity : uint8_t { warning, info };
using reporter = void (*)(severity how_bad, const std::string &text);

inline constexpr uint16_t max_domains = 65'535;      // bridge ids have 16 bits, and 0 is none
inline constexpr uint32_t max_ports = EDM_XCID_LAST; // all xcids

enum class plane_choice : uint8_t { generated, recorded, kernel };

struct options {
    plane_choice plane = plane_choice::generated;

    // generated: what to make, as in "bridges=10,ports=32,macs=100000,vteps=64,churn=1000/s,seed=1" (generate.h). What
    // is left out has its default.
    std::string fabric = {};

    // recorded: the directory with links.json and fdb.json (replay.h).
    std::string recorded_directory = {};

    // kernel: kernel_plane.h. Once its sockets are open, the calling thread and all that it starts are without the
    // capabilities that took.
    uint32_t receive_buffer = 0;
    std::string netns = {};

    // The first part of every full name; empty: default_group().
    std::string group = {};

    uint32_t mac_limit = 2'000'000;

    // How many bridge domains and ports get an id, at least 1 of each. The defaults are all the ids that exist; a test
    // lowers them.
    uint16_t domain_limit = max_domains;
    uint32_t port_limit = max_ports;

    // How many entries a second are compared with what the plane holds, to find what no change reported; 0: none.
    uint32_t proof_rate = 256;

    // Takes what an operator has to know, on the cache thread: it must not block. Null: nobody wants it.
    reporter report = nullptr;

    // How long a request waits for the plane, in seconds; at least 1.
    uint16_t resync_wait_seconds = EDM_RESYNC_WAIT_TIME;
};

// The host's name, cut to 32 characters, with "_" for what a name cannot carry.
std::string default_group();

// A text that tells what is wrong with the name of a group, or nothing: 1 to 32 characters, without ",", ":", white
// space and control characters.
std::string group_error(std::string_view group);

// Creates the plane, starts the module on it and waits until both of its threads serve. Returns nothing on success,
// otherwise a text for the operator; everything that had been started is ended then.
//
// The plane may still be listing when this returns: requests wait for the first listing, up to the resync wait time.
std::string start(const options &options);

struct release_report {
    bool orderly = false; // both threads ended in time, and all memory was given back
    uint32_t mac_entries = 0;
    uint32_t bridge_domains = 0;
    uint32_t bridge_ports = 0; // dummy ports included
    uint32_t vteps = 0;
    std::string text = {}; // one line for the log
};

// Ends both threads, detaches the plane, tears the table down, removes the objects. What was released is counted.
// Requests that are under way end with a status. Harmless when nothing runs.
release_report stop();

// ---- Completeness ----

// What an answer from the table is worth.
enum class completeness : uint8_t {
    whole,
    limited,  // the plane holds what the table does not: a limit of entries or ids is reached, or the table refused it
    degraded, // changes of the plane were lost, and no full listing has proven the table since
};

const char *text_of(completeness state);

// Watches what an answer is worth while it is made: what it finds is the worst from its creation on. Any thread.
class completeness_watch {
public:
    completeness_watch();

    completeness worst() const;

    // For an operator; empty while it is whole.
    std::string reason() const;

private:
    completeness at_first_;
    uint64_t degradations_; // begun so far
    uint64_t limitations_;
};

// How long a request waits for the plane, in seconds; 0 while nothing runs. Any thread.
uint16_t wait_seconds();

// Has a degraded plane begin the listing that proves it as soon as it may. Any thread.
void hasten_proof();

// ---- Views ----

// What the limit or a refusal has cost a port since the start.
struct limited_view {
    std::string domain;
    std::string port; // empty: the bridge domain itself
    uint64_t evicted = 0;
    uint64_t refused = 0;
};

// The ids of one kind of object.
struct id_view {
    uint32_t limit = 0;
    uint64_t waiting = 0; // objects without an id, since all are in use
};

struct proof_view {
    uint64_t asked = 0;          // entries compared with the plane
    uint64_t disagreed = 0;      // of these, those that the shadow table held otherwise and no change explained
    uint64_t listed_stale = 0;   // entries that a clean listing and a question found gone
    uint64_t listed_missing = 0; // entries that a listing found and no change had reported
    int64_t last = 0;            // when a listing proved the shadow table last, in seconds since the epoch; 0: never
};

struct counted_reason {
    const char *reason; // a literal, such as "VXLAN device without a bridge"
    uint64_t count;
};

struct health_view {
    bool running = false;
    std::string plane; // "kernel", "recorded", "generated"
    std::string group;
    plane_health of_plane; // clean or degraded, generation, overruns, events received, messages refused

    uint64_t links = 0;         // what the plane holds now
    uint64_t entries = 0;       // as the plane counts them: a joined VXLAN entry is two
    uint64_t events_merged = 0; // changes that were overtaken by another one before the cache was told
    uint64_t ipv6_destinations = 0;
    uint64_t next_hop_destinations = 0;

    uint64_t resyncs = 0;
    uint64_t resyncs_degraded = 0; // of these, those completed while the plane was degraded
    uint64_t doubtful_asked = 0;   // entries that the plane was asked about before a sweep
    uint64_t doubtful_kept = 0;    // of these, those that it still held, or could not tell
    uint64_t feeds = 0;            // entries given to the table
    uint64_t feeds_full = 0;       // how often a whole scope was marked, fed and swept

    completeness state = completeness::whole;
    uint32_t limit = 0;
    uint64_t missing = 0; // entries that the plane holds and the table does not, for want of room or refused
    uint64_t evictions = 0;
    uint64_t entries_refused = 0;
    id_view domain_ids;
    id_view port_ids;
    std::vector<limited_view> limited; // ports that lost an entry so, the first few
    proof_view proof;

    std::vector<counted_reason> unmapped; // entries that are not fed now, by reason; zeros are left out
    std::vector<counted_reason> refused;  // failures since the start, by reason; zeros are left out
    std::vector<std::string> lacks;       // what the plane's system cannot do
    std::vector<std::string> notes;       // names that were changed and objects that were refused: the last few
};

health_view health();

struct domain_view {
    uint16_t bridge_id = 0;
    std::string name; // the full name: group ":" bridge, with ".vid" for a VLAN of a VLAN-aware bridge
    std::string bridge;
    uint32_t bridge_ifindex = 0;
    uint16_t vlan = 0; // 0: none
    bool vlan_aware = false;
    uint32_t ageing_ms = 0; // 0: not known
};

// By bridge id.
std::vector<domain_view> domains();

enum class port_kind : uint8_t { interface, vxlan, tunnel };

struct port_view {
    uint32_t xcid = 0;
    std::string name; // of the interface
    uint32_t ifindex = 0;
    port_kind kind = port_kind::interface;
    uint16_t vlan = 0;
    uint32_t vni = 0; // of VXLAN ports; 0: each entry has its own
    bool up = false;
    uint16_t bridge_id = 0;
    std::string domain; // its full name
};

// By xcid.
std::vector<port_view> ports();

// Domains and ports of one moment, shared by all who ask until one of them changes.
struct object_views {
    std::vector<domain_view> domains; // by bridge id
    std::vector<port_view> ports;     // by bridge id and xcid

    // Null when there is none.
    const domain_view *find_domain(uint16_t bridge_id) const;
    const port_view *find_port(uint16_t bridge_id, uint32_t xcid) const;
};

// Null while nothing runs.
std::shared_ptr<const object_views> objects();

// A VXLAN device's own entry, as the plane holds it: the cache has what a bridge forwards by, and of a destination
// only an IPv4 address, one for each MAC address. `bridge_id` and `xcid` are 0, `domain` is empty, of a device that is
// in no bridge.
struct tunnel_entry {
    uint16_t bridge_id = 0;
    uint32_t xcid = 0;
    std::string domain; // its full name
    std::string port;   // the device's
    fdb_record record = {};
};

// The next ones, at most `limit`, from `cursor` on, which begins at 0 and is moved; an empty page is the end. Asks the
// cache thread and waits for it. What comes and goes between two pages may be missed or told twice.
std::vector<tunnel_entry> tunnel_entries(uint32_t &cursor, size_t limit);

} // namespace forwarding
