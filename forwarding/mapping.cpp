// SPDX-License-Identifier: Apache-2.0

#include "forwarding/mapping.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "l2fm_edm_table.h"

namespace forwarding {

// ---- Names ----

bool name_can_carry(char character)
{
    const auto code = static_cast<unsigned char>(character);
    return character != ',' && character != ':' && std::isspace(code) == 0 && std::iscntrl(code) == 0;
}

std::string bridge_domain_part(std::string_view bridge, uint16_t vlan)
{
    const std::string suffix = vlan != 0 ? "." + std::to_string(vlan) : std::string();
    std::string part(bridge.substr(0, max_bridge_name - suffix.size()));
    std::replace_if(
        part.begin(), part.end(), [](char each) { return !name_can_carry(each); }, '_');
    return part + suffix;
}

// ---- Ports ----

namespace {

// Places in a VXLAN segment's field.
constexpr size_t vxlan_vni = 0;
constexpr size_t vxlan_device = 3;

} // namespace

host::cross_connect cross_connect_of(const shadow_port &port)
{
    host::cross_connect values;
    switch (port.key.kind) {
    case link_kind::vxlan:
        values.first.type = L2FIB_SEGMENT_VXLAN;
        values.first.vxlan_54[vxlan_vni] = port.key.vni;
        values.first.vxlan_54[vxlan_device] = port.key.ifindex;
        break;
    case link_kind::tunnel: values.first.type = L2FIB_SEGMENT_4; break;
    default:
        values.first.type = L2FIB_SEGMENT_INTERFACE;
        values.first.interface_handle = port.key.ifindex;
        values.first.interface_3 = port.key.ifindex;
        values.first.interface_sub_kind = port.key.vlan != 0 ? L2FIB_INTERFACE_SUB_KIND_23 : 0;
        values.first.interface_sub_value = port.key.vlan;
        break;
    }
    return values;
}

// ---- Flags ----

namespace {

constexpr uint16_t inactive_bit = 0x0001; // of ext_flags

// The entries to which a rule applies.
constexpr unsigned of_bridge = 1; // the bridge's own address
constexpr unsigned of_port = 2;   // the bridge's entry on a port
constexpr unsigned of_device = 4; // a device's own entry
constexpr unsigned of_any = of_bridge | of_port | of_device;

struct flag_rule {
    unsigned applies_to;
    uint8_t state; // the record has one of these bits; 0: any state
    uint8_t flags; // the record has one of these bits; 0: any flags
    uint16_t gives;
};

constexpr flag_rule flag_rules[] = {
    {of_bridge, 0, 0, EDM_MAC_BD_OWN | EDM_MAC_LOCAL}, {of_port, fdb_permanent, 0, EDM_MAC_LOCAL},
    {of_port, fdb_noarp, 0, EDM_MAC_STATIC},           {of_device, fdb_permanent | fdb_noarp, 0, EDM_MAC_STATIC},
    {of_any, 0, fdb_sticky, EDM_MAC_STICKY},           {of_any, 0, fdb_extern_learn, EDM_MAC_EXTERN_LEARNED},
    {of_any, 0, fdb_offloaded, EDM_MAC_OFFLOADED},     {of_any, 0, fdb_locked, EDM_MAC_LOCKED},
};

// Bits that a recorded table may add.
constexpr uint16_t addable_flags =
    EDM_MAC_PBB | EDM_MAC_BD_FIXED | EDM_MAC_BD_40 | EDM_MAC_BD_200 | EDM_MAC_BD_400 | EDM_MAC_4000;

bool matches(uint8_t bits, uint8_t wanted)
{
    return wanted == 0 || (bits & wanted) != 0;
}

// Returns the EDM_MAC_ bits of an entry, without those of its destination and time.
uint16_t flags_of(const shadow_entry &entry, const entry_terms &terms)
{
    const unsigned kind = terms.self ? of_device : terms.ifindex == terms.master ? of_bridge : of_port;
    uint32_t flags = terms.edm_flags & addable_flags;
    for (const flag_rule &rule : flag_rules) {
        if ((rule.applies_to & kind) != 0 && matches(entry.state, rule.state) && matches(entry.flags, rule.flags)) {
            flags |= rule.gives;
        }
    }
    return static_cast<uint16_t>(flags);
}

} // namespace

// ---- Entries ----

namespace {

constexpr const char *standing_texts[] = {
    nullptr, // none
    nullptr, // fed
    nullptr, // joined
    nullptr, // of_flood_list
    "VXLAN device's own entry for an address that its bridge does not hold there",
    "receive filter",
    "VXLAN device without a bridge",
    "bridge that is not known by a name",
    "bridge domain or port without an id",
};
static_assert(std::size(standing_texts) == static_cast<size_t>(standing::count));

constexpr mac_address zero_mac = {};
constexpr int64_t ms_per_second = 1000;

// Returns the device's own entry that is joined with a bridge's entry on a VXLAN device, or no_slot.
uint32_t joined_entry(const shadow_table &shadow, uint32_t entry)
{
    const uint32_t first = shadow.first_of_group(shadow.group_of(entry));
    const bool may_join =
        first != no_slot && !shadow.terms_of(entry).self && (shadow.entries[entry].state & fdb_permanent) == 0;
    return may_join && shadow.terms_of(first).self ? first : no_slot;
}

// The bridge decides where it forwards an address. The device's own entry only adds the tunnel end point, so it is not
// fed without the bridge's entry. The flood list is fed by its first entry.
standing standing_of_own(const shadow_table &shadow, uint32_t entry)
{
    const shadow_group &group = shadow.groups[shadow.group_of(entry)];
    if (shadow.entries[entry].mac == zero_mac) {
        return group.first == entry ? standing::fed : standing::of_flood_list;
    }
    return group.of_bridge != 0 ? standing::joined : standing::unpaired;
}

void set_timestamp(const shadow_entry &entry, int64_t epoch_offset_ms, l2fib_mac_edm_entry_t &to)
{
    if ((to.flags & (EDM_MAC_STATIC | EDM_MAC_LOCAL)) == 0 && entry.updated_ms != 0) {
        to.flags |= EDM_MAC_TIMESTAMP_VALID;
        to.hw_timestamp = static_cast<uint32_t>((entry.updated_ms + epoch_offset_ms) / ms_per_second);
    }
}

void set_destination(const fdb_destination &destination, l2fib_mac_edm_entry_t &to)
{
    switch (destination.kind) {
    case destination_kind::ipv4:
        to.flags |= EDM_MAC_VNI;
        std::memcpy(to.vtep_addr, destination.address.data(), sizeof(to.vtep_addr));
        break;
    case destination_kind::backbone:
        to.flags |= EDM_MAC_PBB;
        std::memcpy(to.bmac_addr, destination.address.data(), sizeof(to.bmac_addr));
        break;
    default: break;
    }
}

void build(const shadow_table &shadow, uint32_t at, int64_t epoch_offset_ms, l2fib_mac_edm_entry_t &to)
{
    const shadow_entry &entry = shadow.entries[at];
    const entry_terms &terms = shadow.terms_of(at);
    const shadow_port &port = shadow.ports[entry.port];
    to = {};
    to.flags = flags_of(entry, terms);
    to.ext_flags = (entry.flags & fdb_inactive) != 0 ? inactive_bit : 0;
    to.ext_attr = terms.vlan;
    to.xcid = port.xcid;
    to.bridge_id = shadow.domains[port.domain].bridge_id;
    std::memcpy(to.mac_addr, entry.mac.data(), sizeof(to.mac_addr));
    set_timestamp(entry, epoch_offset_ms, to);
    set_destination(terms.destination, to);
    if (const uint32_t joined = joined_entry(shadow, at); joined != no_slot) {
        set_destination(shadow.terms_of(joined).destination, to);
    }
}

} // namespace

const entry_terms *tunnel_terms_of(const shadow_table &shadow, uint32_t entry)
{
    const entry_terms &terms = shadow.terms_of(entry);
    if (terms.self) {
        return &terms;
    }
    const uint32_t joined = joined_entry(shadow, entry);
    return joined != no_slot ? &shadow.terms_of(joined) : nullptr;
}

uint16_t flags_of(const shadow_table &shadow, uint32_t entry)
{
    return flags_of(shadow.entries[entry], shadow.terms_of(entry));
}

const fdb_destination &destination_of(const shadow_table &shadow, uint32_t entry)
{
    const entry_terms *tunnel = tunnel_terms_of(shadow, entry);
    return (tunnel != nullptr ? *tunnel : shadow.terms_of(entry)).destination;
}

const char *text_of(standing standing)
{
    return standing_texts[static_cast<size_t>(standing)];
}

standing standing_of(const shadow_table &shadow, uint32_t entry)
{
    const shadow_entry &of = shadow.entries[entry];
    if (!of.alive) {
        return standing::none;
    }
    const shadow_port &port = shadow.ports[of.port];
    if (port.domain == no_slot) {
        return port.key.kind == link_kind::vxlan ? standing::without_bridge : standing::receive_filter;
    }
    if (shadow.domains[port.domain].bridge_id == 0 || port.xcid == 0) {
        return shadow.find_link(port.key.master) == nullptr ? standing::without_name : standing::without_id;
    }
    return shadow.terms_of(entry).self ? standing_of_own(shadow, entry) : standing::fed;
}

standing describe(const shadow_table &shadow, uint32_t entry, int64_t epoch_offset_ms,
                  l2fib_mac_edm_entry_t &descriptor)
{
    const standing found = standing_of(shadow, entry);
    if (found == standing::fed || found == standing::of_flood_list) {
        build(shadow, entry, epoch_offset_ms, descriptor);
    }
    return found;
}

} // namespace forwarding
