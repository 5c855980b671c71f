// SPDX-License-Identifier: Apache-2.0

// The shadow table, the mapping and the feeder. Pure parts are tested by themselves. The rest runs in a started module,
// on a plane that the test scripts. A second, naive model says what the cache has to hold.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "forwarding/feeder/answers/reading.h"
#include "forwarding/feeder/objects/ids.h"
#include "forwarding/generated/generate.h"
#include "forwarding/mapping.h"
#include "forwarding/recorded/replay.h"
#include "host/event/event_host.h"
#include "l2fm_edm_table.h"
#include "tests/support/host/event_loop.h"
#include "tests/support/plane/scripted_plane.h"
#include "tests/support/table/table_audit.h"

namespace {

using namespace forwarding;
using namespace test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// ---- Pure parts ----

TEST(Ids, ComeBackLastAndRunOut)
{
    id_pool pool(1, 3);
    EXPECT_EQ(pool.take(), 1u);
    pool.give_back(1);
    EXPECT_EQ(pool.take(), 2u);
    EXPECT_EQ(pool.take(), 3u);
    EXPECT_EQ(pool.take(), 1u);
    EXPECT_EQ(pool.take(), 0u);
    pool.give_back(3);
    EXPECT_EQ(pool.take(), 3u);
}

TEST(Ids, RestAndGoToTheObjectThatWaitsLongest)
{
    id_line line(2);
    EXPECT_EQ(line.take() + line.take(), 3u);
    EXPECT_EQ(line.take(), 0u);
    const uint64_t leaves = line.join(70);
    line.join(71);
    line.join(72);
    line.leave(leaves);
    line.give_back(2, UINT32_MAX - 9); // the clock wraps while it rests
    line.end_rests(id_line::rest_ms - 11);
    EXPECT_FALSE(line.can_serve());
    line.end_rests(id_line::rest_ms - 10);
    ASSERT_TRUE(line.can_serve());
    const served_object served = line.serve();
    EXPECT_EQ(served.slot, 71u);
    EXPECT_EQ(served.id, 2u);
    EXPECT_FALSE(line.can_serve());
    line.put_back(1);
    EXPECT_EQ(line.take(), 0u) << "a new object overtakes one that waits";
    EXPECT_EQ(line.waiting(), 1u);
}

// Random changes against a map. Copies of earlier moments keep what they held.
TEST(SharedList, HoldsWhatAMapHoldsAndKeepsEarlierMoments)
{
    std::mt19937 random{3};
    shared_list<domain_view> list;
    std::map<uint16_t, uint32_t> model;
    std::vector<std::pair<shared_list<domain_view>, std::map<uint16_t, uint32_t>>> moments;
    for (uint32_t turn = 1; turn <= 8000; turn++) {
        const auto id = static_cast<uint16_t>(random() % 1000);
        if (random() % 3 != 0) {
            domain_view view;
            view.bridge_id = id;
            view.bridge_ifindex = turn;
            list.put(view);
            model[id] = turn;
        } else {
            list.erase(id);
            model.erase(id);
        }
        if (turn % 500 == 0) {
            moments.emplace_back(list.share(), model);
        }
    }
    for (const auto &[then, expected_then] : moments) {
        ASSERT_EQ(then.size(), expected_then.size());
        EXPECT_TRUE(std::ranges::equal(then, expected_then, {}, &domain_view::bridge_ifindex,
                                       &std::pair<const uint16_t, uint32_t>::second));
        for (uint16_t id = 0; id < 1001; id++) {
            const domain_view *found = then.find(id);
            const auto known = expected_then.find(id);
            ASSERT_EQ(found != nullptr ? found->bridge_ifindex : 0, known != expected_then.end() ? known->second : 0);
        }
    }
}

TEST(Names, CarryWhatItemKeysCan)
{
    EXPECT_EQ(bridge_domain_part("br0", 0), "br0");
    EXPECT_EQ(bridge_domain_part("br0", 12), "br0.12");
    EXPECT_EQ(bridge_domain_part("a,b:c d\te", 0), "a_b_c_d_e");
    EXPECT_EQ(bridge_domain_part(std::string(40, 'x'), 4094), std::string(22, 'x') + ".4094");
    EXPECT_TRUE(check_group(std::string(32, 'g')).ok());
    for (const char *wrong : {"", "a:b", "a,b", "a b", "a\nb", "123456789012345678901234567890123"}) {
        EXPECT_THAT(check_group(wrong).text, HasSubstr("expected")) << wrong;
    }
    EXPECT_TRUE(check_group(default_group()).ok());
}

TEST(Fabric, NamesWhatIsWrong)
{
    fabric_options options;
    EXPECT_TRUE(parse_fabric("bridges=10,ports=32,macs=100000,vteps=64,churn=1000/s,seed=7", options).ok());
    EXPECT_EQ(options.churn, 1000u);
    EXPECT_EQ(options.seed, 7u);
    EXPECT_THAT(parse_fabric("bridges=0", options).text, HasSubstr("bridges is \"0\", expected a number from 1"));
    EXPECT_THAT(parse_fabric("macs=1x", options).text, HasSubstr("macs is \"1x\""));
    EXPECT_THAT(parse_fabric("seed=99999999999", options).text, HasSubstr("seed"));
    EXPECT_THAT(parse_fabric("mac=1", options).text, HasSubstr("\"mac=1\" is none of"));
    EXPECT_THAT(parse_fabric("ports", options).text, HasSubstr("\"ports\" is none of"));
    EXPECT_THAT(parse_fabric("bridges=60000,ports=1000", options).text, HasSubstr("bridges times ports"));
}

// Slots whose hashes collide in their low bits or altogether, against a plain map.
TEST(SlotIndex, FindsEachSlotWhileItGrowsAndShrinks)
{
    const auto hash_of = [](uint32_t slot) { return slot % 7 == 0 ? 7 : (slot % 700) | (slot << 20); };
    slot_index index;
    std::set<uint32_t> held;
    const auto holds = [&](uint32_t slot) {
        return index.find(hash_of(slot), [&](uint32_t at) { return at == slot; }) == slot;
    };
    std::mt19937 random{1};
    EXPECT_FALSE(holds(0));
    for (uint32_t step = 0; step < 6000; step++) {
        const auto slot = static_cast<uint32_t>(random() % (step + 1));
        if (held.insert(slot).second) {
            index.insert(hash_of(slot), slot, hash_of);
        } else {
            held.erase(slot);
            index.erase(hash_of(slot), slot, hash_of);
        }
        if (step % 2000 == 1999) {
            for (uint32_t at = 0; at <= step; at++) {
                ASSERT_EQ(holds(at), held.contains(at)) << at;
            }
        }
    }
    const uint32_t high = 3'000'000;
    index.insert(hash_of(high), high, hash_of);
    EXPECT_TRUE(holds(high)) << "a slot number above the number of cells";
}

// Gives ids as the feeder does, and notes what a full dump did not report.
struct numbering_listener : shadow_listener {
    void entry_touched(uint32_t) override {}
    void entry_affected(uint32_t) override {}
    void port_added(uint32_t port) override { copy.ports[port].xcid = ++last_xcid; }
    void port_changed(uint32_t) override {}
    void port_going(uint32_t) override {}
    void domain_added(uint32_t domain) override { copy.domains[domain].bridge_id = ++last_id; }
    void domain_changed(uint32_t) override {}
    void domain_going(uint32_t) override {}
    void entry_unreported(uint32_t entry) override { unreported = entry; }
    void full_dump_ended(bool) override {}

    shadow_table copy{*this};
    uint32_t unreported = no_slot;
    uint32_t last_xcid = 0;
    uint16_t last_id = 0;
};

struct mapping_case {
    const char *name;
    std::vector<fdb_record> reported; // the last one is looked at
    standing expected;
    uint16_t flags = 0;
    uint8_t vtep = 0; // the last byte of the address
};

TEST(Mapping, GivesEachEntryItsStandingAndFlags)
{
    constexpr uint32_t bridge = 1, port = 2, vxlan = 3, loose = 4, other_port = 5;
    const fdb_record remote = of_device(vxlan, mac(1), vtep(9));
    const fdb_record behind = on_bridge(bridge, vxlan, mac(1));
    const fdb_destination ipv6{destination_kind::ipv6, {0xfd}, 0};
    const mapping_case cases[] = {
        {"learned", {with(on_bridge(bridge, port, mac(1)), 0, 0, 5000)}, standing::fed, 0x2000},
        {"age not known", {on_bridge(bridge, port, mac(1), fdb_stale)}, standing::fed, 0},
        {"static", {with(on_bridge(bridge, port, mac(1), fdb_noarp), 0, 0, 5000)}, standing::fed, 0x0002},
        {"local", {on_bridge(bridge, port, mac(1), fdb_permanent)}, standing::fed, 0x0004},
        {"the bridge's own", {on_bridge(bridge, bridge, mac(1), fdb_permanent)}, standing::fed, 0x0024},
        {"flags",
         {with(on_bridge(bridge, port, mac(1)), fdb_sticky | fdb_extern_learn | fdb_offloaded | fdb_locked)},
         standing::fed,
         0x8910},
        {"recorded flags", {with(on_bridge(bridge, port, mac(1)), 0, 0xffff)}, standing::fed, 0x4649},
        {"joined", {remote, behind}, standing::fed, 0x1000, 9},
        {"joined with the static device's entry",
         {of_device(vxlan, mac(1), vtep(9), fdb_permanent), behind},
         standing::fed,
         0x1000,
         9},
        {"a VXLAN device's local address", {remote, on_bridge(bridge, vxlan, mac(1), fdb_permanent)}, standing::fed, 4},
        {"the device's half", {behind, remote}, standing::joined},
        {"the device's alone", {remote}, standing::unpaired},
        {"overruled by the bridge", {on_bridge(bridge, port, mac(1)), remote}, standing::unpaired},
        {"flood list", {of_device(vxlan, {}, vtep(7), fdb_permanent)}, standing::fed, 0x1002, 7},
        {"flood list, another",
         {of_device(vxlan, {}, vtep(8), fdb_permanent), of_device(vxlan, {}, vtep(7), fdb_permanent),
          of_device(vxlan, {}, vtep(8), fdb_noarp)},
         standing::of_flood_list,
         0x1002,
         8},
        {"IPv6", {of_device(vxlan, mac(1), ipv6), behind}, standing::fed, 0},
        {"next hop", {of_device(vxlan, mac(1), {destination_kind::next_hop, {}, 5}), behind}, standing::fed, 0},
        {"receive filter", {of_device(port, mac(1), {})}, standing::receive_filter},
        {"no bridge", {of_device(loose, mac(1), vtep(1))}, standing::without_bridge},
        {"moved", {on_bridge(bridge, port, mac(1)), on_bridge(bridge, other_port, mac(1))}, standing::fed, 0},
    };
    for (const mapping_case &each : cases) {
        SCOPED_TRACE(each.name);
        numbering_listener with_ids;
        shadow_table &copy = with_ids.copy;
        copy.link_changed(link(port, "p", link_kind::other, bridge));
        copy.link_changed(link(bridge, "br", link_kind::bridge));
        copy.link_changed(link(vxlan, "vx", link_kind::vxlan, bridge, 100));
        copy.link_changed(link(loose, "lo", link_kind::vxlan));
        copy.link_changed(link(other_port, "q", link_kind::other, bridge));
        for (const fdb_record &record : each.reported) {
            copy.fdb_changed(record);
        }
        const uint32_t entry = copy.find(key_of(each.reported.back()));
        l2fib_mac_edm_entry_t descriptor{};
        EXPECT_EQ(describe(copy, entry, 1000, descriptor), each.expected);
        EXPECT_EQ(descriptor.flags, each.flags);
        EXPECT_EQ(descriptor.vtep_addr[3], each.vtep);
        EXPECT_EQ(descriptor.hw_timestamp, (each.flags & EDM_MAC_TIMESTAMP_VALID) != 0 ? 6u : 0u);
    }
}

TEST(ShadowTable, KeepsAPortForEachVlanAndVni)
{
    numbering_listener with_ids;
    shadow_table &copy = with_ids.copy;
    copy.fdb_changed(on_bridge(1, 2, mac(1), fdb_reachable, 10)); // before its links
    const uint32_t entry = copy.find(key_of(on_bridge(1, 2, mac(1), fdb_reachable, 10)));
    EXPECT_EQ(copy.domains[copy.ports[copy.entries[entry].port].domain].vlan, 10);
    link_record device = link(2, "vx", link_kind::vxlan, 1, 100);
    copy.link_changed(link(1, "br", link_kind::bridge));
    copy.link_changed(device);
    EXPECT_EQ(copy.ports[copy.entries[entry].port].key, (port_key{1, 2, link_kind::vxlan, 10, 100}));
    device.vni = 200;
    copy.link_changed(device);
    EXPECT_EQ(copy.ports[copy.entries[entry].port].key.vni, 200u);
    copy.fdb_changed(on_bridge(1, 2, mac(2), fdb_reachable, 10));
    shadow_port &walked = copy.ports[copy.entries[entry].port];
    walked.resume = walked.first;
    copy.fdb_gone(on_bridge(1, 2, mac(1), fdb_reachable, 10));
    EXPECT_EQ(walked.resume, walked.last) << "a walk stands at an entry that has gone";
    copy.fdb_changed(on_bridge(1, 2, mac(1), fdb_reachable, 10));
    device.master = 0;
    copy.link_changed(device);
    EXPECT_FALSE(copy.entries[entry].alive);
    copy.link_gone(1);
    copy.link_gone(2);
    EXPECT_EQ(copy.living, 0u);
    EXPECT_EQ(copy.known_links, 0u);
}

TEST(ShadowTable, NotesAnUnreportedEntryHoweverManyDumpsFail)
{
    numbering_listener with_ids;
    shadow_table &copy = with_ids.copy;
    const fdb_record record = with(on_bridge(1, 2, mac(1)), 0, 0, -5'000'000'000);
    copy.full_dump_begun();
    copy.fdb_dumped(record);
    const uint32_t entry = copy.find(key_of(record));
    EXPECT_EQ(copy.record_of(entry), record) << "a time before the start of the clock";
    for (uint32_t failed = 1; failed < 3 * full_dump_mask; failed++) {
        copy.full_dump_ended(false);
        copy.full_dump_begun();
        ASSERT_GT(copy.dumps_behind(copy.entries[entry].full_dump), 0U) << failed;
    }
    EXPECT_EQ(with_ids.unreported, no_slot);
    copy.full_dump_ended(true);
    EXPECT_EQ(with_ids.unreported, entry);
    EXPECT_GE(copy.dumps_behind(copy.entries[entry].full_dump), full_dump_period - 1);
}

// One address in three VLANs of a bridge, on one device for all VNIs, behind a tunnel end for each of two VNIs.
struct vlan_map : testing::Test {
    static constexpr uint32_t bridge = 1, vxlan = 2;

    vlan_map()
    {
        of_bridge.vlan_aware = true;
        of_vxlan.external = true;
    }

    static fdb_record remote(uint32_t vni, uint8_t end, mac_address address)
    {
        fdb_record record = of_device(vxlan, address, vtep(end), fdb_permanent);
        record.source_vni = vni;
        return record;
    }
    void fill()
    {
        copy.link_changed(of_vxlan);
        copy.link_changed(of_bridge);
        for (const uint16_t vlan : {uint16_t{10}, uint16_t{20}, uint16_t{30}}) {
            copy.fdb_changed(on_bridge(bridge, vxlan, mac(1), fdb_reachable, vlan));
        }
        for (const mac_address &address : {mac(1), mac_address{}}) {
            copy.fdb_changed(remote(100, 1, address));
            copy.fdb_changed(remote(200, 2, address));
        }
    }
    // What an entry of a VLAN shows: the last byte of the tunnel's end, and the VNI.
    std::pair<uint32_t, uint32_t> shown(uint16_t vlan)
    {
        const uint32_t entry = copy.find(key_of(on_bridge(bridge, vxlan, mac(1), fdb_reachable, vlan)));
        l2fib_mac_edm_entry_t descriptor{};
        EXPECT_EQ(describe(copy, entry, 0, descriptor), standing::fed);
        return {descriptor.vtep_addr[3], copy.ports[copy.entries[entry].port].key.vni};
    }
    uint16_t flood_vlan(uint32_t vni, uint8_t end)
    {
        const uint32_t entry = copy.find(key_of(remote(vni, end, {})));
        return copy.domains[copy.ports[copy.entries[entry].port].domain].vlan;
    }
    void set_vlan_aware(bool is_aware)
    {
        of_bridge.vlan_aware = is_aware;
        copy.link_changed(of_bridge);
    }

    numbering_listener with_ids;
    shadow_table &copy = with_ids.copy;
    link_record of_bridge = link(bridge, "br", link_kind::bridge);
    link_record of_vxlan = link(vxlan, "vx", link_kind::vxlan, bridge);
};

TEST_F(vlan_map, JoinsEntriesWhateverComesFirst)
{
    const vni_by_vlan map{{10, 100}, {20, 200}};
    for (const bool map_first : {true, false}) {
        SCOPED_TRACE(map_first);
        if (map_first) {
            copy.vlan_vnis_changed(vxlan, map);
        }
        fill();
        copy.vlan_vnis_changed(vxlan, map);
        EXPECT_EQ(shown(10), std::pair(1u, 100u));
        EXPECT_EQ(shown(20), std::pair(2u, 200u));
        EXPECT_EQ(shown(30), std::pair(0u, 0u)); // its VLAN has no VNI
        EXPECT_EQ(flood_vlan(200, 2), 20);
        copy.vlan_vnis_changed(vxlan, {{10, 200}}); // the map changes
        EXPECT_EQ(shown(10), std::pair(2u, 200u));
        EXPECT_EQ(shown(20), std::pair(0u, 0u));
        EXPECT_EQ(flood_vlan(200, 2), 10);
        copy.vlan_vnis_changed(vxlan, {}); // and goes
        EXPECT_EQ(shown(10), std::pair(0u, 0u));
        EXPECT_EQ(flood_vlan(200, 2), 0);
        set_vlan_aware(false);
        EXPECT_NE(shown(10).first, 0u); // without VLANs any tunnel end is as good
        set_vlan_aware(true);
        EXPECT_EQ(shown(10), std::pair(0u, 0u));
        copy.link_gone(vxlan);
        copy.link_gone(bridge);
        EXPECT_EQ(copy.living, 0u);
        EXPECT_EQ(copy.known_links, 0u);
    }
}

// ---- Recorded tables ----

struct recording : testing::Test {
    recording()
    {
        char name[] = "/tmp/recordedXXXXXX";
        directory = mkdtemp(name);
        write("links.json", R"([{"ifindex":1,"ifname":"br0","linkinfo":{"info_kind":"bridge"}},
                                {"ifindex":2,"ifname":"p1","master":"br0"}])");
        write("fdb.json", "[]");
    }
    ~recording() override { std::filesystem::remove_all(directory); }

    void write(const char *name, const std::string &text) const { std::ofstream(directory + "/" + name) << text; }

    std::string directory;
};

TEST_F(recording, NamesWhatIsMalformed)
{
    struct malformed_case {
        const char *file;
        const char *text;
        const char *expected;
    };
    const malformed_case cases[] = {
        {"links.json", "[{", "links.json: is not JSON"},
        {"links.json", "{}", "links.json: is not a list"},
        {"links.json", R"([{"ifname":"a"}])", "links.json: element 0: \"ifindex\""},
        {"links.json", R"([{"ifindex":-1,"ifname":"a"}])", "number from 0 to 2147483647"},
        {"links.json", R"([{"ifindex":1,"ifname":"a"},{"ifindex":2,"ifname":"a"}])",
         "element 1: \"ifname\" is not unique"},
        {"links.json", R"([{"ifindex":1,"ifname":"a"},{"ifindex":1,"ifname":"b"}])", "\"ifindex\" is not unique"},
        {"links.json", R"([{"ifindex":1,"ifname":"a","linkinfo":7}])", "\"linkinfo\" is not an object"},
        {"fdb.json", "[7]", "fdb.json: element 0: is not an object"},
        {"fdb.json", "[[{}]]", "fdb.json: element 0: is not an object"},
        {"fdb.json", "7", "fdb.json: is not a list"},
        {"fdb.json", "", "fdb.json: is not JSON"},
        {"fdb.json", "[\n  {\"mac\" 7}]", "line 2, column 10"},
        {"fdb.json", "[\"a\xff\"]", "invalid string: ill-formed UTF-8"},
        {"fdb.json", "[]\n[]", "line 2, column 1"},
        {"fdb.json", R"([{"ifname":"p1"}])", "\"mac\" is not there"},
        {"fdb.json", R"([{"mac":"02:00:00:00:00:0g"}])", "address of six bytes"},
        {"fdb.json", R"([{"mac":"02:00:00:00:00:01","ifname":"x"}])", "\"ifname\" is not the name of a link"},
        {"fdb.json", R"([{"mac":"02:00:00:00:00:01","ifname":"p1"}])", "\"master\""},
        {"fdb.json", R"([{"mac":"02:00:00:00:00:01","ifname":"p1","flags":"self"}])", "\"flags\" is not a list"},
        {"fdb.json", R"([{"mac":"02:00:00:00:00:01","ifname":"p1","master":"br0","vlan":4095}])", "0 to 4094"},
        {"fdb.json", R"([{"mac":"02:00:00:00:00:01","ifname":"p1","master":"br0","state":"x"}])", "\"state\""},
        {"fdb.json", R"([{"mac":"02:00:00:00:00:01","ifname":"p1","flags":["self"],"dst":"10.0.0"}])", "\"dst\""},
    };
    std::unique_ptr<plane> loaded;
    for (const malformed_case &each : cases) {
        write("links.json", R"([{"ifindex":1,"ifname":"br0"},{"ifindex":2,"ifname":"p1","master":"br0"}])");
        write(each.file, each.text);
        const base::result result = load_recorded_plane(directory, loaded);
        EXPECT_FALSE(result.ok()) << each.text;
        EXPECT_THAT(result.text, HasSubstr(each.expected));
        EXPECT_THAT(result.text, HasSubstr(directory));
    }
    const std::string entry = R"({"mac":"02:00:00:00:00:01","ifname":"p1","master":"br0"})";
    write("fdb.json", "[" + entry + "," + entry.substr(0, 30));
    EXPECT_THAT(load_recorded_plane(directory, loaded).text, HasSubstr("is not JSON")); // cut off
    write("fdb.json", R"([{"x":")" + std::string(17 << 20, 'x') + "\"}]");
    EXPECT_THAT(load_recorded_plane(directory, loaded).text, HasSubstr("element 0: its texts are longer"));
    EXPECT_THAT(load_recorded_plane("/nowhere", loaded).text, HasSubstr("/nowhere/links.json: cannot be read"));
    EXPECT_EQ(loaded, nullptr);
}

// ---- Through the module ----

using lines = std::set<std::string>;

// An entry of the cache: "DOMAIN PORT MAC FLAGS VTEP", such as "lab:br0 vx0/100 020000000003 1000 3". FLAGS are
// EDM_MAC_ bits in hex, VTEP is the last byte of the address. PORT is "own" for the bridge's own entries; see name_of.
std::string line(const std::string &domain, const std::string &port, const mac_address &address, uint32_t flags,
                 uint32_t vtep_number)
{
    const bool floods = address == mac_address{}; // one entry for all destinations, which may differ in everything
    flags &= floods ? 0 : EDM_MAC_STATIC | EDM_MAC_LOCAL | EDM_MAC_BD_OWN | EDM_MAC_VNI;
    char text[160];
    std::snprintf(text, sizeof(text), "%s %s %02x%02x%02x%02x%02x%02x %04x %u", domain.c_str(), port.c_str(),
                  address[0], address[1], address[2], address[3], address[4], address[5], flags,
                  floods ? 0 : vtep_number);
    return text;
}

// One device has a port for each VNI.
std::string name_of(const std::string &device, uint32_t vni)
{
    return device + (vni != 0 ? "/" + std::to_string(vni) : "");
}

lines cached()
{
    struct reading {
        lines found;
        std::map<uint32_t, std::string> ports;
    } read;
    for (const port_view &port : ports()) {
        read.ports[port.xcid] = name_of(port.name, port.vni);
    }
    l2fm_edm_table_walk_all_macs(
        [](l2fm_edm_mac_t *entry, void *cookie) -> uint32_t {
            auto &to = *static_cast<reading *>(cookie);
            mac_address address;
            std::copy_n(entry->mac_addr, address.size(), address.begin());
            const bool remote = (entry->flags & EDM_MAC_VNI) != 0;
            const auto *tunnel = reinterpret_cast<const l2fm_edm_mac_vni_t *>(entry);
            const std::string port = entry->bp->xcid == EDM_XCID_DUMMY ? "own" : to.ports[entry->bp->xcid];
            to.found.insert(
                line(entry->bp->bd->bd_name, port, address, entry->flags, remote ? tunnel->vtep_addr[3] : 0));
            return 1;
        },
        &read);
    return read.found;
}

// What only one of them holds, for a short message.
lines difference(const lines &left, const lines &right)
{
    lines found;
    std::set_symmetric_difference(left.begin(), left.end(), right.begin(), right.end(),
                                  std::inserter(found, found.end()));
    return found;
}

struct placed {
    std::string line;
    std::string tunnel_end; // "port>VTEP,VNI"; empty: none
};

// Each entry that has to be in the cache and its place there, by looking at everything the plane holds.
std::vector<placed> place_all(const scripted &plane)
{
    std::vector<placed> found;
    const auto &links = plane.links;
    for (const auto &[key, record] : plane.holds) {
        const link_record &device = links.at(record.ifindex);
        const uint32_t bridge = record.self ? device.master : record.master;
        if (bridge == 0 || (record.self && (device.kind != link_kind::vxlan || record.mac != mac_address{}))) {
            continue; // a device's own entry is fed with the bridge's, if that is there
        }
        uint32_t flags = record.state == fdb_noarp ? EDM_MAC_STATIC : record.state == fdb_permanent ? EDM_MAC_LOCAL : 0;
        fdb_record tunnel = record;
        if (!record.self && record.state != fdb_permanent && device.kind == link_kind::vxlan) {
            const auto own =
                plane.holds.find({record.ifindex, true, 0, source_vni(device, record.mac), record.mac, {}});
            tunnel = own != plane.holds.end() ? own->second : tunnel;
        }
        const fdb_destination &to = tunnel.destination;
        const bool is_remote = to.kind == destination_kind::ipv4;
        flags |= record.ifindex == bridge ? EDM_MAC_BD_OWN | EDM_MAC_LOCAL : 0;
        flags |= is_remote ? EDM_MAC_VNI : 0;
        const std::string vlan = record.vlan != 0 ? "." + std::to_string(record.vlan) : "";
        const std::string port = name_of(device.name, device.external && record.self ? record.source_vni : device.vni);
        const uint32_t vni = to.vni != 0 ? to.vni : tunnel.source_vni != 0 ? tunnel.source_vni : device.vni;
        const std::string end = port + ">" + std::to_string(to.address[3]) + "," + std::to_string(vni);
        found.push_back({line("lab:" + links.at(bridge).name + vlan, record.ifindex == bridge ? "own" : port,
                              record.mac, flags, is_remote ? to.address[3] : 0),
                         is_remote ? end : ""});
    }
    return found;
}

lines expected(const scripted &plane)
{
    lines found;
    for (const placed &each : place_all(plane)) {
        found.insert(each.line);
    }
    return found;
}

struct fed_module : started_module {
    void expect_equal()
    {
        EXPECT_THAT(difference(cached(), expected(*it)), IsEmpty());
        EXPECT_EQ(audit_table(), "");
    }
};

TEST_F(fed_module, EachScopeIsBroughtUpToDate)
{
    on_cache([&] {
        it->set(on_bridge(br0, p0, mac(1)));
        it->set(on_bridge(br0, br0, mac(2), fdb_permanent));
        it->set(on_bridge(br1, p2, mac(1), fdb_noarp));
        it->set(of_device(vx0, mac(3), vtep(3)));
        it->set(on_bridge(br0, vx0, mac(3)));
        it->set(of_device(vx0, {}, vtep(4), fdb_permanent));
        it->set(of_device(vx0, {}, vtep(5), fdb_permanent));
        it->set(of_device(vx2, {}, vtep(6), fdb_permanent));
    });
    resync();
    expect_equal();
    EXPECT_EQ(l2fm_edm_table_mac_get_pool()->vtep_cnt, 4u);

    // What is wrong in the cache goes with the scope's resync, and with no other's.
    const auto feed_wrong = [&](const char *port, uint32_t number) {
        l2fib_mac_edm_entry_t wrong{};
        wrong.xcid = xcid_of(port);
        wrong.bridge_id = static_cast<uint16_t>(id_of("lab:br0"));
        std::copy_n(mac(number).begin(), 6, wrong.mac_addr);
        EXPECT_EQ(l2fib_mac_edm_add(&wrong), 0u);
    };
    feed_wrong("p0", 100);
    feed_wrong("p1", 101);
    resync(EDM_RESYNC_BD, id_of("lab:br1"));
    EXPECT_EQ(cached().size(), expected(*it).size() + 2);
    resync(EDM_RESYNC_BP, xcid_of("p0"));
    EXPECT_EQ(cached().size(), expected(*it).size() + 1);
    resync(EDM_RESYNC_BD, id_of("lab:br0"));
    expect_equal();
    EXPECT_EQ(it->asked, 0u);
}

TEST_F(fed_module, ATunnelEndThatOneEntryLeavesAndAnotherJoinsStays)
{
    const auto send_to = [&](uint32_t number, uint8_t end) {
        it->set(of_device(vx0, mac(number), vtep(end)));
        it->set(on_bridge(br0, vx0, mac(number)));
    };
    on_cache([&] { send_to(1, 1); });
    resync();
    on_cache([&] {
        send_to(1, 2);
        send_to(2, 1);
    });
    resync();
    expect_equal();
    EXPECT_EQ(l2fm_edm_table_mac_get_pool()->vtep_cnt, 2u);
}

TEST_F(fed_module, NamesThatCannotStandAreChanged)
{
    on_cache([&] {
        it->set(link(30, "a,b", link_kind::bridge));
        it->set(link(31, "a:b", link_kind::bridge));
    });
    EXPECT_NE(id_of("lab:a_b"), 0u);
    const std::vector<domain_view> views = domains();
    EXPECT_EQ(views.back().name, "lab:a_b~" + std::to_string(views.back().bridge_id));
    EXPECT_GE(health().notes.size(), 2u);
}

TEST_F(fed_module, AMovedPortGetsANewXcidAndARenamedBridgeKeepsItsId)
{
    const uint32_t xcid = xcid_of("p0");
    const uint32_t id = id_of("lab:br0");
    const uint32_t ends = id_of("lab:br1");
    on_cache([&] {
        it->set(link(p0, "p0", link_kind::other, br1));
        it->set(on_bridge(br1, p0, mac(1)));
        it->set(link(br0, "core", link_kind::bridge));
    });
    EXPECT_NE(xcid_of("p0"), xcid);
    const auto before = objects();
    EXPECT_EQ(before->find_port(static_cast<uint16_t>(ends), xcid_of("p0"))->domain, "lab:br1");
    EXPECT_EQ(before->find_port(static_cast<uint16_t>(id), xcid_of("p1"))->domain, "lab:core");
    EXPECT_EQ(id_of("lab:br0"), 0u);
    EXPECT_EQ(id_of("lab:core"), id);
    resync();
    expect_equal();
    on_cache([&] { it->to->link_gone(br1); });
    EXPECT_EQ(id_of("lab:br1"), 0u);
    EXPECT_EQ(objects()->find_domain(static_cast<uint16_t>(ends)), nullptr);
    EXPECT_EQ(before->find_domain(static_cast<uint16_t>(ends))->name, "lab:br1") << "a reader's views changed";
}

TEST_F(fed_module, AStormCostsTheCacheOneUpdate)
{
    on_cache([&] {
        for (uint32_t turn = 0; turn < 1000; turn++) {
            it->set(on_bridge(br0, turn % 2 != 0 ? p0 : p1, mac(1)));
        }
    });
    EXPECT_EQ(health().events_merged, 999u);
    resync();
    expect_equal();
}

// Changes of every kind. What the cache holds, and all that is counted beside it, is counted again from the plane.
ordered_page read_ordered(row_order order, const order_position &from, uint32_t max_rows)
{
    order_selection selection = select_ahead({order}, from, max_rows);
    return read_selection(selection, max_rows);
}

struct churn : changing_module {
    void expect_counted(size_t limit)
    {
        const lines shown = cached();
        lines due;
        std::set<std::string> ends;
        uint64_t missing = 0;
        for (const placed &each : place_all(*it)) {
            due.insert(each.line);
            missing += shown.contains(each.line) ? 0U : 1U;
            ends.insert(shown.contains(each.line) ? each.tunnel_end : "");
        }
        ASSERT_EQ(shown.size(), std::min(due.size(), limit)) << testing::PrintToString(difference(shown, due));
        ASSERT_TRUE(std::includes(due.begin(), due.end(), shown.begin(), shown.end()));
        const health_view now = health();
        ASSERT_EQ(now.missing, missing);
        ASSERT_EQ(now.feeds_full, 0u); // the feeder's count and the table's never differ
        ASSERT_EQ(now.state, missing != 0 ? completeness::limited : completeness::whole);
        std::map<uint32_t, std::string> names;
        for (const port_view &each : ports()) {
            names[each.xcid] = name_of(each.name, each.vni);
            const auto has = [&](const std::string &one) {
                return one.starts_with(each.domain + " " + names[each.xcid] + " ");
            };
            const entry_counts counts = *count_port(each.xcid);
            ASSERT_EQ(counts.total + counts.local, std::ranges::count_if(shown, has))
                << each.domain << names[each.xcid];
        }
        for (const domain_view &each : domains()) {
            const auto has = [&](const std::string &one) { return one.starts_with(each.name + " "); };
            const entry_counts counts = *count_domain(each.bridge_id);
            ASSERT_EQ(counts.total + counts.local, std::ranges::count_if(shown, has)) << each.name;
        }
        std::set<std::string> counted{""};
        const auto text = [&](uint32_t xcid, uint8_t number, uint32_t vni) {
            return names[xcid] + ">" + std::to_string(number) + "," + std::to_string(vni);
        };
        std::set<std::pair<uint32_t, uint8_t>> cached_ends;
        for (const vtep_view &each : read_vteps({}, 10'000)) {
            counted.insert(text(each.xcid, each.address[3], each.vni));
            cached_ends.emplace(each.xcid, each.address[3]);
        }
        ASSERT_EQ(l2fm_edm_table_mac_get_pool()->vtep_cnt, cached_ends.size());
        ends.insert("");
        ASSERT_THAT(difference(counted, ends), IsEmpty());
        for (const mac_row &each : read_rows({}, {}, 10'000).rows) {
            ASSERT_TRUE((each.flags & EDM_MAC_VNI) == 0 || ends.contains(text(each.xcid, each.vtep[3], each.vni)))
                << text(each.xcid, each.vtep[3], each.vni);
        }
    }

    // Reads all rows by pages of several sizes: each row comes once, in each order.
    void expect_read_once(uint32_t max_rows)
    {
        const size_t count = cached().size();
        std::set<std::pair<uint32_t, mac_address>> placed, created, seen;
        int64_t last_seen = 0;
        row_position place;
        for (bool more = true; more;) {
            const row_page page = read_rows({}, place, max_rows);
            for (const mac_row &row : page.rows) {
                ASSERT_TRUE(placed.emplace(row.xcid, row.mac).second);
            }
            place = page.end;
            more = page.more;
        }
        const auto read_order = [&](row_order order, auto take) {
            order_position at;
            for (bool more = true; more;) {
                const ordered_page page = read_ordered(order, at, max_rows);
                std::ranges::for_each(page.page.rows, take);
                at = page.end;
                more = page.page.more;
            }
        };
        read_order(row_order::created,
                   [&](const mac_row &row) { EXPECT_TRUE(created.emplace(row.xcid, row.mac).second); });
        read_order(row_order::last_seen, [&](const mac_row &row) {
            const int64_t next = row.last_seen != 0 ? row.last_seen : INT64_MAX; // rows that do not age come last
            EXPECT_LE(std::exchange(last_seen, next), next);
            EXPECT_TRUE(seen.emplace(row.xcid, row.mac).second);
        });
        EXPECT_EQ(placed.size(), count);
        EXPECT_EQ(created.size(), count);
        EXPECT_EQ(seen.size(), count);
    }
};

TEST_F(churn, LeavesInTheCacheWhatThePlaneHolds)
{
    for (const uint32_t limit : {2'000'000u, 60u}) {
        restart({.mac_limit = limit}, limit == 60);
        add_external_device();
        for (uint32_t round = 0; round < 120; round++) {
            SCOPED_TRACE(std::to_string(limit) + ", round " + std::to_string(round));
            change_for_a_round(round);
            expect_counted(limit);
            expect_read_once(round % 3 == 0 ? 1 : 7);
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_EQ(audit_table(), "");
    }
}

TEST_F(fed_module, ADegradedPlaneLosesNothingThatLives)
{
    on_cache([&] {
        for (uint32_t number = 0; number < 1000; number++) {
            it->set(on_bridge(br0, p0, mac(number)));
        }
        it->set(of_device(vx0, mac(5000), vtep(1)));
        it->set(on_bridge(br0, vx0, mac(5000)));
        it->set(of_device(vx0, {}, vtep(2), fdb_permanent));
    });
    resync();
    expect_equal();
    // An overrun: entries go and come unheard; some were reported gone and are back, or are now elsewhere.
    on_cache([&] {
        it->clean = false;
        for (uint32_t number = 0; number < 300; number++) {
            const fdb_record record = on_bridge(br0, p0, mac(number));
            it->drop(record, number < 200);
            if (number < 100) {
                it->set(on_bridge(br0, number < 50 ? p0 : p1, mac(number)), false);
            }
        }
        it->to->fdb_gone(of_device(vx0, {}, vtep(2), fdb_permanent));
        it->to->fdb_gone(on_bridge(br0, vx0, mac(5000)));
    });
    resync();
    const lines alive = expected(*it);
    const lines shown = cached();
    EXPECT_TRUE(std::includes(shown.begin(), shown.end(), alive.begin(), alive.end()));
    EXPECT_EQ(shown.size(), alive.size() + 100); // whose end was not reported
    EXPECT_EQ(health().resyncs_degraded, 1u);
    EXPECT_GE(health().doubtful_kept, 50u);
    // Nothing goes while the plane cannot be asked.
    on_cache([&] {
        it->mute = true;
        it->drop(on_bridge(br0, p0, mac(900)));
    });
    resync(EDM_RESYNC_BD, id_of("lab:br0"));
    EXPECT_THAT(difference(cached(), shown), IsEmpty());
    on_cache([&] {
        it->mute = false;
        it->list(true);
    });
    resync();
    expect_equal();
}

TEST_F(fed_module, WhatNoChangeReportedIsFoundByQuestions)
{
    on_cache([&] {
        it->silent = true;
        for (uint32_t number = 0; number < 1000; number++) {
            it->set(on_bridge(br0, p0, mac(number)));
        }
        it->set(of_device(vx0, mac(5000), {destination_kind::next_hop, {}, 7}));
        it->set(on_bridge(br0, vx0, mac(5000)));
    });
    resync();
    // A page asks about its rows, a single address is asked for everywhere.
    on_cache([&] {
        it->drop(on_bridge(br0, p0, mac(1)), false);
        it->set(on_bridge(br0, p1, mac(2)), false);
        it->set(on_bridge(br1, p2, mac(3000)), false);
    });
    EXPECT_EQ(read_rows({}, {}, 2000).rows.size(), 1000u);
    EXPECT_TRUE(find_rows(mac(1), 0).rows.empty());
    EXPECT_EQ(find_rows(mac(2), 0).rows.at(0).port->name, "p1");
    EXPECT_EQ(find_rows(mac(3000), 0).rows.at(0).domain->name, "lab:br1");
    resync();
    expect_equal();
    // Reported in the wrong order by two processors: gone, then changed.
    on_cache([&] {
        it->set(on_bridge(br0, p0, mac(10)));
        it->to->fdb_gone(on_bridge(br0, p0, mac(10)));
    });
    resync();
    expect_equal();
    // A next hop goes with its entries.
    on_cache([&] {
        it->drop(of_device(vx0, mac(5000), {destination_kind::next_hop, {}, 7}), false);
        it->to->next_hop_gone(7);
    });
    on_cache([] {}); // behind the question
    EXPECT_EQ(health().next_hop_destinations, 0u);
    resync();
    expect_equal();
}

// Other threads ask the plane. What changes until the cache thread takes the answer is newer than the answer.
TEST_F(fed_module, AnAnswerDoesNotUndoALaterChange)
{
    struct late_case {
        const char *name;
        std::optional<uint32_t> port_before, port_after;
    };
    constexpr late_case cases[] = {
        {"gone", p0, std::nullopt},
        {"moved", p0, p1},
        {"new", std::nullopt, p0},
    };
    const auto by_age = [] { return std::optional(read_ordered(row_order::last_seen, {}, 10)); };
    for (const bool is_sorted : {false, true}) {
        restart({}, true);
        for (const late_case &each : cases) {
            SCOPED_TRACE(each.name);
            const auto put = [&](std::optional<uint32_t> port) {
                fdb_record record = with(on_bridge(br0, port.value_or(p0), mac(1)), 0, 0, 1000);
                on_cache([&] { port ? it->set(record) : it->drop(record); });
                resync();
            };
            put(each.port_before);
            it->after_query = [&] { put(each.port_after); };
            is_sorted ? static_cast<void>(by_age()) : static_cast<void>(find_rows(mac(1), 0));
            it->after_query = nullptr;
            resync();
            expect_equal();
            EXPECT_EQ(completeness_watch().worst(), completeness::whole);
        }
    }
}

// A list selects entries long before it reads them. What is seen again meanwhile is shown once, behind the others.
TEST_F(fed_module, AListShowsOnceWhatIsSeenAgain)
{
    for (const row_order order : {row_order::last_seen, row_order::created}) {
        restart({}, true);
        const auto see = [&](uint32_t port, uint32_t number, int64_t updated_ms) {
            on_cache([&] { it->set(with(on_bridge(br0, port, mac(number)), 0, 0, updated_ms)); });
            resync();
        };
        std::vector<mac_address> shown;
        const auto show = [&](order_selection &selection, uint32_t max_rows) {
            const ordered_page page = read_selection(selection, max_rows);
            std::ranges::transform(page.page.rows, std::back_inserter(shown), &mac_row::mac);
        };
        for (uint32_t number = 1; number <= 4; number++) {
            see(p0, number, int64_t{1000} * number);
        }
        order_selection selection = select_ahead({order}, {}, 100);
        show(selection, 1);
        see(p0, 5, INT64_MAX / 2);
        selection = select_ahead({order}, selection.at, 100);
        on_cache([&] {
            it->drop(on_bridge(br0, p0, mac(2)));
            it->drop(on_bridge(br0, p0, mac(3)));
        });
        resync();
        see(p1, 3, INT64_MAX / 2);
        see(p0, 4, 3'990); // the plane reports the same time a little earlier
        for (show(selection, 1); selection.more || selection.next < selection.keys.size(); show(selection, 1)) {
            selection = selection.next == selection.keys.size() ? select_ahead({order}, selection.at, 100) : selection;
        }
        std::ranges::sort(shown.begin() + std::min<ptrdiff_t>(2, std::ssize(shown)), shown.end());
        EXPECT_EQ(shown, (std::vector{mac(1), mac(4), mac(3), mac(5)}));
    }
}

// No mark stays without a dump that will take it away.
TEST_F(fed_module, DegradedAnswersEnd)
{
    restart({}, true);
    const fdb_destination by_next_hop{destination_kind::next_hop, {}, 7};
    on_cache([&] {
        it->set(of_device(vx0, mac(1), by_next_hop));
        it->set(of_device(vx0, mac(2), by_next_hop));
        it->list(false);
    });
    EXPECT_EQ(completeness_watch().worst(), completeness::whole);
    // An entry that is about to age out changes its state silently: nothing was missed.
    on_cache([&] {
        it->set(on_bridge(br0, p0, mac(3)));
        it->set(on_bridge(br0, p0, mac(3), fdb_stale), false);
        it->list(true);
    });
    EXPECT_EQ(health().proof.listed_missing, 0u);
    on_cache([&] {
        it->mute_keys = 1; // the question fails once, and is answered at once
        it->to->next_hop_gone(7);
    });
    for (int turn = 0; turn < 4; turn++) {
        on_cache([] {});
    }
    EXPECT_TRUE(completeness_watch().worst() == completeness::whole || it->relisted == 1);
    // A destination of several, about which the plane never knows: a clean full dump decides.
    on_cache([&] {
        it->set(of_device(vx0, {}, by_next_hop, fdb_permanent));
        it->list(true);
        it->mute = true;
        it->to->next_hop_gone(7);
    });
    on_cache([&] { it->mute = false; });
    on_cache([&] {
        it->mute_of_lists = true;
        it->list(true);
    });
    for (int tries = 0; completeness_watch().worst() != completeness::whole && tries < 30; tries++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(completeness_watch().worst(), completeness::whole);
    resync();
    expect_equal();
}

TEST_F(fed_module, ASampleFindsWhatNoChangeReported)
{
    restart({}, true);
    on_cache([&] {
        for (uint32_t number = 0; number < 100; number++) {
            it->set(on_bridge(br0, p0, mac(number)));
        }
    });
    resync();
    // An address that moves all the time is known elsewhere whenever the plane is asked.
    on_cache([&] {
        it->before_drain = [this, turn = 0]() mutable { it->set(on_bridge(br0, ++turn % 2 != 0 ? p1 : p0, mac(60))); };
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(2500)); // two samples or three
    on_cache([&] { it->before_drain = nullptr; });
    EXPECT_EQ(completeness_watch().worst(), completeness::whole);
    const completeness_watch since;
    on_cache([&] { it->drop(on_bridge(br0, p0, mac(50)), false); });
    for (int tries = 0; health().proof.disagreed == 0 && tries < 100; tries++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(health().proof.disagreed, 1u);
    EXPECT_EQ(it->relisted, 1u);
    EXPECT_EQ(completeness_watch().worst(), completeness::degraded);
    on_cache([&] { it->list(true); });
    EXPECT_EQ(completeness_watch().worst(), completeness::whole);
    EXPECT_EQ(since.worst(), completeness::degraded); // an answer that was made meanwhile says so
    resync();
    expect_equal();
}

// The look that runs once a second takes the plane's changes, and one of them may be the end of a port.
TEST_F(fed_module, NothingIsFedWhileARemovalIsOnItsWay)
{
    restart({}, true);
    on_cache([&] { it->set(on_bridge(br0, p1, mac(1))); });
    resync();
    bool has_arrived = false;
    std::promise<bool> had_arrived; // when the plane was asked
    on_cache([&] {
        it->before_drain = [&, has_ended = false]() mutable {
            if (std::exchange(has_ended, true)) {
                return;
            }
            it->holds.clear();
            it->links.erase(p1);
            it->to->link_gone(p1);
            const auto arrive = [](void *cookie) { *static_cast<bool *>(cookie) = true; };
            host::event_post(host::event_manager_find(EDM_CACHE_THREAD_PATH), arrive, nullptr, &has_arrived);
            it->set(on_bridge(br0, p0, mac(2)));
            it->after_query = [&] { had_arrived.set_value(has_arrived); };
        };
    });
    EXPECT_TRUE(had_arrived.get_future().get());
    on_cache([&] { it->before_drain = nullptr; });
    resync();
    expect_equal();
}

TEST_F(fed_module, AFullTableSaysWhatItLacksAndTakesItBack)
{
    restart({.mac_limit = 600}, false);
    on_cache([&] {
        for (uint32_t number = 0; number < 500; number++) {
            it->set(on_bridge(br0, p0, mac(number)));
            it->set(on_bridge(br1, p2, mac(number)));
        }
    });
    resync();
    EXPECT_EQ(cached().size(), 600u);
    EXPECT_EQ(completeness_watch().worst(), completeness::limited);
    EXPECT_EQ(health().missing, 400u);
    EXPECT_EQ(health().evictions, 400u);
    uint64_t evicted = 0;
    for (const limited_view &each : health().limited) {
        evicted += each.evicted;
    }
    EXPECT_EQ(evicted, 400u);
    const uint64_t feeds = health().feeds;
    resync();
    EXPECT_EQ(health().feeds, feeds);
    on_cache([&] {
        for (uint32_t number = 0; number < 450; number++) {
            it->drop(on_bridge(br0, p0, mac(number)));
        }
    });
    resync();
    expect_equal();
    EXPECT_EQ(completeness_watch().worst(), completeness::whole);
}

// Bridges br0 to br2 have an id, and so have their seven ports. Of p0's VLANs, 5 finds an id as a domain only.
TEST_F(fed_module, DomainsAndPortsThatFindNoIdGetOneThatComesBack)
{
    constexpr uint32_t br2 = 30, br3 = 31, p3 = 32;
    static std::vector<std::string> logged; // on the cache thread
    logged.clear();
    restart({.domain_limit = 4,
             .port_limit = 7,
             .report = [](severity, const std::string &text) { logged.push_back(text); }},
            false);
    const completeness_watch since;
    const auto set_vlan = [&](uint16_t vlan, uint32_t count) {
        for (uint32_t number = 0; number < count; ++number) {
            it->set(on_bridge(br0, p0, mac(number), fdb_reachable, vlan));
        }
    };
    on_cache([&] {
        it->set(link(br2, "br2", link_kind::bridge));
        it->set(link(p3, "p3", link_kind::other, br2));
        set_vlan(5, 3);
        set_vlan(6, 10'000); // more than a round feeds
        set_vlan(7, 20);
        it->set(link(br3, "br3", link_kind::bridge));
    });
    resync();
    const auto remove_bridge = [&](uint32_t bridge) {
        on_cache([&] { it->to->link_gone(bridge); });
        it->links.erase(bridge);
    };
    const auto expect_left_out = [&](uint64_t domains_left, uint64_t ports_left, size_t entries_left) {
        const auto is_there = [&] {
            const health_view now = health();
            return now.domain_ids.waiting == domains_left && now.port_ids.waiting == ports_left
                   && cached().size() + entries_left == it->holds.size()
                   && (now.state == completeness::limited) == (domains_left != 0);
        };
        for (int tries = 0; !is_there() && tries < 500; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_TRUE(is_there()) << health().domain_ids.waiting << ", " << health().port_ids.waiting << ", "
                                << cached().size();
    };
    expect_left_out(3, 3, 10'023);
    EXPECT_EQ(completeness_watch().reason(), "no id is left for 3 bridge domains (limit 4) and 3 ports (limit 7)");
    remove_bridge(br1); // with two ports
    expect_left_out(2, 1, 20);
    EXPECT_NE(id_of("lab:br0.6"), 0u);
    EXPECT_EQ(id_of("lab:br0.7"), 0u);
    remove_bridge(br2);
    expect_left_out(1, 0, 0);
    remove_bridge(br3); // which waits
    expect_left_out(0, 0, 0);
    expect_equal();
    EXPECT_EQ(since.worst(), completeness::limited);
    on_cache([] {
        EXPECT_THAT(logged, ElementsAre(HasSubstr("has been read"), HasSubstr("marked limited: no id"),
                                        HasSubstr("answers are whole")));
    });
}

TEST_F(fed_module, RequestsWaitForTheFirstFullDump)
{
    stop();
    struct slow : scripted {
        base::result start(event_manager_t *evm, sink &sink_of_shadow_table) override
        {
            to = &sink_of_shadow_table;
            to->full_dump_begun();
            const auto complete = [](void *cookie) { static_cast<slow *>(cookie)->list(true); };
            uint32_t timer = 0;
            EXPECT_EQ(host::event_timer_attach(evm, 100'000'000, 0, complete, this, &timer), 0u);
            return base::success();
        }
    };
    auto owned = std::make_unique<slow>();
    it = owned.get();
    it->links[br0] = link(br0, "br0", link_kind::bridge);
    it->links[p0] = link(p0, "p0", link_kind::other, br0);
    it->holds[key_of(on_bridge(br0, p0, mac(1)))] = on_bridge(br0, p0, mac(1));
    forwarding::options options;
    options.group = "lab";
    ASSERT_EQ(start_on(std::move(owned), options).text, "");
    resync();
    EXPECT_THAT(difference(cached(), expected(*it)), IsEmpty());
    EXPECT_EQ(health().resyncs_degraded, 0u);
}

// ---- The planes without a kernel ----

// Keeps what is reported, and the key of every event.
struct naive_shadow_table : sink {
    void link_changed(const link_record &) override {}
    void link_gone(uint32_t) override {}
    void fdb_changed(const fdb_record &record) override
    {
        holds[key_of(record)] = record.ifindex;
        events.push_back(key_of(record));
    }
    void fdb_gone(const fdb_record &record) override
    {
        const auto found = holds.find(key_of(record));
        ASSERT_NE(found, holds.end());
        ASSERT_EQ(found->second, record.ifindex);
        holds.erase(found);
        events.push_back(key_of(record));
    }
    void full_dump_begun() override {}
    void full_dump_ended(bool) override {}

    std::map<fdb_key, uint32_t> holds;
    std::vector<fdb_key> events;
};

TEST_F(recording, AnswersByKeyWhateverTheOrderOfTheFile)
{
    write("links.json", R"([{"ifindex":1,"ifname":"br0"},{"ifindex":2,"ifname":"p1"},{"ifindex":3,"ifname":"v"}])");
    const char *const entries[] = {
        R"({"mac":"00:00:00:00:00:00","ifname":"v","flags":["self"],"dst":"10.0.0.2"})",
        R"({"mac":"02:00:00:00:00:02","ifname":"v","flags":["sticky","unknown"],"master":"br0","x":[{"y":[]},1.5,null]})",
        R"({"mac":"02:00:00:00:00:01","ifname":"p1","master":"br0","vlan":9,"vlan":7,"updated":60})",
        R"({"mac":"00:00:00:00:00:00","ifname":"v","flags":["self"],"dst":"10.0.0.1"})",
        R"({"mac":"02:00:00:00:00:01","ifname":"p1","master":"br0"})",
    };
    std::string list;
    for (const char *each : entries) {
        list += (list.empty() ? "[" : ",") + std::string(each);
    }
    write("fdb.json", list + "]");
    std::unique_ptr<plane> loaded;
    ASSERT_EQ(load_recorded_plane(directory, loaded).text, "");
    struct : naive_shadow_table {
        void fdb_changed(const fdb_record &record) override { records[key_of(record)] = record; }
        std::map<fdb_key, fdb_record> records;
    } copy;
    ASSERT_TRUE(loaded->start(nullptr, copy).ok());
    std::vector<fdb_key> keys;
    for (const auto &[key, record] : copy.records) {
        keys.push_back(key);
    }
    ASSERT_EQ(keys.size(), std::size(entries));
    EXPECT_EQ(keys[2].vlan, 7); // of two members with one name the last one counts
    EXPECT_EQ(copy.records[keys[1]].flags, fdb_sticky);
    keys.push_back({.holder = 1, .mac = mac(3)});
    std::vector<fdb_answer> answers(keys.size());
    loaded->query(keys, answers);
    for (size_t at = 0; at + 1 < keys.size(); at++) {
        ASSERT_EQ(answers[at].presence, fdb_presence::present);
        EXPECT_EQ(answers[at].record, copy.records[keys[at]]);
    }
    EXPECT_EQ(answers.back().presence, fdb_presence::absent);
    const int64_t now =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    EXPECT_NEAR(static_cast<double>(now - answers[2].record.updated_ms), 60'000, 10'000);
    EXPECT_EQ(answers[0].record.updated_ms, 0);
}

TEST(GeneratedPlane, ChurnsTheSameForASeedAndAnswersAsItReported)
{
    fabric_options options;
    options.churn = 1'000'000; // a second: one round of the loop makes 50,000 changes or more
    naive_shadow_table copies[2];
    for (naive_shadow_table &copy : copies) {
        host::event_manager_forget_ended();
        event_manager_t *const evm = test::create_manager("/test/generated");
        const auto plane = make_generated_plane(options);
        ASSERT_TRUE(plane->start(evm, copy).ok());
        ASSERT_EQ(test::serve_one(evm), 0);
        for (const auto &[key, ifindex] : copy.holds) {
            fdb_answer answer;
            plane->query({&key, 1}, {&answer, 1});
            ASSERT_EQ(answer.presence, fdb_presence::present);
            ASSERT_EQ(answer.record.ifindex, ifindex);
            ASSERT_EQ(key_of(answer.record), key);
        }
        std::set<fdb_key> gone(copy.events.begin(), copy.events.end());
        std::erase_if(gone, [&](const fdb_key &key) { return copy.holds.contains(key); });
        EXPECT_GT(gone.size(), 50u);
        for (const fdb_key &key : gone) {
            fdb_answer answer;
            plane->query({&key, 1}, {&answer, 1});
            ASSERT_EQ(answer.presence, fdb_presence::absent);
        }
        plane->stop();
        host::event_manager_stop(evm);
    }
    const size_t common = std::min(copies[0].events.size(), copies[1].events.size());
    EXPECT_GT(common, 20'000u);
    EXPECT_TRUE(std::equal(copies[0].events.begin(), copies[0].events.begin() + static_cast<ptrdiff_t>(common),
                           copies[1].events.begin()));
}

TEST_F(recording, ShowsWhatWasRecorded)
{
    write("links.json",
          R"([{"ifindex":1,"ifname":"br0","linkinfo":{"info_kind":"bridge","info_data":{"vlan_filtering":1}}},
              {"ifindex":2,"ifname":"p1","master":"br0"},
              {"ifindex":3,"ifname":"v","master":"br0","linkinfo":{"info_kind":"vxlan","info_data":{"id":9}}}])");
    write("fdb.json",
          R"([{"mac":"02:00:00:00:00:01","ifname":"p1","master":"br0","vlan":7,"state":"static","flags":["sticky"]},
              {"mac":"02:00:00:00:00:02","ifname":"v","flags":["self"],"dst":"fd00::1","state":"permanent"},
              {"mac":"02:00:00:00:00:02","ifname":"v","master":"br0","state":""},
              {"mac":"02:00:00:00:00:03","ifname":"v","flags":["self"],"nhid":5,"state":""},
              {"mac":"02:00:00:00:00:04","ifname":"p1","master":"br0","backbone":"02:aa:00:00:00:01","edm_flags":64}])");
    forwarding::options options;
    options.plane = plane_choice::recorded;
    options.recorded_directory = directory;
    options.group = "lab";
    ASSERT_EQ(start(options).text, "");
    EXPECT_EQ(start(options).text, "the module runs already");
    ASSERT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, nullptr), 0u);
    EXPECT_THAT(cached(), ElementsAre("lab:br0 own 020000000004 0000 0", "lab:br0 v/9 020000000002 0000 0",
                                      "lab:br0.7 p1 020000000001 0002 0"));
    uint32_t cursor = 0;
    EXPECT_EQ(tunnel_entries(cursor, 1).size(), 1u);
    EXPECT_EQ(tunnel_entries(cursor, 10).size(), 1u);
    EXPECT_EQ(health().ipv6_destinations, 1u);
    EXPECT_TRUE(stop().orderly);
    EXPECT_FALSE(health().running);
}

} // namespace
