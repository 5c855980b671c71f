// SPDX-License-Identifier: Apache-2.0

// The plain copy of what a forwarding plane holds: links, entries, and what they hang together by. Written once for all
// planes; it knows neither the module nor the host.
//
//      link ---- ports ----+                     a link's port in a bridge, once per VLAN and VNI
//        |                 v
//      domains ------->  port ---- entries       entries in the order in which they came
//      (of a bridge)       ^          |
//                          |          +-- group  on VXLAN devices: the bridge's and the device's entries for one
//                        domain                  address; the device's come first
//
// Not obvious:
//  - An entry whose bridge does not matter (a receive filter, a VXLAN device without a bridge) stands on a port without
//    a domain, whose master is 0.
//  - The bridge's own addresses stand on a port whose interface is the bridge.
//  - An entry that has gone stays as a slot, on no port, until the listener releases it: who told the cache about it
//    has to take that back, and an entry that returns meanwhile is the same one.
//  - A port ends with its link, and when the link changes its bridge, kind or VNI; it is a new port then.
//
// Threads: the plane's (plane.h).
#pragma once

#include <unordered_map>
#include <utility>
#include <vector>

#include "forwarding/plane.h"
#include "forwarding/slots.h"
#include "l2fib_mac_edm.h"

namespace forwarding {

struct shadow_entry {
    fdb_record record;
    bool alive = false;
    uint32_t generation = 0; // in which it was told last
    uint32_t port = no_slot; // while it is alive
    uint32_t next = no_slot; // on the port
    uint32_t prev = no_slot;
    uint32_t group = no_slot; // on a VXLAN device
    uint32_t group_next = no_slot;
    uint32_t group_prev = no_slot;

    bool listed_only = false; // a listing reported it first, and no change has since

    // The listener's.
    bool dirty = false;
    bool contested = false; // it came and went within a moment: the reports may be in the wrong order
    bool touched_alive = false;
    bool surely_gone = false; // the plane has said so
    bool doubtful = false;    // waits in the queue of questions to the plane
    bool missing = false;     // the cache should hold it and does not
    bool fed_tunnel = false;  // the two below count
    bool fed_own_vni = false; // it sends with another VNI than its port, or is kept by source VNI
    uint8_t standing = 0;
    uint8_t foreign = 0;     // the kind of a destination that the cache cannot carry
    uint8_t counted_as = 0;  // what it adds to the counters of a bridge domain
    uint8_t fed_variant = 0; // the flags that choose the variant of its record in the cache
    uint16_t counted_bridge = 0;
    uint16_t fed_bridge = 0; // where the cache holds it
    uint32_t fed_xcid = 0;   // 0: nowhere
    uint32_t counted_xcid = 0;
    uint32_t fed_vtep = 0; // in host byte order, so that numbers sort as addresses do; 0: none
    uint32_t fed_vni = 0;
    uint32_t touched_ms = 0; // of the steady clock, cut to 32 bits
    uint64_t created = 0;    // in the order of creation in the cache
};

struct port_key {
    uint32_t master = 0; // the bridge; 0: none
    uint32_t ifindex = 0;
    link_kind kind = link_kind::other;
    uint16_t vlan = 0;
    uint32_t vni = 0;

    bool operator==(const port_key &) const = default;
};

struct shadow_port {
    port_key key;
    uint32_t domain = no_slot;
    uint32_t first = no_slot;
    uint32_t last = no_slot;
    uint32_t entries = 0;

    // The listener's.
    uint32_t resume =
        no_slot; // the entry at which it continues a walk; the shadow table moves it on when that entry leaves
    uint32_t xcid = 0;
    uint64_t waits = 0; // its place in the line for an id; 0: it does not wait
    edm_mac_counters_t counters = {};
};

struct shadow_domain {
    uint32_t bridge = 0; // interface index
    uint16_t vlan = 0;
    std::vector<uint32_t> ports;

    // The listener's.
    uint16_t bridge_id = 0;
    uint64_t waits = 0; // as shadow_port::waits
};

struct shadow_link {
    link_record record;
    bool known = false; // told, and not only named by something else
    uint64_t generation = 0;
    std::vector<uint32_t> ports;
    std::vector<uint32_t> domains; // of a bridge
    std::vector<uint32_t> members; // interface indexes of the links whose master it is
    vni_by_vlan vnis;
    std::unordered_map<uint32_t, uint16_t> vlans; // by VNI, the other way round
    bool maps_vlans = false; // a VXLAN device of many VNIs on a VLAN-aware bridge: the map says which VNI a VLAN has
};

// The entries for one address on one VXLAN device. A device with many VNIs has a flood list for each of them, on a port
// of its own: `vni` keeps them apart. Other entries of such a device form one group for all VNIs, since the bridge's
// entry does not say which VNI it belongs to.
struct shadow_group {
    uint32_t ifindex = 0;
    uint32_t vni = 0; // of a flood list, its port's; otherwise 0
    mac_address mac = {};
    uint32_t first = no_slot; // the device's own before the bridge's
    uint32_t last = no_slot;
    uint32_t of_bridge = 0;
};

// Is told about changes, after they were made. It calls nothing that changes the shadow table.
class shadow_listener {
public:
    shadow_listener() = default;
    shadow_listener(const shadow_listener &) = delete;
    shadow_listener &operator=(const shadow_listener &) = delete;
    virtual ~shadow_listener() = default;

    // New, changed or gone; not for a mere change of age.
    virtual void entry_touched(uint32_t entry) = 0;
    // Seen differently, maybe, because another entry was touched.
    virtual void entry_affected(uint32_t entry) = 0;
    // Reported as it was known. `has_aged`: but for the time when it was last seen.
    virtual void entry_confirmed(uint32_t /*entry*/, bool /*has_aged*/) {}
    // A clean generation did not report it. The listener decides whether it has gone.
    virtual void entry_untold(uint32_t /*entry*/) {}
    // A listing reported it, and the shadow table did not hold it so.
    virtual void full_dump_differs(uint32_t /*entry*/) {}
    virtual void next_hop_gone(uint32_t /*id*/) {}
    virtual void changes_lost(uint64_t /*count*/) {}
    // Ports that have a domain only. A port or domain that goes is told while it is still there, without entries.
    virtual void port_added(uint32_t port) = 0;
    virtual void port_changed(uint32_t port) = 0; // its link's name or state
    virtual void port_going(uint32_t port) = 0;
    virtual void domain_added(uint32_t domain) = 0;
    virtual void domain_changed(uint32_t domain) = 0; // its bridge's name or VLAN awareness, or it has been told now
    virtual void domain_going(uint32_t domain) = 0;
    virtual void full_dump_begun() {}
    virtual void full_dump_ended(bool clean) = 0;
};

// Whether records differ at most in the time when the entry was last seen.
bool equal_but_age(const fdb_record &left, const fdb_record &right);

class shadow_table : public sink {
public:
    explicit shadow_table(shadow_listener &listener);

    void link_changed(const link_record &record) override;
    void link_gone(uint32_t ifindex) override;
    void vlan_vnis_changed(uint32_t ifindex, const vni_by_vlan &vnis) override;
    void fdb_changed(const fdb_record &record) override;
    void fdb_dumped(const fdb_record &record) override;
    void fdb_gone(const fdb_record &record) override;
    void next_hop_gone(uint32_t id) override { listener_.next_hop_gone(id); }
    void changes_lost(uint64_t count) override { listener_.changes_lost(count); }
    void full_dump_begun() override;
    void full_dump_ended(bool clean) override;

    // The generation that runs or ended last.
    uint32_t generation() const { return static_cast<uint32_t>(generation_); }

    // The slot of an entry, gone ones included.
    uint32_t find(const fdb_key &key) const;
    const shadow_link *find_link(uint32_t ifindex) const;
    uint32_t find_domain(uint32_t bridge, uint16_t vlan) const;
    // The group of an address on a port.
    uint32_t find_group(const port_key &on, const mac_address &mac) const;

    // As fdb_gone, for an entry that is alive, whatever its port.
    void remove(uint32_t entry);

    // Ends the bridge domains of VLANs in which no port has an entry. A port of a VLAN-aware bridge has its own address
    // in each VLAN that it is a member of, so a bridge domain lives as long as its VLAN is configured or used.
    void end_empty_domains();

    // Gives up the slot of an entry that has gone.
    void release(uint32_t entry);

    // Every living entry, in no order.
    template <typename Visit>
    void for_each_entry(Visit visit)
    {
        for (uint32_t at = 0; at < entries.bound(); at++) {
            if (entries[at].alive) {
                visit(at);
            }
        }
    }

    template <typename Visit>
    void for_each_entry_of_port(uint32_t port, Visit visit)
    {
        for (uint32_t at = ports[port].first; at != no_slot;) {
            const uint32_t next = entries[at].next;
            visit(at);
            at = next;
        }
    }

    slot_pool<shadow_entry> entries;
    slot_pool<shadow_port> ports;
    slot_pool<shadow_domain> domains;
    slot_pool<shadow_group> groups;

    uint64_t living = 0;
    uint64_t unchanged = 0; // changes that were told and changed nothing but an age
    size_t known_links = 0;

private:
    shadow_link &link(uint32_t ifindex);
    void reshape_link(shadow_link &changed, const link_record &before);
    void follow_master(const shadow_link &changed, const link_record &before);
    bool follow_vlan_use(shadow_link &device);
    void follow_bridge(const shadow_link &bridge);
    void replace_entries(const shadow_link &changed, bool regroups);
    void end_empty_ports(const shadow_link &of);
    uint32_t group_vni(const port_key &on, const mac_address &mac) const;
    void end_ports(const shadow_link &of, bool (*ends)(const shadow_link &of, const shadow_port &port));
    void add_base_objects(const shadow_link &of);
    void add_base_port(const link_record &record);
    void tell_link_change(const shadow_link &changed, const link_record &before, bool first);
    void end_bridge(shadow_link &bridge);

    port_key place_of(const fdb_record &record) const;
    uint32_t port_at(const port_key &key);
    uint32_t domain_at(uint32_t bridge, uint16_t vlan);
    void end_port(uint32_t port);
    void end_domain(uint32_t domain);

    uint32_t add(const fdb_key &key);
    void update(uint32_t entry, const fdb_record &record);
    void enter(uint32_t entry, const fdb_record &record);
    uint32_t file(const fdb_record &record);
    void link_to_port(uint32_t entry, uint32_t port);
    void unlink_from_port(uint32_t entry);
    void join_group(uint32_t entry);
    void leave_group(uint32_t entry);
    void affect_group(uint32_t group, uint32_t except);
    void drop_untold_links();

    shadow_listener &listener_;
    std::unordered_map<uint32_t, shadow_link> links_;
    std::unordered_map<uint64_t, uint32_t> domains_by_key_;
    slot_index entries_by_key_;
    slot_index ports_by_key_;
    slot_index groups_by_key_;
    uint64_t generation_ = 0;
};

} // namespace forwarding
