// SPDX-License-Identifier: Apache-2.0

#include "forwarding/shadow_table.h"

#include <algorithm>
#include <cstring>

namespace forwarding {
namespace {

constexpr mac_address zero_mac = {};

uint64_t number_of(const mac_address &mac)
{
    uint64_t number = 0;
    std::memcpy(&number, mac.data(), mac.size());
    return number;
}

uint32_t hash_of(uint32_t ifindex, uint32_t vni, const mac_address &mac)
{
    return fold(mix(mix(0, number_of(mac)), ifindex | (uint64_t{vni} << 32)));
}

uint64_t mix_destination(uint64_t hash, const fdb_destination &destination)
{
    uint64_t halves[2];
    std::memcpy(halves, destination.address.data(), sizeof(halves));
    hash = mix(mix(mix(hash, halves[0]), halves[1]), destination.next_hop);
    return mix(hash, destination.vni | (uint64_t{destination.port} << 32) | (uint64_t(destination.kind) << 48));
}

uint32_t hash_of(const fdb_key &key)
{
    uint64_t hash = mix(0, number_of(key.mac) | (uint64_t{key.vlan} << 48));
    hash = mix(hash, key.holder | (uint64_t{key.source_vni} << 32));
    if (key.destination.kind != destination_kind::none) {
        hash = mix_destination(hash, key.destination);
    }
    return fold(hash ^ (key.self ? 1u : 0u));
}

uint32_t hash_of(const port_key &key)
{
    const uint64_t hash = mix(0, key.master | (uint64_t{key.ifindex} << 32));
    return fold(mix(hash, key.vlan | (uint64_t{key.vni} << 16) | (uint64_t(key.kind) << 56)));
}

uint64_t domain_key(uint32_t bridge, uint16_t vlan)
{
    return (uint64_t{bridge} << 16) | vlan;
}

bool same_shape(const link_record &left, const link_record &right)
{
    return left.kind == right.kind && left.master == right.master && left.vni == right.vni
           && left.external == right.external;
}

bool is_bridge_own(const port_key &key)
{
    return key.ifindex == key.master;
}

uint32_t device_vni(const link_record &link)
{
    return link.kind == link_kind::vxlan && !link.external ? link.vni : 0;
}

// The VNI with which a device's port for a VLAN sends, as far as the device alone decides it. 0: each entry decides.
uint32_t port_vni(const shadow_link &device, uint16_t vlan)
{
    if (!device.maps_vlans) {
        return device_vni(device.record);
    }
    const auto found = device.vnis.find(vlan);
    return found != device.vnis.end() ? found->second : 0;
}

entry_terms terms_in(const fdb_record &record)
{
    return {record.ifindex,   record.master,     record.self,       record.vlan,
            record.edm_flags, record.source_vni, record.destination};
}

void drop(std::vector<uint32_t> &from, uint32_t value)
{
    const auto found = std::find(from.begin(), from.end(), value);
    if (found != from.end()) {
        *found = from.back();
        from.pop_back();
    }
}

} // namespace

uint32_t hash_of(const entry_terms &terms)
{
    uint64_t hash = mix(0, terms.ifindex | (uint64_t{terms.master} << 32));
    hash = mix(hash, terms.vlan | (uint64_t{terms.edm_flags} << 16) | (uint64_t{terms.source_vni} << 32));
    if (terms.destination.kind != destination_kind::none) {
        hash = mix_destination(hash, terms.destination);
    }
    return fold(hash ^ (terms.self ? 1u : 0u));
}

shadow_table::shadow_table(shadow_listener &listener)
    : listener_(listener)
{}

// What the indexes ask for the hashes of their slots.

auto shadow_table::entry_hash() const
{
    return [this](uint32_t entry) { return hash_of(key_of(entry)); };
}

auto shadow_table::port_hash() const
{
    return [this](uint32_t port) { return hash_of(ports[port].key); };
}

auto shadow_table::group_hash() const
{
    return [this](uint32_t group) {
        const uint32_t first = groups[group].first;
        return hash_of(terms_of(first).ifindex, groups[group].vni, entries[first].mac);
    };
}

// ---- Look-ups ----

uint32_t shadow_table::find(const fdb_key &key) const
{
    return entries_by_key_.find(hash_of(key), [&](uint32_t entry) { return has_key(entry, key); });
}

bool shadow_table::has_key(uint32_t entry, const fdb_key &key) const
{
    if (entries[entry].mac != key.mac) {
        return false;
    }
    const entry_terms &terms = terms_of(entry);
    const bool is_flood_list = terms.self && key.mac == zero_mac;
    return terms.self == key.self && terms.vlan == key.vlan && terms.source_vni == key.source_vni
           && (terms.self ? terms.ifindex : terms.master) == key.holder
           && (is_flood_list ? terms.destination : fdb_destination{}) == key.destination;
}

fdb_record shadow_table::record_of(uint32_t entry) const
{
    const shadow_entry &of = entries[entry];
    const entry_terms &terms = terms_of(entry);
    return {terms.ifindex, terms.master,    terms.self,       of.state,          of.flags,     terms.vlan,
            of.mac,        terms.edm_flags, terms.source_vni, terms.destination, of.updated_ms};
}

fdb_key shadow_table::key_of(uint32_t entry) const
{
    return forwarding::key_of(record_of(entry));
}

bool shadow_table::equals_but_age(uint32_t entry, const fdb_record &record) const
{
    const shadow_entry &known = entries[entry];
    return known.mac == record.mac && known.state == record.state && known.flags == record.flags
           && terms_of(entry) == terms_in(record);
}

// True if the record equals the entry's, or differs only in what a plane may change without a report: when the entry
// was last seen, and the state bits (reachable, stale) that follow from it.
bool shadow_table::equals_but_sight(uint32_t entry, const fdb_record &record) const
{
    constexpr unsigned by_sight = fdb_reachable | fdb_stale;
    fdb_record seen = record;
    seen.state = static_cast<uint8_t>((record.state & ~by_sight) | (entries[entry].state & by_sight));
    return equals_but_age(entry, seen);
}

const shadow_link *shadow_table::find_link(uint32_t ifindex) const
{
    const auto found = links_.find(ifindex);
    return found != links_.end() && found->second.known ? &found->second : nullptr;
}

uint32_t shadow_table::find_domain(uint32_t bridge, uint16_t vlan) const
{
    const auto found = domains_by_key_.find(domain_key(bridge, vlan));
    return found != domains_by_key_.end() ? found->second : no_slot;
}

// The VNI by which an address is grouped on a port; 0: one group for all VNIs of the device. See shadow_group for the
// rule.
uint32_t shadow_table::group_vni(const port_key &on, const mac_address &mac) const
{
    const shadow_link *device = find_link(on.ifindex);
    return mac == zero_mac || (device != nullptr && device->maps_vlans) ? on.vni : 0;
}

uint32_t shadow_table::find_group(const port_key &on, const mac_address &mac) const
{
    const uint32_t vni = group_vni(on, mac);
    return groups_by_key_.find(hash_of(on.ifindex, vni, mac), [&](uint32_t group) {
        const shadow_entry &first = entries[groups[group].first];
        return groups[group].vni == vni && first.mac == mac && ports[first.port].key.ifindex == on.ifindex;
    });
}

shadow_link &shadow_table::link(uint32_t ifindex)
{
    shadow_link &found = links_[ifindex];
    found.record.ifindex = ifindex;
    return found;
}

// ---- Links ----

void shadow_table::link_changed(const link_record &record)
{
    shadow_link &changed = link(record.ifindex);
    const link_record before = std::exchange(changed.record, record);
    const bool first = !std::exchange(changed.known, true);
    changed.full_dump = full_dump_;
    known_links += first ? 1 : 0;
    if (first || !same_shape(before, record)) {
        reshape_link(changed, before);
    } else if (before.vlan_aware != record.vlan_aware) {
        follow_bridge(changed);
    }
    report_link_change(changed, before, first);
}

void shadow_table::reshape_link(shadow_link &changed, const link_record &before)
{
    follow_master(changed, before);
    if (before.kind == link_kind::bridge && changed.record.kind != link_kind::bridge) {
        end_bridge(changed);
    }
    end_ports(changed, [](const shadow_link &of, const shadow_port &port) {
        return port.key.master != 0 && port.key.master != of.record.master && !is_bridge_own(port.key);
    });
    const bool regroups = follow_vlan_use(changed);
    replace_entries(changed, regroups);
    end_empty_ports(changed);
    follow_bridge(changed);
    add_base_objects(changed);
}

// Ends the ports without entries whose kind or VNI no longer agrees with the link and its VLAN map.
void shadow_table::end_empty_ports(const shadow_link &of)
{
    end_ports(of, [](const shadow_link &link, const shadow_port &port) {
        return port.entries == 0 && !is_bridge_own(port.key)
               && (port.key.kind != link.record.kind || port.key.vni != port_vni(link, port.key.vlan));
    });
}

// Updates whether a device maps VLANs, which also depends on its bridge. Returns true if that changed.
bool shadow_table::follow_vlan_use(shadow_link &device)
{
    const shadow_link *bridge = find_link(device.record.master);
    const bool maps = device.record.kind == link_kind::vxlan && device.record.external && bridge != nullptr
                      && bridge->record.vlan_aware;
    return std::exchange(device.maps_vlans, maps) != maps;
}

void shadow_table::follow_bridge(const shadow_link &bridge)
{
    for (const uint32_t member : bridge.members) {
        shadow_link &device = link(member);
        if (device.known && follow_vlan_use(device)) {
            replace_entries(device, true);
            end_empty_ports(device);
        }
    }
}

void shadow_table::vlan_vnis_changed(uint32_t ifindex, const vni_by_vlan &vnis)
{
    shadow_link &device = link(ifindex);
    device.vnis = vnis;
    device.vlans.clear();
    for (const auto &[vlan, vni] : vnis) {
        device.vlans.emplace(vni, vlan); // emplace keeps the lowest of several VLANs with one VNI
    }
    if (device.known) {
        replace_entries(device, false);
        end_empty_ports(device);
    } else if (vnis.empty() && device.members.empty()) {
        links_.erase(ifindex);
    }
}

void shadow_table::follow_master(const shadow_link &changed, const link_record &before)
{
    if (before.master != 0) {
        drop(link(before.master).members, changed.record.ifindex);
    }
    if (changed.record.master != 0) {
        link(changed.record.master).members.push_back(changed.record.ifindex);
    }
}

// Moves each entry of a changed link to the port where it belongs now. If `regroups`, every entry also leaves its group
// and joins the one that the rule of shadow_group now gives it.
void shadow_table::replace_entries(const shadow_link &changed, bool regroups)
{
    std::vector<uint32_t> misplaced;
    for (const uint32_t port : changed.ports) {
        for_each_entry_of_port(port, [&](uint32_t entry) {
            if (regroups || place_of(record_of(entry)) != ports[port].key) {
                misplaced.push_back(entry);
            }
        });
    }
    for (const uint32_t entry : misplaced) {
        unlink_from_port(entry);
        link_to_port(entry, port_at(place_of(record_of(entry))));
        listener_.entry_touched(entry);
        affect_group(group_of(entry), entry);
    }
}

void shadow_table::end_ports(const shadow_link &of, bool (*ends)(const shadow_link &of, const shadow_port &port))
{
    const std::vector<uint32_t> candidates = of.ports;
    for (const uint32_t port : candidates) {
        if (ends(of, ports[port])) {
            end_port(port);
        }
    }
}

// Creates the domain and ports of VLAN 0, so that answers show a bridge and its ports before they have entries.
void shadow_table::add_base_objects(const shadow_link &of)
{
    const link_record &record = of.record;
    if (record.kind == link_kind::bridge) {
        domain_at(record.ifindex, 0);
        for (const uint32_t member : of.members) {
            add_base_port(link(member).record);
        }
    }
    add_base_port(record);
}

void shadow_table::add_base_port(const link_record &record)
{
    const shadow_link *master = find_link(record.master);
    if (master != nullptr && master->record.kind == link_kind::bridge) {
        port_at({record.master, record.ifindex, record.kind, 0, device_vni(record)});
    }
}

void shadow_table::report_link_change(const shadow_link &changed, const link_record &before, bool first)
{
    const bool renamed = first || before.name != changed.record.name;
    if (renamed || before.vlan_aware != changed.record.vlan_aware || before.ageing_ms != changed.record.ageing_ms) {
        for (const uint32_t domain : changed.domains) {
            listener_.domain_changed(domain);
        }
    }
    if (renamed || before.up != changed.record.up) {
        for (const uint32_t port : changed.ports) {
            if (ports[port].domain != no_slot) {
                listener_.port_changed(port);
            }
        }
    }
}

void shadow_table::link_gone(uint32_t ifindex)
{
    const auto found = links_.find(ifindex);
    if (found == links_.end()) {
        return;
    }
    shadow_link &gone = found->second;
    const link_record before = gone.record;
    known_links -= gone.known ? 1 : 0;
    gone.known = false;
    gone.record = {};
    gone.record.ifindex = ifindex;
    gone.vnis.clear();
    gone.vlans.clear();
    gone.maps_vlans = false;
    follow_master(gone, before);
    end_bridge(gone);
    end_ports(gone, [](const shadow_link &, const shadow_port &) { return true; });
    if (gone.members.empty()) {
        links_.erase(ifindex);
    }
}

void shadow_table::end_bridge(shadow_link &bridge)
{
    for (const uint32_t domain : std::vector<uint32_t>(bridge.domains)) {
        end_domain(domain);
    }
}

// ---- Ports and domains ----

// The port to which an entry belongs. Of devices' own entries, only those of a VXLAN device belong to a bridge.
port_key shadow_table::place_of(const fdb_record &record) const
{
    const shadow_link *on = find_link(record.ifindex);
    const link_kind kind = on != nullptr ? on->record.kind : link_kind::other;
    port_key key{record.master, record.ifindex, kind, record.vlan, 0};
    if (record.self) {
        key.master = kind == link_kind::vxlan ? on->record.master : 0;
    }
    if (kind == link_kind::vxlan && on->record.external && record.self) {
        const auto vlan = on->maps_vlans ? on->vlans.find(record.source_vni) : on->vlans.end();
        key.vlan = vlan != on->vlans.end() ? vlan->second : uint16_t{0};
        key.vni = record.source_vni;
    } else if (kind == link_kind::vxlan) {
        key.vni = port_vni(*on, record.vlan);
    }
    if (key.master == 0) {
        return {0, record.ifindex, kind, 0, 0};
    }
    return key;
}

uint32_t shadow_table::port_at(const port_key &key)
{
    const uint32_t found = ports_by_key_.find(hash_of(key), [&](uint32_t port) { return ports[port].key == key; });
    if (found != no_slot) {
        return found;
    }
    const uint32_t port = ports.take();
    ports[port].key = key;
    ports_by_key_.insert(hash_of(key), port, port_hash());
    link(key.ifindex).ports.push_back(port);
    if (key.master != 0) {
        ports[port].domain = domain_at(key.master, key.vlan);
        domains[ports[port].domain].ports.push_back(port);
        listener_.port_added(port);
    }
    return port;
}

uint32_t shadow_table::domain_at(uint32_t bridge, uint16_t vlan)
{
    const auto [place, added] = domains_by_key_.try_emplace(domain_key(bridge, vlan), no_slot);
    if (added) {
        const uint32_t domain = domains.take();
        place->second = domain;
        domains[domain].bridge = bridge;
        domains[domain].vlan = vlan;
        link(bridge).domains.push_back(domain);
        listener_.domain_added(domain);
        return domain;
    }
    return place->second;
}

void shadow_table::end_port(uint32_t port)
{
    for_each_entry_of_port(port, [&](uint32_t entry) { remove(entry); });
    if (ports[port].domain != no_slot) {
        listener_.port_going(port);
        drop(domains[ports[port].domain].ports, port);
    }
    drop(link(ports[port].key.ifindex).ports, port);
    ports_by_key_.erase(hash_of(ports[port].key), port, port_hash());
    ports.give_back(port);
}

void shadow_table::end_domain(uint32_t domain)
{
    for (const uint32_t port : std::vector<uint32_t>(domains[domain].ports)) {
        end_port(port);
    }
    listener_.domain_going(domain);
    const shadow_domain &going = domains[domain];
    drop(link(going.bridge).domains, domain);
    domains_by_key_.erase(domain_key(going.bridge, going.vlan));
    domains.give_back(domain);
}

void shadow_table::end_empty_domains()
{
    std::vector<uint32_t> empty;
    for (const auto &[key, domain] : domains_by_key_) {
        const bool has_entries =
            std::ranges::any_of(domains[domain].ports, [this](uint32_t port) { return ports[port].entries != 0; });
        if (domains[domain].vlan != 0 && !has_entries) {
            empty.push_back(domain);
        }
    }
    for (const uint32_t domain : empty) {
        end_domain(domain);
    }
}

// ---- Entries ----

void shadow_table::fdb_changed(const fdb_record &record)
{
    entries[file(record)].dump_only = false;
}

void shadow_table::fdb_dumped(const fdb_record &record)
{
    const uint32_t known = find(forwarding::key_of(record));
    const bool differs = known == no_slot || !entries[known].alive || !equals_but_sight(known, record);
    const uint32_t entry = file(record);
    if (differs) {
        entries[entry].dump_only = true;
        listener_.full_dump_differs(entry);
    }
}

// Stores a reported entry, new or known. Returns its slot.
uint32_t shadow_table::file(const fdb_record &record)
{
    const fdb_key key = forwarding::key_of(record);
    const uint32_t found = find(key);
    const uint32_t entry = found != no_slot ? found : add(key, record);
    entries[entry].full_dump = full_dump() & full_dump_mask;
    if (entries[entry].alive) {
        update(entry, record);
        return entry;
    }
    if (found != no_slot) {
        set_record(entry, record);
    }
    enter(entry, record);
    return entry;
}

void shadow_table::fdb_gone(const fdb_record &record)
{
    const uint32_t entry = find(forwarding::key_of(record));
    if (entry == no_slot || !entries[entry].alive || terms_of(entry).ifindex != record.ifindex) {
        unchanged++;
        return;
    }
    listener_.entry_gone(entry, record);
    remove(entry);
}

// Stores a new entry, which is not alive yet.
uint32_t shadow_table::add(const fdb_key &key, const fdb_record &record)
{
    const uint32_t entry = entries.take();
    set_record(entry, record);
    entries_by_key_.insert(hash_of(key), entry, entry_hash());
    return entry;
}

void shadow_table::set_record(uint32_t entry, const fdb_record &record)
{
    shadow_entry &to = entries[entry];
    const entry_terms terms = terms_in(record);
    if (to.terms == no_slot || terms_[to.terms] != terms) {
        const uint32_t before = std::exchange(to.terms, terms_.join(terms));
        if (before != no_slot) {
            terms_.leave(before);
        }
    }
    to.mac = record.mac;
    to.state = record.state;
    to.flags = record.flags;
    to.updated_ms = record.updated_ms;
}

void shadow_table::enter(uint32_t entry, const fdb_record &record)
{
    entries[entry].alive = true;
    living++;
    link_to_port(entry, port_at(place_of(record)));
    listener_.entry_touched(entry);
    affect_group(group_of(entry), entry);
}

void shadow_table::update(uint32_t entry, const fdb_record &record)
{
    shadow_entry &known = entries[entry];
    if (equals_but_age(entry, record)) {
        unchanged++;
        const bool has_aged = record.updated_ms != 0 && record.updated_ms != known.updated_ms;
        if (has_aged) {
            known.updated_ms = record.updated_ms;
        }
        listener_.entry_confirmed(entry, has_aged);
        return;
    }
    set_record(entry, record);
    const uint32_t group_before = group_of(entry);
    const uint32_t port = port_at(place_of(record));
    if (port != known.port) {
        unlink_from_port(entry);
        link_to_port(entry, port);
        affect_group(group_before, entry);
    }
    listener_.entry_touched(entry);
    affect_group(group_of(entry), entry);
}

void shadow_table::remove(uint32_t entry)
{
    shadow_entry &gone = entries[entry];
    const uint32_t group = group_of(entry);
    unlink_from_port(entry);
    gone.alive = false;
    gone.dump_only = false;
    living--;
    listener_.entry_touched(entry);
    affect_group(group, entry);
}

void shadow_table::release(uint32_t entry)
{
    entries_by_key_.erase(hash_of(key_of(entry)), entry, entry_hash());
    terms_.leave(entries[entry].terms);
    entries.give_back(entry);
}

void shadow_table::link_to_port(uint32_t entry, uint32_t port)
{
    shadow_entry &added = entries[entry];
    shadow_port &to = ports[port];
    added.port = port;
    added.prev = to.last;
    added.next = no_slot;
    (to.last != no_slot ? entries[to.last].next : to.first) = entry;
    to.last = entry;
    to.entries++;
    if (to.key.kind == link_kind::vxlan && to.domain != no_slot) {
        join_group(entry);
    }
}

void shadow_table::unlink_from_port(uint32_t entry)
{
    shadow_entry &removed = entries[entry];
    shadow_port &from = ports[removed.port];
    leave_group(entry);
    (removed.prev != no_slot ? entries[removed.prev].next : from.first) = removed.next;
    (removed.next != no_slot ? entries[removed.next].prev : from.last) = removed.prev;
    from.resume = from.resume == entry ? removed.next : from.resume;
    removed.port = removed.next = removed.prev = no_slot;
    from.entries--;
}

// ---- Groups ----

// Returns the group that an entry joins on a port. A new one has no entries yet.
uint32_t shadow_table::group_for(const port_key &on, uint32_t entry)
{
    const mac_address &mac = entries[entry].mac;
    const uint32_t found = find_group(on, mac);
    if (found != no_slot) {
        return found;
    }
    const uint32_t group = groups.take();
    groups[group].vni = group_vni(on, mac);
    groups_by_key_.insert(hash_of(on.ifindex, groups[group].vni, mac), group, group_hash());
    return group;
}

void shadow_table::join_group(uint32_t entry)
{
    const uint32_t group = group_for(ports[entries[entry].port].key, entry);
    const shadow_group &to = groups[group];
    if (is_pair(to) && to.first == to.last) {
        link_to_pair(entry, group);
    } else {
        if (is_pair(to)) {
            end_pair(group);
        }
        entries[entry].member = members_.take();
        link_to_group(entry, group);
    }
    groups[group].of_bridge += terms_of(entry).self ? 0U : 1U;
}

// Whether the entries of a group have no group_member; so in a group without entries.
bool shadow_table::is_pair(const shadow_group &group) const
{
    return group.first == no_slot || (entries[group.first].member & in_pair) != 0;
}

// Adds an entry to a group of one entry or none.
void shadow_table::link_to_pair(uint32_t entry, uint32_t group)
{
    shadow_group &to = groups[group];
    const bool is_only = to.first == no_slot;
    const bool in_front = terms_of(entry).self;
    to.first = is_only || in_front ? entry : to.first;
    to.last = is_only || !in_front ? entry : to.last;
    entries[entry].member = group | in_pair;
}

// Gives the two entries of a pair a group_member each, before a third one joins.
void shadow_table::end_pair(uint32_t group)
{
    const uint32_t first = groups[group].first;
    const uint32_t last = groups[group].last;
    const uint32_t of_first = members_.take();
    const uint32_t of_last = members_.take();
    members_[of_first] = {group, last, no_slot};
    members_[of_last] = {group, no_slot, first};
    entries[first].member = of_first;
    entries[last].member = of_last;
}

void shadow_table::link_to_group(uint32_t entry, uint32_t group)
{
    const auto member_of = [this](uint32_t of) -> group_member & { return members_[entries[of].member]; };
    shadow_group &to = groups[group];
    const bool in_front = terms_of(entry).self;
    group_member &joining = member_of(entry);
    joining.group = group;
    joining.next = in_front ? to.first : no_slot;
    joining.prev = in_front ? no_slot : to.last;
    (joining.next != no_slot ? member_of(joining.next).prev : to.last) = entry;
    (joining.prev != no_slot ? member_of(joining.prev).next : to.first) = entry;
}

void shadow_table::leave_group(uint32_t entry)
{
    const uint32_t group = group_of(entry);
    if (group == no_slot) {
        return;
    }
    shadow_group &from = groups[group];
    const uint32_t member = std::exchange(entries[entry].member, no_slot);
    if ((member & in_pair) == 0) {
        unlink_from_group(member);
    } else {
        const uint32_t other = from.first == entry ? from.last : from.first;
        from.first = from.last = other != entry ? other : no_slot;
    }
    from.of_bridge -= terms_of(entry).self ? 0U : 1U;
    if (from.first == no_slot) {
        const uint32_t ifindex = ports[entries[entry].port].key.ifindex;
        groups_by_key_.erase(hash_of(ifindex, from.vni, entries[entry].mac), group, group_hash());
        groups.give_back(group);
    }
}

// Takes an entry with a group_member out of its group.
void shadow_table::unlink_from_group(uint32_t member)
{
    const auto member_of = [this](uint32_t of) -> group_member & { return members_[entries[of].member]; };
    const group_member leaving = members_[member];
    shadow_group &from = groups[leaving.group];
    (leaving.prev != no_slot ? member_of(leaving.prev).next : from.first) = leaving.next;
    (leaving.next != no_slot ? member_of(leaving.next).prev : from.last) = leaving.prev;
    members_.give_back(member);
}

// Reports that the entries of a group, except one, may have changed their standing: each depends on the others. A flood
// list may be long, but its standings depend only on which entry is first. So two reports suffice: the entry that is
// first now, and the one behind it, which was first if a new entry joined in front.
void shadow_table::affect_group(uint32_t group, uint32_t except)
{
    const uint32_t first = first_of_group(group);
    uint32_t left = first != no_slot && entries[first].mac == zero_mac ? 2 : UINT32_MAX;
    for (uint32_t entry = first; entry != no_slot && left != 0; entry = next_of_group(entry)) {
        if (entry != except) {
            listener_.entry_affected(entry);
        }
        left--;
    }
}

// ---- Full dumps ----

void shadow_table::full_dump_begun()
{
    full_dump_++;
    if (full_dump_ % full_dump_period == 0) {
        renumber_dumps();
    }
    listener_.full_dump_begun();
}

// See full_dump_bits. Only entries that no full dump reports, and whose dumps did not end clean, are that far behind.
void shadow_table::renumber_dumps()
{
    for_each_entry([this](uint32_t entry) {
        const uint32_t behind = std::min(dumps_behind(entries[entry].full_dump), full_dump_period - 1);
        entries[entry].full_dump = (full_dump() - behind) & full_dump_mask;
    });
}

void shadow_table::full_dump_ended(bool clean)
{
    if (clean) {
        drop_unreported_links();
        for_each_entry([&](uint32_t entry) {
            if (entries[entry].full_dump != full_dump()) {
                listener_.entry_unreported(entry);
            }
        });
    }
    listener_.full_dump_ended(clean);
}

void shadow_table::drop_unreported_links()
{
    std::vector<uint32_t> gone;
    for (const auto &[ifindex, link] : links_) {
        if (link.known && link.full_dump != full_dump_) {
            gone.push_back(ifindex);
        }
    }
    for (const uint32_t ifindex : gone) {
        link_gone(ifindex);
    }
}

} // namespace forwarding
