// SPDX-License-Identifier: Apache-2.0

// The decoder of kernel messages: what it makes of messages as they should be, of captured ones and of damaged ones.

#include <bit>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "forwarding/kernel/netlink/kernel_decode.h"

namespace {

using namespace forwarding;
using bytes = std::vector<std::byte>;

constexpr kernel_clock at_100_s{100'000, 100};
constexpr mac_address mac{2, 0, 0, 0, 0, 5};

template <typename Value>
bytes bytes_of(const Value &value)
{
    const auto *first = static_cast<const std::byte *>(static_cast<const void *>(&value));
    return {first, first + sizeof(value)};
}

bytes text(const std::string &value)
{
    const auto *first = static_cast<const std::byte *>(static_cast<const void *>(value.c_str()));
    return {first, first + value.size() + 1};
}

bytes operator+(bytes left, const bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    left.resize((left.size() + 3) / 4 * 4);
    return left;
}

// An attribute whose header claims `claimed` bytes of payload.
bytes attribute(int type, const bytes &payload, int claimed)
{
    return bytes_of(nlattr{static_cast<uint16_t>(claimed + 4), static_cast<uint16_t>(type)}) + payload;
}

bytes attribute(int type, const bytes &payload)
{
    return attribute(type, payload, static_cast<int>(payload.size()));
}

bytes message(int type, const bytes &payload)
{
    return bytes_of(
               nlmsghdr{static_cast<uint32_t>(sizeof(nlmsghdr) + payload.size()), static_cast<uint16_t>(type), 0, 7, 0})
           + payload;
}

bytes link(const bytes &attributes, int type = RTM_NEWLINK)
{
    return message(type, bytes_of(ifinfomsg{AF_UNSPEC, 0, 1, 4, IFF_UP, 0}) + attributes);
}

bytes entry(const bytes &attributes, uint8_t flags = 0, uint16_t state = NUD_REACHABLE)
{
    return message(RTM_NEWNEIGH, bytes_of(ndmsg{AF_BRIDGE, 0, 0, 5, state, flags, 0}) + attributes);
}

bytes info(const char *kind, const bytes &data)
{
    return attribute(IFLA_LINKINFO, attribute(IFLA_INFO_KIND, text(kind)) + attribute(IFLA_INFO_DATA, data));
}

const bytes name = attribute(IFLA_IFNAME, text("eth0"));
const bytes lladdr = attribute(NDA_LLADDR, bytes_of(mac));
const bytes master = attribute(NDA_MASTER, bytes_of(uint32_t{2}));
const bytes age = attribute(NDA_CACHEINFO, bytes_of(nda_cacheinfo{0, 900, 250, 0})); // updated 2.5 s ago
constexpr int64_t aged_ms = 97'500;

kernel_message decode(bytes datagram)
{
    kernel_message result;
    std::span<const std::byte> rest(datagram);
    EXPECT_TRUE(kernel_decode(rest, at_100_s, result));
    return result;
}

fdb_destination to(destination_kind kind, std::initializer_list<uint8_t> address, uint32_t next_hop = 0)
{
    fdb_destination result{kind, {}, next_hop};
    std::copy(address.begin(), address.end(), result.address.begin());
    return result;
}

// An entry of the device itself, behind a destination.
fdb_record own_entry(uint8_t state, const fdb_destination &destination, uint32_t vni = 0, uint32_t source_vni = 0)
{
    fdb_record result{.ifindex = 5, .self = true, .state = state, .mac = mac, .updated_ms = aged_ms};
    result.destination = destination;
    result.destination.vni = vni;
    result.source_vni = source_vni;
    return result;
}

TEST(KernelDecode, LinksByKind)
{
    const bytes flag = bytes_of(uint8_t{1});
    const struct {
        bytes attributes;
        link_record expected;
    } cases[] = {
        {{}, {.ifindex = 4, .name = "eth0", .up = true}},
        {attribute(IFLA_MASTER, bytes_of(uint32_t{9})) + attribute(IFLA_ADDRESS, bytes_of(mac)),
         {.ifindex = 4, .master = 9, .name = "eth0", .up = true, .address = mac}},
        {attribute(IFLA_ADDRESS, bytes_of(uint32_t{1})), {.ifindex = 4, .name = "eth0", .up = true}},
        {info("bridge", attribute(IFLA_BR_VLAN_FILTERING, flag)),
         {.ifindex = 4, .name = "eth0", .kind = link_kind::bridge, .vlan_aware = true, .up = true}},
        {info("bridge", attribute(IFLA_BR_AGEING_TIME, bytes_of(uint32_t{30'000}))
                            + attribute(IFLA_BR_VLAN_PROTOCOL, bytes_of(uint16_t{0x8100}))),
         {.ifindex = 4,
          .name = "eth0",
          .kind = link_kind::bridge,
          .up = true,
          .ageing_ms = 300'000,
          .can_filter_vlans = true}},
        {info("bridge", attribute(IFLA_BR_AGEING_TIME, bytes_of(UINT32_MAX))),
         {.ifindex = 4, .name = "eth0", .kind = link_kind::bridge, .up = true, .ageing_ms = UINT32_MAX}},
        {info("vxlan", attribute(IFLA_VXLAN_ID, bytes_of(uint32_t{77}))),
         {.ifindex = 4, .name = "eth0", .kind = link_kind::vxlan, .vni = 77, .up = true}},
        {info("vxlan", attribute(IFLA_VXLAN_COLLECT_METADATA, flag)),
         {.ifindex = 4, .name = "eth0", .kind = link_kind::vxlan, .external = true, .up = true}},
        {info("ip6gretap", attribute(IFLA_VXLAN_ID, flag)), // the same number means something else there
         {.ifindex = 4, .name = "eth0", .kind = link_kind::tunnel, .up = true}},
        {info("veth", {std::byte{1}}), {.ifindex = 4, .name = "eth0", .up = true}},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(&each - cases);
        const kernel_message got = decode(link(name + each.attributes));
        EXPECT_EQ(got.kind, kernel_message_kind::link_changed);
        EXPECT_EQ(got.link, each.expected);
        EXPECT_EQ(got.sequence, 7U);
        EXPECT_EQ(decode(link(name + each.attributes, RTM_DELLINK)).kind, kernel_message_kind::link_gone);
    }
}

TEST(KernelDecode, EntriesByAttributes)
{
    const bytes inactive = attribute(NFEA_ACTIVITY_NOTIFY, bytes_of(uint8_t{3}));
    const struct {
        bytes attributes;
        uint8_t ndm_flags;
        uint16_t ndm_state;
        fdb_record expected;
    } cases[] = {
        {master + attribute(NDA_VLAN, bytes_of(uint16_t{10})) + age,
         0,
         NUD_REACHABLE,
         {.ifindex = 5, .master = 2, .state = fdb_reachable, .vlan = 10, .mac = mac, .updated_ms = aged_ms}},
        {master + attribute(NDA_FLAGS_EXT, bytes_of(uint32_t{2}))
             + attribute(NDA_FDB_EXT_ATTRS | NLA_F_NESTED, inactive),
         NTF_STICKY | NTF_EXT_LEARNED | NTF_OFFLOADED,
         NUD_NOARP | NUD_STALE,
         {.ifindex = 5,
          .master = 2,
          .state = fdb_noarp | fdb_stale,
          .flags = fdb_sticky | fdb_extern_learn | fdb_offloaded | fdb_locked | fdb_inactive,
          .mac = mac}},
        {age + attribute(NDA_DST, bytes_of(std::array<uint8_t, 4>{10, 0, 0, 9}))
             + attribute(NDA_VNI, bytes_of(uint32_t{600})) + attribute(NDA_SRC_VNI, bytes_of(uint32_t{500})),
         NTF_SELF, NUD_PERMANENT, own_entry(fdb_permanent, to(destination_kind::ipv4, {10, 0, 0, 9}), 600, 500)},
        {age + attribute(NDA_DST, bytes_of(std::array<uint8_t, 16>{0x20, 1})), NTF_SELF, NUD_REACHABLE,
         own_entry(fdb_reachable, to(destination_kind::ipv6, {0x20, 1}))},
        {age + attribute(NDA_NH_ID, bytes_of(uint32_t{12})), NTF_SELF, NUD_REACHABLE,
         own_entry(fdb_reachable, to(destination_kind::next_hop, {}, 12))},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(&each - cases);
        const kernel_message got = decode(entry(lladdr + each.attributes, each.ndm_flags, each.ndm_state));
        EXPECT_EQ(got.kind, kernel_message_kind::fdb_changed);
        EXPECT_EQ(got.fdb, each.expected);
    }
}

TEST(KernelDecode, RefusesWhatIsCutOffMissingOrOfTheWrongLength)
{
    const bytes three(3);
    const bytes eight(8);
    const bytes cases[] = {
        {std::byte{1}},
        bytes(15),
        bytes(16), // claims no length
        bytes(64, std::byte{0xff}),
        message(RTM_NEWLINK, {}),
        message(RTM_NEWLINK, bytes(12)),
        message(RTM_NEWNEIGH, {}),
        message(RTM_NEWNEIGH, {std::byte{AF_BRIDGE}, {}, {}, {}}),
        message(NLMSG_ERROR, {}),
        message(NLMSG_DONE, bytes_of(int32_t{1})),
        message(RTM_NEWLINK, bytes_of(ifinfomsg{AF_UNSPEC, 0, 1, -1, 0, 0}) + name),
        link(attribute(IFLA_IFNAME, {})),
        link(attribute(IFLA_IFNAME, three + three, 3) + attribute(IFLA_IFNAME, text(""))),
        link(attribute(IFLA_IFNAME, bytes(4, std::byte{'a'}))), // does not end
        link(attribute(IFLA_IFNAME, text("a name of 16 ch."))),
        link(name + attribute(IFLA_MASTER, three)),
        link(name + attribute(IFLA_MASTER, eight)),
        link(name + attribute(IFLA_MTU, eight, 400)), // unknown, but it leads out of the message
        link(name + bytes_of(nlattr{0, IFLA_MTU})),
        link(name + bytes_of(nlattr{3, IFLA_MTU})),
        link(name + attribute(IFLA_LINKINFO, eight)),
        link(name + info("bridge", attribute(IFLA_BR_VLAN_FILTERING, eight))),
        link(name + info("bridge", attribute(IFLA_BR_AGEING_TIME, three))),
        message(RTM_DELNEXTHOP, three),
        message(RTM_DELNEXTHOP, eight),
        message(RTM_DELNEXTHOP, eight + attribute(NHA_ID, three)),
        link(name + info("vxlan", attribute(IFLA_VXLAN_ID, three))),
        link(name + info("vxlan", attribute(IFLA_VXLAN_ID, eight, 40))),
        entry(master),
        entry(lladdr), // neither a bridge's nor a device's own
        entry(lladdr + master, NTF_SELF),
        entry(master + attribute(NDA_LLADDR, eight)),
        entry(master + attribute(NDA_LLADDR, {})),
        entry(master + lladdr + attribute(NDA_VLAN, eight)),
        entry(master + lladdr + attribute(NDA_CACHEINFO, eight)),
        entry(master + lladdr + attribute(NDA_FLAGS_EXT, three)),
        entry(master + lladdr + attribute(NDA_FDB_EXT_ATTRS, attribute(NFEA_ACTIVITY_NOTIFY, three))),
        entry(lladdr + attribute(NDA_DST, eight), NTF_SELF),
        entry(lladdr + attribute(NDA_NH_ID, {}), NTF_SELF),
        entry(lladdr + attribute(NDA_VNI, three), NTF_SELF),
    };
    for (const bytes &each : cases) {
        EXPECT_EQ(decode(each).kind, kernel_message_kind::malformed) << &each - cases;
    }
}

TEST(KernelDecode, OtherMessages)
{
    const struct {
        bytes datagram;
        kernel_message_kind kind;
        int error;
    } cases[] = {
        {message(NLMSG_DONE, bytes_of(int32_t{0})), kernel_message_kind::done, 0},
        {message(NLMSG_DONE, bytes_of(int32_t{-ENODEV})), kernel_message_kind::done, ENODEV},
        {message(NLMSG_ERROR, bytes_of(nlmsgerr{-ENOENT, {}})), kernel_message_kind::error, ENOENT},
        {message(NLMSG_NOOP, {}), kernel_message_kind::unrelated, 0},
        {message(RTM_GETNEIGH, bytes(12)), kernel_message_kind::unrelated, 0},
        {message(RTM_NEWNEIGH, bytes_of(ndmsg{AF_INET, 0, 0, 5, 0, 0, 0})), kernel_message_kind::unrelated, 0},
        {message(RTM_DELLINK, bytes_of(ifinfomsg{AF_BRIDGE, 0, 1, 4, 0, 0})), kernel_message_kind::vlan_vnis, 0},
        {entry(lladdr, NTF_SELF, NUD_PERMANENT), kernel_message_kind::unrelated, 0}, // a destination would have an age
        {link(attribute(IFLA_WIRELESS, bytes(8))), kernel_message_kind::unrelated, 0},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(&each - cases);
        const kernel_message got = decode(each.datagram);
        EXPECT_EQ(got.kind, each.kind);
        EXPECT_EQ(got.error, each.error);
    }
}

// A row of a port's VLANs: one VLAN, or a range to `last`. VNI 0: none.
bytes vlan_row(uint16_t vlan, uint16_t last = 0, uint32_t vni = 0)
{
    return attribute(
        BRIDGE_VLANDB_ENTRY,
        attribute(BRIDGE_VLANDB_ENTRY_INFO, bytes_of(bridge_vlan_info{0, vlan}))
            + (last != 0 ? attribute(BRIDGE_VLANDB_ENTRY_RANGE, bytes_of(last)) : bytes{})
            + (vni != 0 ? attribute(BRIDGE_VLANDB_ENTRY_TUNNEL_INFO, attribute(BRIDGE_VLANDB_TINFO_ID, bytes_of(vni)))
                        : bytes{}));
}

bytes vlan_rows(const bytes &rows)
{
    return message(RTM_NEWVLAN, bytes_of(br_vlan_msg{AF_BRIDGE, 0, 0, 4}) + rows);
}

TEST(KernelDecode, MapsFromVlansToVnis)
{
    const auto row = [](uint32_t vni, uint16_t vlan, uint16_t flags) {
        return attribute(IFLA_BRIDGE_VLAN_TUNNEL_INFO, attribute(IFLA_BRIDGE_VLAN_TUNNEL_ID, bytes_of(vni))
                                                           + attribute(IFLA_BRIDGE_VLAN_TUNNEL_VID, bytes_of(vlan))
                                                           + attribute(IFLA_BRIDGE_VLAN_TUNNEL_FLAGS, bytes_of(flags)));
    };
    const auto port = [](const bytes &rows) {
        return message(RTM_NEWLINK, bytes_of(ifinfomsg{AF_BRIDGE, 0, 1, 4, IFF_UP, 0})
                                        + attribute(IFLA_AF_SPEC, rows, static_cast<uint16_t>(rows.size() + 4) - 4));
    };
    const bytes begin = row(200, 20, BRIDGE_VLAN_INFO_RANGE_BEGIN);
    bytes many;
    for (uint16_t vlan = 1; vlan <= 2400; vlan++) {
        many = many + row(vlan * 10U, vlan, 0);
    }
    const struct {
        bytes datagram;
        kernel_message_kind kind;
        vni_by_vlan vnis;
        size_t vlans;
    } cases[] = {
        {port({}), kernel_message_kind::vlan_vnis, {}, 0},
        {port(row(100, 10, 0) + begin + row(202, 22, BRIDGE_VLAN_INFO_RANGE_END)),
         kernel_message_kind::vlan_vnis,
         {{10, 100}, {20, 200}, {21, 201}, {22, 202}},
         0},
        {port(row(100, 4096, 0)), kernel_message_kind::malformed, {}, 0},
        {port(begin + row(199, 19, BRIDGE_VLAN_INFO_RANGE_END)), kernel_message_kind::malformed, {}, 0},
        {port(many), kernel_message_kind::vlans_cut, {}, 0}, // the attribute's length has wrapped
        {vlan_rows(vlan_row(5) + vlan_row(10, 0, 100) + vlan_row(20, 22, 200)),
         kernel_message_kind::vlan_rows,
         {{10, 100}, {20, 200}, {21, 201}, {22, 202}},
         5},
        {vlan_rows(vlan_row(4090, 4096)), kernel_message_kind::malformed, {}, 0},
        {vlan_rows(vlan_row(0)), kernel_message_kind::malformed, {}, 0},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(&each - cases);
        const kernel_message got = decode(each.datagram);
        EXPECT_EQ(got.kind, each.kind);
        EXPECT_EQ(got.link.ifindex, 4U);
        EXPECT_TRUE(each.kind == kernel_message_kind::malformed
                    || (got.vnis == each.vnis && got.vlans.count() == each.vlans));
    }
}

TEST(KernelDecode, NextHopsThatGo)
{
    const bytes id = attribute(NHA_ID, bytes_of(uint32_t{12}));
    const bytes fdb = attribute(NHA_FDB, {});
    for (const bool for_entries : {false, true}) {
        const kernel_message got = decode(message(RTM_DELNEXTHOP, bytes(8) + id + (for_entries ? fdb : bytes{})));
        EXPECT_EQ(got.kind, kernel_message_kind::next_hop_gone);
        EXPECT_EQ(got.next_hop, 12U);
        EXPECT_EQ(got.for_entries, for_entries);
    }
}

bytes from_hex(const std::string &digits)
{
    bytes result;
    for (size_t at = 0; at < digits.size(); at += 2) {
        result.push_back(static_cast<std::byte>(std::stoul(digits.substr(at, 2), nullptr, 16)));
    }
    return result;
}

// Notifications as a kernel 6.18 sent them: a VXLAN device with `external vnifilter` learns an address, a static and
// sticky entry of a bridge goes, a port leaves its bridge, and a neighbour of IPv4 goes.
const bytes captured[] = {
    from_hex("540000001c00000000000000000000000700000005000000020002010a0002000200000000050000080001000a00000908000700"
             "5802000008000b00f40100001400030000000000000000000000000000000000"),
    from_hex("4c0000001d00000000000000000000000700000004000000400040000a0002000200000000010000080009000200000008000f00"
             "000000001400030000000000010000000100000000000000"),
    from_hex("5400000011000000000000000000000007000100040000004310010000000000070003007630000008000a000200000008000400"
             "dc05000005001000060000000a00010052b9cb5df0d100000800050003000000"),
    from_hex("4c0000001d000000000000000000000002000000020000004000000508000100e00000160a00020001005e000016000008000400"
             "000000001400030074170000040000000400000000000000"),
};

TEST(KernelDecode, CapturedMessagesInOneDatagram)
{
    bytes datagram;
    for (const bytes &each : captured) {
        datagram = datagram + each;
    }
    datagram.push_back(std::byte{}); // half a header
    fdb_record learned = own_entry(fdb_reachable, to(destination_kind::ipv4, {10, 0, 0, 9}), 600, 500);
    learned.updated_ms = 100'000;
    const fdb_record sticky{.ifindex = 4,
                            .master = 2,
                            .state = fdb_noarp,
                            .flags = fdb_sticky,
                            .mac = {2, 0, 0, 0, 0, 1},
                            .updated_ms = 99'990};
    std::vector<kernel_message> got;
    std::span<const std::byte> rest(datagram);
    for (kernel_message next; kernel_decode(rest, at_100_s, next);) {
        got.push_back(next);
    }
    ASSERT_EQ(got.size(), 5U);
    EXPECT_EQ(got[0].kind, kernel_message_kind::fdb_changed);
    EXPECT_EQ(got[0].fdb, learned);
    EXPECT_EQ(got[1].kind, kernel_message_kind::fdb_gone);
    EXPECT_EQ(got[1].fdb, sticky);
    EXPECT_EQ(got[2].kind, kernel_message_kind::vlan_vnis);
    EXPECT_EQ(got[2].vnis, vni_by_vlan{});
    EXPECT_EQ(got[3].kind, kernel_message_kind::unrelated);
    EXPECT_EQ(got[4].kind, kernel_message_kind::malformed);
}

// Whatever the bytes are: every call comes to an end, what is told is in order, and the sanitizers see no read behind
// the end, for the bytes are on the heap and exactly as long as they are.
TEST(KernelDecode, RandomDamageIsHarmless)
{
    std::vector<bytes> seeds(std::begin(captured), std::end(captured));
    seeds.push_back(link(name + info("vxlan", attribute(IFLA_VXLAN_ID, bytes_of(uint32_t{77})))));
    seeds.push_back(link(name + info("bridge", attribute(IFLA_BR_VLAN_FILTERING, bytes_of(uint8_t{1})))));
    seeds.push_back(entry(lladdr + master + attribute(NDA_FDB_EXT_ATTRS, attribute(1, bytes_of(uint8_t{2})))));
    seeds.push_back(vlan_rows(vlan_row(5) + vlan_row(20, 22, 200)));
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same damage in every run
    const auto below = [&random](size_t limit) { return random() % limit; };
    size_t told = 0;
    for (int round = 0; round < 100'000; round++) {
        bytes damaged = seeds[below(seeds.size())] + seeds[below(seeds.size())];
        for (size_t hits = below(6); hits > 0; hits--) {
            damaged[below(damaged.size())] = static_cast<std::byte>(below(4) == 0 ? below(256) : below(9));
        }
        damaged.resize(below(4) == 0 ? below(damaged.size()) : damaged.size());
        damaged.shrink_to_fit();
        std::span<const std::byte> rest(damaged);
        kernel_message got;
        for (size_t left = rest.size(); kernel_decode(rest, at_100_s, got); left = rest.size()) {
            ASSERT_LT(rest.size(), left);
            const bool link_told = got.kind == kernel_message_kind::link_changed;
            const bool fdb_told = got.kind == kernel_message_kind::fdb_changed;
            ASSERT_TRUE(!link_told || (got.link.ifindex != 0 && !got.link.name.empty() && got.link.name.size() < 16));
            ASSERT_TRUE(!fdb_told || (got.fdb.ifindex != 0 && got.fdb.self == (got.fdb.master == 0)));
            told += link_told || fdb_told ? 1 : 0;
        }
    }
    EXPECT_GT(told, 50'000U); // most damage leaves some message whole
}

} // namespace
