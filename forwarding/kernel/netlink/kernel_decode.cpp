// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/netlink/kernel_decode.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

namespace forwarding {

namespace {

// Bits that the headers of the oldest supported systems lack.
constexpr uint32_t ntf_ext_locked = 1U << 1;          // NTF_EXT_LOCKED
constexpr uint8_t activity_notify_inactive = 1U << 1; // FDB_NOTIFY_INACTIVE_BIT

constexpr int64_t ms_per_second = 1000;
constexpr uint32_t ms_per_ageing_tick = 10;  // ageing times are in hundredths of a second on every kernel
constexpr size_t ipv4_size = 4;              // bytes of an address
constexpr int max_error_number = 4095;       // the kernel's MAX_ERRNO
constexpr size_t max_attribute = UINT16_MAX; // bytes

// An attribute where it lies in the message.
struct attribute {
    uint16_t type;
    std::span<const std::byte> payload;
};

// Returns false if the payload is not exactly as long as `value`.
template <typename Value>
bool read(std::span<const std::byte> payload, Value &value)
{
    if (payload.size() != sizeof(value)) {
        return false;
    }
    std::memcpy(&value, payload.data(), sizeof(value));
    return true;
}

// Returns the text before the first zero byte; nothing if that is empty or no zero byte follows.
std::optional<std::string_view> read_text(std::span<const std::byte> payload)
{
    const std::string_view text(reinterpret_cast<const char *>(payload.data()), payload.size());
    const size_t end = text.find('\0');
    if (end == text.npos || end == 0) {
        return std::nullopt;
    }
    return text.substr(0, end);
}

// Calls handle(attribute) for each attribute, until it returns false. Returns false then, and also if the rest of the
// level is no whole attribute. Written here, because libmnl makes four calls of a shared library for each attribute.
// They took half of the time to decode a dump.
template <typename Handle>
bool each_attribute(std::span<const std::byte> level, Handle handle)
{
    while (level.size() >= sizeof(nlattr)) {
        nlattr head;
        std::memcpy(&head, level.data(), sizeof(head));
        if (head.nla_len < sizeof(head) || head.nla_len > level.size()) {
            return false;
        }
        const auto type = static_cast<uint16_t>(head.nla_type & NLA_TYPE_MASK);
        if (!handle(attribute{type, level.subspan(sizeof(head), head.nla_len - sizeof(head))})) {
            return false;
        }
        level = level.subspan(std::min<size_t>(NLA_ALIGN(head.nla_len), level.size()));
    }
    return level.empty();
}

// ---- Links ----

constexpr struct {
    std::string_view name;
    link_kind kind;
} link_kinds[] = {
    {"bridge", link_kind::bridge},    {"vxlan", link_kind::vxlan},   {"gretap", link_kind::tunnel},
    {"ip6gretap", link_kind::tunnel}, {"erspan", link_kind::tunnel}, {"ip6erspan", link_kind::tunnel},
    {"geneve", link_kind::tunnel},
};

bool read_flag(std::span<const std::byte> payload, bool &flag)
{
    uint8_t value = 0;
    if (!read(payload, value)) {
        return false;
    }
    flag = value != 0;
    return true;
}

bool read_ageing_time(std::span<const std::byte> payload, uint32_t &ageing_ms)
{
    uint32_t ticks = 0;
    const bool fits = read(payload, ticks);
    ageing_ms = ageing_ms_of(ticks);
    return fits;
}

bool read_bridge_attribute(const attribute &found, link_record &link)
{
    switch (found.type) {
    case IFLA_BR_VLAN_FILTERING: return read_flag(found.payload, link.vlan_aware);
    case IFLA_BR_VLAN_PROTOCOL: link.can_filter_vlans = true; return true; // only kernels with VLAN filtering send it
    case IFLA_BR_AGEING_TIME: return read_ageing_time(found.payload, link.ageing_ms);
    default: return true;
    }
}

bool read_vxlan_attribute(const attribute &found, link_record &link)
{
    switch (found.type) {
    case IFLA_VXLAN_ID: return read(found.payload, link.vni);
    case IFLA_VXLAN_COLLECT_METADATA: return read_flag(found.payload, link.external);
    default: return true;
    }
}

// Reads the attributes that depend on the kind of a link. The kernel puts the kind before the data.
bool read_link_info(std::span<const std::byte> info, link_record &link)
{
    return each_attribute(info, [&link](const attribute &found) {
        if (found.type == IFLA_INFO_KIND) {
            const auto name = read_text(found.payload);
            link.kind = link_kind_named(name.value_or(""));
            return name.has_value();
        }
        if (found.type != IFLA_INFO_DATA || (link.kind != link_kind::bridge && link.kind != link_kind::vxlan)) {
            return true;
        }
        const auto read_attribute = link.kind == link_kind::bridge ? read_bridge_attribute : read_vxlan_attribute;
        return each_attribute(found.payload,
                              [&link, read_attribute](const attribute &inner) { return read_attribute(inner, link); });
    });
}

bool read_link_name(std::span<const std::byte> payload, link_record &link)
{
    const auto name = read_text(payload);
    if (!name || name->size() >= IFNAMSIZ) {
        return false;
    }
    link.name = *name;
    return true;
}

bool read_link_attribute(const attribute &found, link_record &link)
{
    switch (found.type) {
    case IFLA_IFNAME: return read_link_name(found.payload, link);
    case IFLA_MASTER: return read(found.payload, link.master);
    case IFLA_LINKINFO: return read_link_info(found.payload, link);
    case IFLA_ADDRESS: // layer-3 tunnels have addresses of other lengths; they cannot be ports, so theirs are skipped
        read(found.payload, link.address);
        return true;
    default: return true;
    }
}

// ---- Bridge ports: VLANs, and maps from VLANs to VNIs ----

struct vlan_vni {
    uint32_t vni = 0;
    uint16_t vlan = 0;
    uint16_t flags = 0;
};

bool read_vlan_vni(std::span<const std::byte> payload, vlan_vni &row)
{
    return each_attribute(payload, [&row](const attribute &found) {
        switch (found.type) {
        case IFLA_BRIDGE_VLAN_TUNNEL_ID: return read(found.payload, row.vni);
        case IFLA_BRIDGE_VLAN_TUNNEL_VID: return read(found.payload, row.vlan);
        case IFLA_BRIDGE_VLAN_TUNNEL_FLAGS: return read(found.payload, row.flags);
        default: return true;
        }
    });
}

// Adds the VLANs from `first` to `last`. Their VNIs count up with them.
void add_vni_range(const vlan_vni &first, uint16_t last, vni_by_vlan &vnis)
{
    for (uint16_t vlan = first.vlan; vlan <= last; vlan++) {
        vnis[vlan] = first.vni + (vlan - uint32_t{first.vlan});
    }
}

// Adds a row to the map. Two rows may stand for a range, in which VLANs and VNIs both count up:
//
//      vlan 10 vni 1010 RANGE_BEGIN, vlan 12 vni 1012 RANGE_END    10 -> 1010, 11 -> 1011, 12 -> 1012
bool add_vlan_vnis(const vlan_vni &row, vlan_vni &range_begin, vni_by_vlan &vnis)
{
    if ((row.flags & BRIDGE_VLAN_INFO_RANGE_BEGIN) != 0) {
        range_begin = row;
        return true;
    }
    const bool ends_range = (row.flags & BRIDGE_VLAN_INFO_RANGE_END) != 0;
    const vlan_vni first = ends_range ? range_begin : row;
    if (row.vlan >= max_vlans || first.vlan > row.vlan) {
        return false;
    }
    add_vni_range(first, row.vlan, vnis);
    return true;
}

// Adds a row to the set. Two rows may stand for a range, as above.
bool add_vlans(std::span<const std::byte> payload, uint16_t &range_begin, std::bitset<max_vlans> &vlans)
{
    bridge_vlan_info row{};
    if (!read(payload, row) || row.vid >= max_vlans) {
        return false;
    }
    if ((row.flags & BRIDGE_VLAN_INFO_RANGE_BEGIN) != 0) {
        range_begin = row.vid;
        return true;
    }
    const uint16_t first = (row.flags & BRIDGE_VLAN_INFO_RANGE_END) != 0 ? range_begin : row.vid;
    for (uint16_t vlan = first; vlan <= row.vid; vlan++) {
        vlans.set(vlan);
    }
    return true;
}

bool read_vlans(std::span<const std::byte> rows, kernel_message &message)
{
    vlan_vni map_begin;
    uint16_t range_begin = 0;
    return each_attribute(rows, [&](const attribute &found) {
        vlan_vni row;
        switch (found.type) {
        case IFLA_BRIDGE_VLAN_INFO: return add_vlans(found.payload, range_begin, message.vlans);
        case IFLA_BRIDGE_VLAN_TUNNEL_INFO:
            return read_vlan_vni(found.payload, row) && add_vlan_vnis(row, map_begin, message.vnis);
        default: return true;
        }
    });
}

void begin_port(uint32_t ifindex, kernel_message &message)
{
    message.link = {};
    message.link.ifindex = ifindex;
    message.vnis.clear();
    message.vlans.reset();
}

// Decodes the state of a bridge port. Each message has the port's whole map and all its VLANs. One that reports that
// the port left its bridge (`gone`) has neither.
//
// All of it is one attribute. If the message is longer than an attribute can be, the kernel wrote a wrong length there.
kernel_message_kind decode_bridge_port(const ifinfomsg &head, std::span<const std::byte> attributes, bool gone,
                                       kernel_message &message)
{
    begin_port(static_cast<uint32_t>(head.ifi_index), message);
    if (!gone && head.ifi_index > 0 && attributes.size() > max_attribute) {
        return kernel_message_kind::vlans_cut;
    }
    const bool read_all = gone || each_attribute(attributes, [&message](const attribute &found) {
                              return found.type != IFLA_AF_SPEC || read_vlans(found.payload, message);
                          });
    return read_all && head.ifi_index > 0 ? kernel_message_kind::vlan_vnis : kernel_message_kind::malformed;
}

bool read_tunnel_id(std::span<const std::byte> payload, std::optional<uint32_t> &vni)
{
    return each_attribute(payload, [&vni](const attribute &found) {
        return found.type != BRIDGE_VLANDB_TINFO_ID || read(found.payload, vni.emplace());
    });
}

// Adds a VLAN or a range of VLANs. VLANs that have VNIs share a range only if their VNIs count up with them.
bool read_vlan_row(std::span<const std::byte> payload, kernel_message &message)
{
    bridge_vlan_info first{};
    uint16_t last = 0; // 0: no range
    std::optional<uint32_t> vni;
    const bool read_all = each_attribute(payload, [&](const attribute &found) {
        switch (found.type) {
        case BRIDGE_VLANDB_ENTRY_INFO: return read(found.payload, first);
        case BRIDGE_VLANDB_ENTRY_RANGE: return read(found.payload, last);
        case BRIDGE_VLANDB_ENTRY_TUNNEL_INFO: return read_tunnel_id(found.payload, vni);
        default: return true;
        }
    });
    last = std::max(last, first.vid);
    if (!read_all || first.vid == 0 || last >= max_vlans) {
        return false;
    }
    for (uint16_t vlan = first.vid; vlan <= last; vlan++) {
        message.vlans.set(vlan);
    }
    if (vni) {
        add_vni_range({*vni, first.vid}, last, message.vnis);
    }
    return true;
}

kernel_message_kind decode_vlan_rows(std::span<const std::byte> payload, kernel_message &message)
{
    br_vlan_msg head{};
    if (payload.size() < sizeof(head)) {
        return kernel_message_kind::malformed;
    }
    std::memcpy(&head, payload.data(), sizeof(head));
    begin_port(head.ifindex, message);
    const bool read_all = each_attribute(payload.subspan(sizeof(head)), [&message](const attribute &found) {
        return found.type != BRIDGE_VLANDB_ENTRY || read_vlan_row(found.payload, message);
    });
    return read_all && head.ifindex != 0 ? kernel_message_kind::vlan_rows : kernel_message_kind::malformed;
}

kernel_message_kind decode_link(std::span<const std::byte> payload, bool gone, kernel_message &message)
{
    ifinfomsg head{};
    if (payload.size() < sizeof(head)) {
        return kernel_message_kind::malformed;
    }
    std::memcpy(&head, payload.data(), sizeof(head));
    if (head.ifi_family == AF_BRIDGE) {
        return decode_bridge_port(head, payload.subspan(sizeof(head)), gone, message);
    }
    if (head.ifi_family != AF_UNSPEC) {
        return kernel_message_kind::unrelated;
    }
    link_record &link = message.link;
    link = {};
    link.ifindex = static_cast<uint32_t>(head.ifi_index);
    link.up = (head.ifi_flags & IFF_UP) != 0;
    const bool read_all = each_attribute(payload.subspan(sizeof(head)),
                                         [&link](const attribute &found) { return read_link_attribute(found, link); });
    if (!read_all || head.ifi_index <= 0) {
        return kernel_message_kind::malformed;
    }
    if (gone) {
        return kernel_message_kind::link_gone;
    }
    // A message without a name reports an event of the device, such as a wireless one, and not its state.
    return link.name.empty() ? kernel_message_kind::unrelated : kernel_message_kind::link_changed;
}

// ---- Forwarding entries ----

struct bit_translation {
    uint32_t from;
    uint8_t to;
};

constexpr bit_translation states[] = {
    {NUD_PERMANENT, fdb_permanent}, {NUD_NOARP, fdb_noarp}, {NUD_REACHABLE, fdb_reachable}, {NUD_STALE, fdb_stale}};
constexpr bit_translation flags[] = {
    {NTF_STICKY, fdb_sticky}, {NTF_EXT_LEARNED, fdb_extern_learn}, {NTF_OFFLOADED, fdb_offloaded}};
constexpr bit_translation extended_flags[] = {{ntf_ext_locked, fdb_locked}};
constexpr bit_translation activity_flags[] = {{activity_notify_inactive, fdb_inactive}};

template <size_t Size>
uint8_t translate(uint32_t bits, const bit_translation (&table)[Size])
{
    uint8_t result = 0;
    for (const bit_translation &row : table) {
        result |= (bits & row.from) != 0 ? row.to : uint8_t{0};
    }
    return result;
}

// Attributes of an entry that its record does not hold.
struct fdb_extra {
    bool has_address = false;
    bool has_cacheinfo = false;
    nda_cacheinfo cacheinfo = {};
};

bool read_destination(std::span<const std::byte> payload, fdb_destination &destination)
{
    if (payload.size() != ipv4_size && payload.size() != destination.address.size()) {
        return false;
    }
    destination.kind = payload.size() == ipv4_size ? destination_kind::ipv4 : destination_kind::ipv6;
    std::memcpy(destination.address.data(), payload.data(), payload.size());
    return true;
}

bool read_next_hop(std::span<const std::byte> payload, fdb_destination &destination)
{
    destination.kind = destination_kind::next_hop;
    return read(payload, destination.next_hop);
}

bool read_port(std::span<const std::byte> payload, fdb_destination &destination)
{
    uint16_t port = 0;
    const bool fits = read(payload, port);
    destination.port = ntohs(port);
    return fits;
}

bool read_extended_flags(std::span<const std::byte> payload, fdb_record &fdb)
{
    uint32_t bits = 0;
    const bool fits = read(payload, bits);
    fdb.flags |= translate(bits, extended_flags);
    return fits;
}

bool read_activity(std::span<const std::byte> payload, fdb_record &fdb)
{
    return each_attribute(payload, [&fdb](const attribute &found) {
        uint8_t bits = 0;
        if (found.type == NFEA_ACTIVITY_NOTIFY && !read(found.payload, bits)) {
            return false;
        }
        fdb.flags |= translate(bits, activity_flags);
        return true;
    });
}

bool read_fdb_attribute(const attribute &found, fdb_record &fdb, fdb_extra &extra)
{
    switch (found.type) {
    case NDA_LLADDR: extra.has_address = true; return read(found.payload, fdb.mac);
    case NDA_CACHEINFO: extra.has_cacheinfo = true; return read(found.payload, extra.cacheinfo);
    case NDA_DST: return read_destination(found.payload, fdb.destination);
    case NDA_NH_ID: return read_next_hop(found.payload, fdb.destination);
    case NDA_VLAN: return read(found.payload, fdb.vlan);
    case NDA_PORT: return read_port(found.payload, fdb.destination);
    case NDA_VNI: return read(found.payload, fdb.destination.vni);
    case NDA_SRC_VNI: return read(found.payload, fdb.source_vni);
    case NDA_MASTER: return read(found.payload, fdb.master);
    case NDA_FLAGS_EXT: return read_extended_flags(found.payload, fdb);
    case NDA_FDB_EXT_ATTRS: return read_activity(found.payload, fdb);
    default: return true;
    }
}

int64_t time_of(const nda_cacheinfo &cacheinfo, const kernel_clock &clock)
{
    return clock.now_ms - int64_t{cacheinfo.ndm_updated} * ms_per_second / clock.ticks_per_second;
}

// An entry belongs to a bridge (it has a master) or to a device itself, never to both. NTF_MASTER is not checked,
// because the kernel's replies leave it out.
bool is_consistent(const ndmsg &head, const fdb_record &fdb, const fdb_extra &extra)
{
    return head.ndm_ifindex > 0 && extra.has_address && fdb.self == (fdb.master == 0);
}

// Linux before 6.13 sends two notifications when a user changes a device's own entry: one by the device, and a general
// one without the destination. The general one would overwrite the device's one, so it is skipped. It is known by its
// lack of an age, which VXLAN devices always send. Receive filters have no age either, and no plane reports them.
bool is_general_notification(const fdb_record &fdb, const fdb_extra &extra)
{
    return fdb.self && !extra.has_cacheinfo;
}

kernel_message_kind decode_fdb(std::span<const std::byte> payload, bool gone, const kernel_clock &clock,
                               fdb_record &fdb)
{
    ndmsg head{};
    if (payload.empty() || payload[0] != std::byte{AF_BRIDGE}) {
        return payload.empty() ? kernel_message_kind::malformed : kernel_message_kind::unrelated;
    }
    if (payload.size() < sizeof(head)) {
        return kernel_message_kind::malformed;
    }
    std::memcpy(&head, payload.data(), sizeof(head));
    fdb = {};
    fdb.ifindex = static_cast<uint32_t>(head.ndm_ifindex);
    fdb.self = (head.ndm_flags & NTF_SELF) != 0;
    fdb.state = translate(head.ndm_state, states);
    fdb.flags = translate(head.ndm_flags, flags);
    fdb_extra extra;
    const bool read_all = each_attribute(payload.subspan(sizeof(head)), [&fdb, &extra](const attribute &found) {
        return read_fdb_attribute(found, fdb, extra);
    });
    if (!read_all || !is_consistent(head, fdb, extra)) {
        return kernel_message_kind::malformed;
    }
    if (is_general_notification(fdb, extra)) {
        return kernel_message_kind::unrelated;
    }
    fdb.updated_ms = extra.has_cacheinfo ? time_of(extra.cacheinfo, clock) : 0;
    return gone ? kernel_message_kind::fdb_gone : kernel_message_kind::fdb_changed;
}

// ---- Next hops ----

kernel_message_kind decode_next_hop_gone(std::span<const std::byte> payload, kernel_message &message)
{
    if (payload.size() < sizeof(nhmsg)) {
        return kernel_message_kind::malformed;
    }
    message.next_hop = 0; // no next hop has this id
    message.for_entries = false;
    const bool read_all = each_attribute(payload.subspan(sizeof(nhmsg)), [&message](const attribute &found) {
        message.for_entries |= found.type == NHA_FDB;
        return found.type != NHA_ID || read(found.payload, message.next_hop);
    });
    return read_all && message.next_hop != 0 ? kernel_message_kind::next_hop_gone : kernel_message_kind::malformed;
}

// ---- Messages ----

// Reads the error of a reply or of a dump's end. The kernel sends 0 or a negative error number.
bool read_error(std::span<const std::byte> payload, int &error)
{
    int32_t value = 0;
    if (payload.size() < sizeof(value)) {
        return false;
    }
    std::memcpy(&value, payload.data(), sizeof(value));
    const bool is_valid = value <= 0 && value >= -max_error_number;
    error = is_valid ? -value : 0;
    return is_valid;
}

kernel_message_kind decode_payload(uint16_t type, std::span<const std::byte> payload, const kernel_clock &clock,
                                   kernel_message &message)
{
    switch (type) {
    case RTM_NEWLINK: return decode_link(payload, false, message);
    case RTM_DELLINK: return decode_link(payload, true, message);
    case RTM_NEWVLAN: return decode_vlan_rows(payload, message);
    case RTM_NEWNEIGH: return decode_fdb(payload, false, clock, message.fdb);
    case RTM_DELNEIGH: return decode_fdb(payload, true, clock, message.fdb);
    case RTM_DELNEXTHOP: return decode_next_hop_gone(payload, message);
    case NLMSG_DONE: // old kernels send no error with it
        return payload.empty() || read_error(payload, message.error) ? kernel_message_kind::done
                                                                     : kernel_message_kind::malformed;
    case NLMSG_ERROR:
        return read_error(payload, message.error) ? kernel_message_kind::error : kernel_message_kind::malformed;
    default: return kernel_message_kind::unrelated;
    }
}

} // namespace

link_kind link_kind_named(std::string_view name)
{
    const auto *const found = std::find_if(std::begin(link_kinds), std::end(link_kinds),
                                           [name](const auto &row) { return row.name == name; });
    return found == std::end(link_kinds) ? link_kind::other : found->kind;
}

uint32_t ageing_ms_of(uint32_t ticks)
{
    return ticks > UINT32_MAX / ms_per_ageing_tick ? UINT32_MAX : ticks * ms_per_ageing_tick;
}

kernel_clock kernel_clock_now()
{
    static const int64_t ticks = sysconf(_SC_CLK_TCK);
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return {std::chrono::duration_cast<std::chrono::milliseconds>(now).count(), ticks};
}

bool kernel_decode(std::span<const std::byte> &datagram, const kernel_clock &clock, kernel_message &message)
{
    if (datagram.empty()) {
        return false;
    }
    message.kind = kernel_message_kind::malformed;
    message.sequence = 0;
    message.interrupted = false;
    message.error = 0;
    nlmsghdr head{}; // checked here, because mnl_nlmsg_ok reads a length over 2 GiB as a negative number
    if (datagram.size() >= sizeof(head)) {
        std::memcpy(&head, datagram.data(), sizeof(head));
    }
    if (head.nlmsg_len < sizeof(head) || head.nlmsg_len > datagram.size()) {
        datagram = {};
        return true;
    }
    message.sequence = head.nlmsg_seq;
    message.interrupted = (head.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    message.kind =
        decode_payload(head.nlmsg_type, datagram.subspan(sizeof(head), head.nlmsg_len - sizeof(head)), clock, message);
    datagram = datagram.subspan(std::min<size_t>(NLMSG_ALIGN(head.nlmsg_len), datagram.size()));
    return true;
}

} // namespace forwarding
