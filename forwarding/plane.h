// SPDX-License-Identifier: Apache-2.0

// The seam to a forwarding plane: plain records of links and forwarding entries, the interface of a plane, and the
// interface of the sink to which it reports.
//
// A plane reports what it holds, then every change, and answers questions about single entries. It keeps no table. The
// sink keeps the one shadow table for all planes (shadow_table.h).
//
// Full dumps. A full dump is one pass over everything that the plane holds:
//
//      full_dump_begun
//      link_changed, fdb_dumped        every link and every entry
//      fdb_changed, fdb_gone, ...      changes that happen meanwhile, in between
//      full_dump_ended(clean)
//
// If it ends clean, the plane reported everything that it holds, and the sink drops what was not reported since
// full_dump_begun. If it ends unclean, the sink drops nothing. A full dump that begins while another one is running
// replaces it. start begins the first one.
//
// Degraded. A plane is degraded (plane_health::clean is false) until its first clean full dump has ended, after it
// lost a change, and after request_full_dump. It then repeats full dumps by itself, a few seconds apart, until one ends
// clean. A clean plane may also run a full dump, to prove the shadow table. The plane stays clean meanwhile, even if
// the proof ends unclean: an incomplete full dump does not contradict the shadow table.
//
// Order. The latest report about a key holds. So a plane does not report the record of a dump after a newer change of
// the same key. It reports a link before the entries on it.
//
// Threads. A plane and its sink run on the thread of the event manager that start was given. Any thread may call query,
// query_ages, begin_ages, health and lacks.
//
// Example:
//
//      const auto plane = make_kernel_plane({});
//      if (const base::result started = plane->start(evm, some_sink); !started.ok()) {
//          print(started.text);
//      }
//      ...
//      plane->stop();
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "platform/event.h"

namespace forwarding {

using mac_address = std::array<uint8_t, 6>; // in wire order

enum class link_kind : uint8_t {
    other, // any other device; a port if its master is a bridge
    bridge,
    vxlan,
    tunnel, // a layer-2 tunnel other than VXLAN, such as a GRE tap
};

struct link_record {
    uint32_t ifindex = 0;
    uint32_t master = 0; // interface index; 0: none
    std::string name;
    link_kind kind = link_kind::other;
    bool vlan_aware = false; // bridges: keeps its entries for each VLAN apart
    bool external = false;   // VXLAN devices: each entry carries its own VNI
    uint32_t vni = 0;        // VXLAN devices that are not external
    bool up = false;
    mac_address address = {};
    uint32_t ageing_ms = 0;        // bridges: the ageing time; 0: unknown
    bool can_filter_vlans = false; // bridges: the kernel has VLAN filtering, whether or not it is switched on

    bool operator==(const link_record &) const = default;
};

// For each VLAN id of a VLAN-aware bridge, the VNI with which an external VXLAN device sends its frames.
using vni_by_vlan = std::map<uint16_t, uint32_t>;

// Bits of fdb_record::state.
inline constexpr uint8_t fdb_permanent = 0x01;
inline constexpr uint8_t fdb_noarp = 0x02;
inline constexpr uint8_t fdb_reachable = 0x04;
inline constexpr uint8_t fdb_stale = 0x08;

// Bits of fdb_record::flags.
inline constexpr uint8_t fdb_sticky = 0x01;
inline constexpr uint8_t fdb_extern_learn = 0x02;
inline constexpr uint8_t fdb_offloaded = 0x04;
inline constexpr uint8_t fdb_locked = 0x08;
inline constexpr uint8_t fdb_inactive = 0x10;

enum class destination_kind : uint8_t {
    none,
    ipv4,     // the first 4 bytes of `address`
    ipv6,     // all 16
    next_hop, // `next_hop`
    backbone, // the first 6 bytes: a backbone MAC address; recorded tables only
};

// Where a tunnel delivers. Unused members are zero, so that whole destinations can be compared.
struct fdb_destination {
    destination_kind kind = destination_kind::none;
    std::array<uint8_t, 16> address = {}; // network byte order
    uint32_t next_hop = 0;                // the id of a next-hop object
    uint32_t vni = 0;                     // the VNI to send with; 0: the device's own
    uint16_t port = 0;                    // the UDP port, in host byte order; 0: the device's own

    auto operator<=>(const fdb_destination &) const = default;
};

// Identifies an entry. A bridge holds an address at most once for each VLAN, on any port. A device holds an address at
// most once for each source VNI, and the zero address (its flood list) once for each destination.
struct fdb_key {
    uint32_t holder = 0;     // interface index of the bridge, or of the device for its own entries
    bool self = false;       // the device's own entry
    uint16_t vlan = 0;       // 0: none
    uint32_t source_vni = 0; // external devices
    mac_address mac = {};
    fdb_destination destination = {}; // own entries with a zero address; otherwise none

    auto operator<=>(const fdb_key &) const = default;
};

struct fdb_record {
    uint32_t ifindex = 0; // the port or the device; the bridge for the bridge's own address
    uint32_t master = 0;  // the bridge that holds the entry; 0 for a device's own entry
    bool self = false;    // the device's own entry
    uint8_t state = 0;
    uint8_t flags = 0;
    uint16_t vlan = 0; // 0: none
    mac_address mac = {};
    uint16_t edm_flags = 0;  // EDM_MAC_ bits to add; recorded tables only
    uint32_t source_vni = 0; // external devices
    fdb_destination destination = {};
    int64_t updated_ms = 0; // when the address was last seen, std::chrono::steady_clock in ms; 0: unknown

    bool operator==(const fdb_record &) const = default;
};

inline fdb_key key_of(const fdb_record &record)
{
    fdb_key key{
        record.self ? record.ifindex : record.master, record.self, record.vlan, record.source_vni, record.mac, {}};
    if (record.self && record.mac == mac_address{}) {
        key.destination = record.destination;
    }
    return key;
}

// Takes the reports of a plane. It reads records during the call only, throws nothing and does not wait.
class sink {
public:
    sink() = default;
    sink(const sink &) = delete;
    sink &operator=(const sink &) = delete;
    virtual ~sink() = default;

    // The link is new, changed, or reported again.
    virtual void link_changed(const link_record &record) = 0;
    // The link is gone, and all its entries with it: the plane may report no fdb_gone for them. The sink may not know
    // the link.
    virtual void link_gone(uint32_t ifindex) = 0;

    // The whole map of a device; empty if it has none any more. The device may be reported later.
    virtual void vlan_vnis_changed(uint32_t /*ifindex*/, const vni_by_vlan & /*vnis*/) {}

    // The entry is new, changed, moved to another port, or reported again.
    virtual void fdb_changed(const fdb_record &record) = 0;
    // As fdb_changed, for an entry that a full dump found. If the plane is clean and the shadow table differs, the
    // plane missed a change, or it is one of those that no plane reports: ages, and what the kernel changes silently.
    virtual void fdb_dumped(const fdb_record &record) { fdb_changed(record); }
    // The entry is gone if the sink knows it on this port. If the sink knows it on another port, it moved there and
    // stays.
    virtual void fdb_gone(const fdb_record &record) = 0;
    // A next-hop object is gone. The plane may report no fdb_gone for the entries that delivered to it.
    virtual void next_hop_gone(uint32_t /*id*/) {}

    // The plane lost `count` more changes (0: unknown) and is degraded until a full dump has ended clean. One overrun
    // gives one call or more. The first comes as soon as the plane notices it, before any change that happened after
    // the loss. The last one comes when the plane has read everything that was waiting. The counts add up to
    // plane_health::lost. During a storm of changes these calls can come thousands of times a second.
    virtual void changes_lost(uint64_t /*count*/) {}

    virtual void full_dump_begun() = 0;
    virtual void full_dump_ended(bool clean) = 0;
};

enum class fdb_presence : uint8_t {
    unknown, // the plane could not be asked, or its answer does not decide
    absent,  // the plane holds no such entry
    present,
};

struct fdb_answer {
    fdb_presence presence = fdb_presence::unknown;
    fdb_record record = {}; // if present
};

// Lifetime counters and current gauges.
struct plane_health {
    bool clean = false;            // false: degraded, see above
    uint64_t full_dumps = 0;       // begun
    uint64_t overruns = 0;         // each lasts until the plane has read everything that was waiting
    uint64_t lost = 0;             // changes lost, as far as the plane knows their number
    int64_t last_overrun_time = 0; // seconds since the epoch; 0: there was none
    uint64_t events = 0;           // changes received, and records of full dumps
    uint64_t refused = 0;          // messages that were malformed, or that another sender sent
    uint64_t dumps_clean = 0;      // dumps (of one bridge or device) that were complete, each repetition counted
    uint64_t dumps_unclean = 0;    // dumps that may have missed something, each repetition counted
};

class plane {
public:
    plane() = default;
    plane(const plane &) = delete;
    plane &operator=(const plane &) = delete;
    virtual ~plane() = default;

    // The plane's name in health reports, a literal.
    virtual const char *kind() const = 0;

    // Attaches the plane to `evm` and begins the first full dump, which it reports within the call or later, in slices.
    // `to` must stay until stop has returned. If it fails, nothing is attached.
    virtual base::result start(event_manager_t *evm, sink &to) = 0;

    // Reports every change that has already happened. It may leave changes that happen meanwhile for later, so that it
    // ends.
    virtual void drain() = 0;

    // Answers each key at the same place of `answers`, which has the same length. The sink gets no report. Any thread
    // may call it, with or without the table lock. Callers pass at most `query_batch` keys, because the plane may hold
    // a lock of its own meanwhile. A plane that is not started, or was stopped, answers `unknown`.
    virtual void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) = 0;

    // As query, for readers of many ages. Only the presence, the key and the time of an answer's record count. They may
    // be two seconds old, but not older than the latest begin_ages. Readers call begin_ages before their first
    // question.
    virtual void query_ages(std::span<const fdb_key> keys, std::span<fdb_answer> answers) { query(keys, answers); }
    virtual void begin_ages() {}

    // True if the plane reports no change when it sees an entry's address again. The sink must query for ages then.
    virtual bool ages_silently() const { return false; }

    // Degrades the plane and begins a full dump as soon as the plane's interval allows, without the longer pauses after
    // unclean ones. The sink calls it when it finds its shadow table wrong, or while a requester waits for a degraded
    // plane. If the plane was clean, only a full dump that begins after this call makes it clean again. If it was
    // degraded, a running full dump counts: otherwise repeated requesters could keep a plane degraded for ever.
    virtual void request_full_dump() {}

    virtual plane_health health() const = 0;

    // Features that this system lacks, for the health report. The plane finds them at its start or by the first answer.
    // A missing feature never makes an answer wrong.
    virtual std::vector<std::string> lacks() const { return {}; }

    // Detaches the plane. Call it on the manager's thread, or on any thread after that one has ended. It may be
    // repeated.
    virtual void stop() = 0;
};

// The most keys of one query, so that the plane holds its lock for a short time.
inline constexpr size_t query_batch = 512;

} // namespace forwarding
