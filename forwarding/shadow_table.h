// SPDX-License-Identifier: Apache-2.0

// The shadow table: links and entries as a forwarding plane reports them, and the ports, bridge domains and groups that
// follow from them. It is the sink of every plane. It reports each change to one listener, the feeder. It knows
// neither the module nor the host.
//
//      link ---- ports ----+                     a link has one port for each bridge domain and VNI
//        |                 v
//      domains ------->  port ---- entries       in the order in which they joined the port
//      (of a bridge)       ^          |
//                          |          +-- group  on VXLAN devices: the bridge's and the device's own entries for one
//                        domain                  address; the device's own entries come first
//
// Example: eth1 is a port of the VLAN-aware bridge br0 and has entries in the VLANs 10 and 20. The link br0 then has
// the domains (br0, 0), (br0, 10) and (br0, 20). The link eth1 has one port in each of them.
//
// Notes:
//  - Some entries belong to no bridge: receive filters, and the own entries of a VXLAN device without a bridge. They
//    are on a port that has no domain and whose master is 0.
//  - The bridge's own addresses are on a port whose interface is the bridge.
//  - An entry that has gone leaves its port but keeps its slot until the listener releases it. The listener must first
//    withdraw it from the cache. If the entry returns before that, it gets the same slot.
//  - An entry is small, because a million of them exist. What many entries have in common is held once (entry_terms),
//    and record_of puts an entry's record together.
//  - A port ends with its link. It also ends when the link changes its bridge, kind or VNI; the link then gets a new
//    port.
//
// Threads: only the plane's thread (plane.h) may call this module. It takes no lock.
#pragma once

#include <unordered_map>
#include <utility>
#include <vector>

#include "forwarding/plane.h"
#include "forwarding/slots.h"

namespace forwarding {

// What an entry has in common with many others: all of its record but the address, the state, the flags and the age.
struct entry_terms {
    uint32_t ifindex = 0;
    uint32_t master = 0;
    bool self = false;
    uint16_t vlan = 0;
    uint16_t edm_flags = 0;
    uint32_t source_vni = 0;
    fdb_destination destination = {};

    bool operator==(const entry_terms &) const = default;
};

uint32_t hash_of(const entry_terms &terms);

// A time of the steady clock in ms. It takes 48 bits, because a million entries have one each.
class packed_ms {
public:
    packed_ms() = default;
    packed_ms(int64_t ms) // implicit, as the conversion back: entries use it as a number
        : high_(static_cast<int16_t>(ms >> low_bits))
        , low_{static_cast<uint16_t>(ms >> part_bits), static_cast<uint16_t>(ms)}
    {}
    operator int64_t() const
    {
        return int64_t{high_} * (int64_t{1} << low_bits) + (uint32_t{low_[0]} << part_bits | low_[1]);
    }

private:
    static constexpr unsigned part_bits = 16;
    static constexpr unsigned low_bits = 32;

    int16_t high_ = 0;
    uint16_t low_[2] = {};
};

// Entries hold the number of a full dump in this many bits, and it wraps. Each time that half of the numbers are used,
// the shadow table moves the entries that are further behind, so that no old number looks like a new one.
inline constexpr unsigned full_dump_bits = 14;
inline constexpr uint32_t full_dump_mask = (uint32_t{1} << full_dump_bits) - 1;
inline constexpr uint32_t full_dump_period = uint32_t{1} << (full_dump_bits - 1);

// shadow_table::record_of and key_of return the parts of an entry as the plane reports them.
//
//      0          6      7      8            14          16      20     24     28     32       36
//      +----------+------+------+------------+-----------+-------+------+------+------+--------+
//      | mac      | state| flags| updated_ms | full dump | terms | port | next | prev | member |
//      +----------+------+------+------------+-----------+-------+------+------+------+--------+
struct shadow_entry {
    mac_address mac = {};
    uint8_t state = 0;                       // bits of fdb_record::state
    uint8_t flags = 0;                       // bits of fdb_record::flags
    packed_ms updated_ms;                    // as fdb_record::updated_ms
    uint16_t full_dump : full_dump_bits = 0; // number of the latest full dump when this entry was last reported
    uint16_t alive : 1 = 0;
    uint16_t dump_only : 1 = 0; // a full dump found it, and no change has reported it since
    uint32_t terms = no_slot;
    uint32_t port = no_slot; // set while it is alive
    uint32_t next = no_slot; // neighbours on the port
    uint32_t prev = no_slot;
    uint32_t member = no_slot; // its place in a group; set on a VXLAN device's port with a domain
};

static_assert(sizeof(shadow_entry) == 36, "a million of these exist");

struct port_key {
    uint32_t master = 0; // interface index of the bridge; 0: none
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

    // The listener sets the members below. `resume` is the entry at which the listener continues its pass over this
    // port. If that entry leaves the port, the shadow table sets `resume` to the next one.
    uint32_t resume = no_slot;
    uint32_t xcid = 0;
};

struct shadow_domain {
    uint32_t bridge = 0; // interface index
    uint16_t vlan = 0;
    std::vector<uint32_t> ports;
    uint16_t bridge_id = 0; // the listener sets it
};

struct shadow_link {
    link_record record;
    bool known = false;     // the plane reported it; false: only another record names it so far
    uint64_t full_dump = 0; // number of the latest full dump when this link was last reported
    std::vector<uint32_t> ports;
    std::vector<uint32_t> domains; // bridges only
    std::vector<uint32_t> members; // interface indexes of the links whose master it is
    vni_by_vlan vnis;
    std::unordered_map<uint32_t, uint16_t> vlans; // the inverse of `vnis`: the lowest VLAN of each VNI
    bool maps_vlans = false; // an external VXLAN device on a VLAN-aware bridge: `vnis` gives the VNI of each VLAN
};

// The entries for one address on one VXLAN device. `vni` decides which entries share a group:
//  - Flood lists: one group for each VNI, because each VNI has a port and a flood list of its own.
//  - Other addresses on a device that maps VLANs: one group for each VNI, because the VLAN of a bridge's entry decides
//    its VNI.
//  - Other addresses on any other device: one group for all VNIs, because nothing shows the VNI of a bridge's entry.
struct shadow_group {
    uint32_t vni = 0;         // the port's VNI if the group is for one VNI, otherwise 0
    uint32_t first = no_slot; // the device's own entries come before the bridge's
    uint32_t last = no_slot;
    uint32_t of_bridge = 0; // number of the bridge's entries
};

// The place of an entry in a group, for groups of three or more. Nearly all groups are pairs: an address of the device
// and the bridge's entry for it. The entries of a pair, or of a group with one entry, need no such place, because the
// group names them:
//
//      shadow_entry::member    in_pair | number of the group         a group that never had three entries
//                              number of the group_member            any other group
//                              no_slot                               in no group
inline constexpr uint32_t in_pair = uint32_t{1} << 31;

struct group_member {
    uint32_t group = no_slot;
    uint32_t next = no_slot; // neighbours in the group: entries
    uint32_t prev = no_slot;
};

// Takes the shadow table's reports. Each report comes after the change is made, on the plane's thread. The listener
// must not change the shadow table within a call.
class shadow_listener {
public:
    shadow_listener() = default;
    shadow_listener(const shadow_listener &) = delete;
    shadow_listener &operator=(const shadow_listener &) = delete;
    virtual ~shadow_listener() = default;

    // The entry is new, changed, moved or gone. A change of its age alone is reported by entry_confirmed.
    virtual void entry_touched(uint32_t entry) = 0;
    // The plane reported a living entry gone with this record. entry_touched follows at once.
    virtual void entry_gone(uint32_t /*entry*/, const fdb_record & /*record*/) {}
    // Another entry of its group was touched, so that the standing of this one may have changed.
    virtual void entry_affected(uint32_t entry) = 0;
    // The plane reported the entry again without a change. `has_aged` is true if only its time of last sight changed.
    virtual void entry_confirmed(uint32_t /*entry*/, bool /*has_aged*/) {}
    // A clean full dump did not report this living entry. The listener decides whether it has gone.
    virtual void entry_unreported(uint32_t /*entry*/) {}
    // A full dump reported the entry, and the shadow table did not hold it or held it differently.
    virtual void full_dump_differs(uint32_t /*entry*/) {}
    // These two pass on the plane's reports (plane.h).
    virtual void next_hop_gone(uint32_t /*id*/) {}
    virtual void changes_lost(uint64_t /*count*/) {}
    // Only ports that have a domain are reported. port_going and domain_going come while the record still exists; its
    // entries have left already.
    virtual void port_added(uint32_t port) = 0;
    // The link of the port has a new name or up state, or is reported for the first time.
    virtual void port_changed(uint32_t port) = 0;
    virtual void port_going(uint32_t port) = 0;
    virtual void domain_added(uint32_t domain) = 0;
    // The bridge of the domain has a new name, VLAN awareness or ageing time, or is reported for the first time.
    virtual void domain_changed(uint32_t domain) = 0;
    virtual void domain_going(uint32_t domain) = 0;
    virtual void full_dump_begun() {}
    virtual void full_dump_ended(bool clean) = 0;
};

// The sink of a plane. `listener` must outlive it. Parameters and results called `entry`, `port`, `domain` or `group`,
// here and in the listener, are slot numbers (slots.h).
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

    // The number of the running or latest full dump, as entries hold it.
    uint16_t full_dump() const { return full_dump_ & full_dump_mask; }
    // How many full dumps have begun after the one with a number that an entry holds. Exact below full_dump_period, and
    // at least full_dump_period - 1 for older ones.
    uint32_t dumps_behind(uint32_t number) const { return (full_dump() - number) & full_dump_mask; }

    // Returns the slot of an entry, whether it is alive or has gone; no_slot if there is none.
    uint32_t find(const fdb_key &key) const;
    // Returns null if the plane has not reported the link. The next report may make the pointer invalid.
    const shadow_link *find_link(uint32_t ifindex) const;
    uint32_t find_domain(uint32_t bridge, uint16_t vlan) const;
    // Returns the group of an address on a port, or no_slot.
    uint32_t find_group(const port_key &on, const mac_address &mac) const;

    // Return what the plane reported of an entry, alive or gone.
    fdb_record record_of(uint32_t entry) const;
    fdb_key key_of(uint32_t entry) const;
    const entry_terms &terms_of(uint32_t entry) const { return terms_[entries[entry].terms]; }
    // True if the record equals the entry's, or differs from it only in the time when the entry was last seen.
    bool equals_but_age(uint32_t entry, const fdb_record &record) const;

    // Walk the entries of a group: the first one, and the one behind another. no_slot: there is none.
    uint32_t first_of_group(uint32_t group) const { return group != no_slot ? groups[group].first : no_slot; }
    uint32_t next_of_group(uint32_t entry) const
    {
        const uint32_t member = entries[entry].member;
        if ((member & in_pair) == 0) {
            return members_[member].next;
        }
        const shadow_group &pair = groups[member & ~in_pair];
        return pair.first == entry && pair.last != entry ? pair.last : no_slot;
    }
    // The group of an entry, or no_slot.
    uint32_t group_of(uint32_t entry) const
    {
        const uint32_t member = entries[entry].member;
        if (member == no_slot) {
            return no_slot;
        }
        return (member & in_pair) != 0 ? member & ~in_pair : members_[member].group;
    }

    // Removes a living entry, whatever port it is on. The listener calls it when it is sure that the entry has gone.
    void remove(uint32_t entry);

    // Ends each VLAN's bridge domain in which no port has an entry; the bridge's own port counts too. The kernel enters
    // a port's local address in each of its VLANs. So a bridge domain lives as long as its VLAN is configured or used.
    void end_empty_domains();

    // Frees the slot of an entry that has gone. The listener calls it after it withdrew the entry from the cache.
    void release(uint32_t entry);

    // Visits every living entry, in no defined order.
    template <typename Visit>
    void for_each_entry(Visit visit)
    {
        for (uint32_t at = 0; at < entries.bound(); at++) {
            if (entries[at].alive) {
                visit(at);
            }
        }
    }

    // Visits the entries of a port in list order. Within `visit`, only the visited entry may leave the port.
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

    uint64_t living = 0;    // entries that are alive
    uint64_t unchanged = 0; // reports that changed an age at most, or removed an entry that was not there
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
    void report_link_change(const shadow_link &changed, const link_record &before, bool first);
    void end_bridge(shadow_link &bridge);

    port_key place_of(const fdb_record &record) const;
    uint32_t port_at(const port_key &key);
    uint32_t domain_at(uint32_t bridge, uint16_t vlan);
    void end_port(uint32_t port);
    void end_domain(uint32_t domain);

    bool equals_but_sight(uint32_t entry, const fdb_record &record) const;
    bool has_key(uint32_t entry, const fdb_key &key) const;
    void set_record(uint32_t entry, const fdb_record &record);
    uint32_t add(const fdb_key &key, const fdb_record &record);
    void update(uint32_t entry, const fdb_record &record);
    void enter(uint32_t entry, const fdb_record &record);
    uint32_t file(const fdb_record &record);
    void link_to_port(uint32_t entry, uint32_t port);
    void unlink_from_port(uint32_t entry);
    uint32_t group_for(const port_key &on, uint32_t entry);
    void join_group(uint32_t entry);
    bool is_pair(const shadow_group &group) const;
    void link_to_pair(uint32_t entry, uint32_t group);
    void end_pair(uint32_t group);
    void link_to_group(uint32_t entry, uint32_t group);
    void leave_group(uint32_t entry);
    void unlink_from_group(uint32_t member);
    void affect_group(uint32_t group, uint32_t except);
    void renumber_dumps();
    void drop_unreported_links();

    auto entry_hash() const;
    auto port_hash() const;
    auto group_hash() const;

    shadow_listener &listener_;
    std::unordered_map<uint32_t, shadow_link> links_;
    std::unordered_map<uint64_t, uint32_t> domains_by_key_;
    shared_values<entry_terms> terms_;
    slot_pool<group_member> members_;
    slot_index entries_by_key_;
    slot_index ports_by_key_;
    slot_index groups_by_key_;
    uint64_t full_dump_ = 0; // number of the running or latest full dump
};

} // namespace forwarding
