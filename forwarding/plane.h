// SPDX-License-Identifier: Apache-2.0

// The seam to a forwarding plane: plain records of links and forwarding entries, the interface of whoever holds them
// (plane), and the interface of whoever wants them (sink).
//
// A plane tells what it holds as it changes and answers questions about single entries; it keeps no table. What it has
// told is kept once, for all planes, by the sink (table_copy.h).
//
// Generations. A listing of everything is a generation: generation_begun, then every link and every entry by
// link_changed and fdb_listed, live changes among them, then generation_complete. When it was clean, nothing that the
// plane holds can have been missed, and the sink drops what was not reported since its beginning. When it was not
// clean, the sink drops nothing. A generation that begins while another is under way replaces it. The first one begins
// with start.
//
// Degraded. A plane is degraded (plane_health::clean is false) until its first clean generation has ended, after it
// lost a change, and after list_again. It begins another generation by itself, not more often than once in a few
// seconds, until one ends clean. A plane that is clean may also begin a generation, as a proof that the sink's copy is
// right. It stays clean meanwhile, and also if the proof ends unclean: an incomplete listing says nothing against the
// copy.
//
// Order. What is told last about a key holds. A plane whose listing and whose changes come by different ways delivers
// the changes of a listing's time after the listing. Links come before the entries on them.
//
// Threads: everything of a plane and of its sink runs on the thread of the event manager that start was given, but for
// query and health, which any thread may call.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/event.h"

namespace forwarding {

// In wire order.
using mac_address = std::array<uint8_t, 6>;

enum class link_kind : uint8_t {
    other, // a device of any other kind: a port when it has a master that is a bridge
    bridge,
    vxlan,
    tunnel, // a layer-2 tunnel that is not VXLAN, such as a GRE tap
};

struct link_record {
    uint32_t ifindex = 0;
    uint32_t master = 0; // interface index; 0: none
    std::string name;
    link_kind kind = link_kind::other;
    bool vlan_aware = false; // a bridge: entries are kept per VLAN
    bool external = false;   // a VXLAN device: its entries carry their own VNI
    uint32_t vni = 0;        // a VXLAN device that is not external
    bool up = false;
    mac_address address = {};
    uint32_t ageing_ms = 0;        // a bridge: how long a learned entry stays without being seen; 0: not known
    bool can_filter_vlans = false; // a bridge: its kernel has VLAN filtering, whether or not it is switched on

    bool operator==(const link_record &) const = default;
};

// What a port of a VLAN-aware bridge sends the frames of a VLAN with, by VLAN id: for a VXLAN device of many VNIs.
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
    backbone, // the first 6: a backbone MAC address, of recorded tables only
};

// Where a tunnel delivers; unused parts are zero, so that destinations compare as a whole.
struct fdb_destination {
    destination_kind kind = destination_kind::none;
    std::array<uint8_t, 16> address = {}; // network byte order
    uint32_t next_hop = 0;                // the id of a next-hop object
    uint32_t vni = 0;                     // what the tunnel sends with, when that is not the device's own
    uint16_t port = 0;                    // the UDP port, likewise; host byte order

    auto operator<=>(const fdb_destination &) const = default;
};

// What identifies an entry. A bridge holds an address once per VLAN, on whatever port; a device by address and source
// VNI, and a zero address once per destination.
struct fdb_key {
    uint32_t holder = 0;     // interface index of the bridge, or of the device for its own (self) entries
    bool self = false;       // the device's own entry
    uint16_t vlan = 0;       // 0: none
    uint32_t source_vni = 0; // of an external device
    mac_address mac = {};
    fdb_destination destination = {}; // of self entries with a zero address; otherwise none

    auto operator<=>(const fdb_key &) const = default;
};

struct fdb_record {
    uint32_t ifindex = 0; // the port; the VXLAN or other device; the bridge itself for its own address
    uint32_t master = 0;  // the bridge that holds the entry; 0 for self entries
    bool self = false;    // the device's own entry
    uint8_t state = 0;
    uint8_t flags = 0;
    uint16_t vlan = 0; // 0: none
    mac_address mac = {};
    uint16_t edm_flags = 0;  // EDM_MAC_ bits to be added, of recorded tables only
    uint32_t source_vni = 0; // of an external device
    fdb_destination destination = {};
    int64_t updated_ms = 0; // when last seen as a source, std::chrono::steady_clock in milliseconds; 0: not known

    bool operator==(const fdb_record &) const = default;
};

// The key of an entry: of the bridge when `self` is false.
inline fdb_key key_of(const fdb_record &record)
{
    fdb_key key{
        record.self ? record.ifindex : record.master, record.self, record.vlan, record.source_vni, record.mac, {}};
    if (record.self && record.mac == mac_address{}) {
        key.destination = record.destination;
    }
    return key;
}

// Takes what a plane tells. Records are read during the call only. Nothing is thrown, and nothing here waits.
class sink {
public:
    sink() = default;
    sink(const sink &) = delete;
    sink &operator=(const sink &) = delete;
    virtual ~sink() = default;

    // New or changed, or told again.
    virtual void link_changed(const link_record &record) = 0;
    // Also when the link was not known. Its entries are gone with it, told or not.
    virtual void link_gone(uint32_t ifindex) = 0;

    // The whole map of a device, empty when it has none any more. May come before the device.
    virtual void vlan_vnis_changed(uint32_t /*ifindex*/, const vni_by_vlan & /*vnis*/) {}

    // New, changed, moved to another port, or told again.
    virtual void fdb_changed(const fdb_record &record) = 0;
    // As fdb_changed, for an entry that a listing found. If the plane is clean and the sink does not know the entry
    // like this, a change was missed, or is not reported at all: ages, and what the kernel changes silently.
    virtual void fdb_listed(const fdb_record &record) { fdb_changed(record); }
    // The key and the port count: an entry that is known on another port has moved there and stays.
    virtual void fdb_gone(const fdb_record &record) = 0;
    // A next-hop object was deleted. The entries that deliver to it may have gone with it, without a fdb_gone.
    virtual void next_hop_gone(uint32_t /*id*/) {}

    // The plane lost `count` more changes and is degraded until a generation has ended clean. One overrun gives one
    // call or more: the first as soon as the plane notices it, before any change that happened after the loss, with the
    // number lost so far (0: unknown); later ones with what was lost in the meantime, the last one when the plane has
    // read everything that was waiting. The counts add up to plane_health::lost. During a storm of changes these calls
    // can come thousands of times a second.
    virtual void changes_lost(uint64_t /*count*/) {}

    virtual void generation_begun() = 0;
    virtual void generation_complete(bool clean) = 0;
};

enum class fdb_presence : uint8_t {
    cannot_tell, // it could not be asked, or the answer was no answer
    absent,      // the plane holds no such entry
    present,
};

struct fdb_answer {
    fdb_presence presence = fdb_presence::cannot_tell;
    fdb_record record = {}; // when present
};

struct plane_health {
    bool clean = false;            // false: degraded, see above
    uint64_t generation = 0;       // how many have begun
    uint64_t overruns = 0;         // each lasts until the plane has read everything that was waiting
    uint64_t lost = 0;             // changes that were lost, as far as the plane knows their number
    int64_t last_overrun_time = 0; // seconds since the epoch; 0: there was none
    uint64_t events = 0;           // changes received, those of listings included
    uint64_t refused = 0;          // messages that were malformed, or not the plane's
    uint64_t dumps_clean = 0;      // parts of listings that were read undisturbed
    uint64_t dumps_unclean = 0;    // parts that were not, each repetition counted
};

class plane {
public:
    plane() = default;
    plane(const plane &) = delete;
    plane &operator=(const plane &) = delete;
    virtual ~plane() = default;

    // What it is called in health reports: a literal.
    virtual const char *kind() const = 0;

    // Attaches itself to `evm` and begins the first generation, which may be told within the call or afterwards, in
    // slices. `sink` stays until stop has returned. False with a text for the operator when the plane cannot work at
    // all; nothing is attached then.
    virtual bool start(event_manager_t *evm, sink &to, std::string &error) = 0;

    // Tells every change that has already happened. What happens meanwhile may be left for later, so that it ends.
    virtual void drain() = 0;

    // Answers each key at the same place of `answers`, which is as long. The sink is not told. Any thread, with or
    // without the table lock; a plane that is not started, or was stopped, cannot tell. Callers ask for at most
    // `query_batch` keys at a time, for the question may hold a lock of the plane.
    virtual void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) = 0;

    // Whether entries are seen as a source without a change being told, so that ages have to be asked for.
    virtual bool ages_silently() const { return false; }

    // Asks for a new listing, because the sink found its copy to be wrong, or because a requester waits for a degraded
    // plane. The plane is degraded from now on. It begins a generation as soon as its interval allows, without the
    // longer pauses after failures. If the plane was clean, only a generation that begins after this call counts. If it
    // was degraded and a generation is running, that one counts: otherwise repeated requesters could keep a plane
    // degraded for ever. On the manager's thread.
    virtual void list_again() {}

    // Any thread.
    virtual plane_health health() const = 0;

    // What this system cannot do that others can, for the health report: found at the start or by the first answer. It
    // costs a feature and never makes an answer wrong. Any thread.
    virtual std::vector<std::string> lacks() const { return {}; }

    // Detaches everything; on the manager's thread, or on any once that has ended. Harmless when repeated.
    virtual void stop() = 0;
};

inline constexpr size_t query_batch = 512;

} // namespace forwarding
