// SPDX-License-Identifier: Apache-2.0

// The handlers as a requester sees them: a path in, pages of items out.
#include "tests/support/module/served_module.h"

#include <cerrno>
#include <cstdlib>
#include <numeric>
#include <set>
#include <sstream>

#include "platform/utility.h"

// The host has one node; here all interfaces belong to another one than this.
extern "C" uint32_t platform_get_my_nodeid(uint32_t *node_id)
{
    *node_id = 5;
    return 0;
}

extern "C" uint32_t platform_ifhandle_parse_ifhandle(uint32_t, uint32_t *node_id)
{
    *node_id = 6;
    return 0;
}

namespace {

using namespace served;
using testing::ElementsAre;
using testing::IsEmpty;
using strings = std::vector<std::string>;

const auto *const environment = [] {
    setenv("TZ", "UTC", 1);
    return testing::AddGlobalTestEnvironment(new running_module);
}();

constexpr uint32_t bad = EDM_ERR_BAD_REQUEST;
constexpr uint32_t none = EDM_ERR_NO_ITEM;
constexpr uint32_t vni = EDM_MAC_VNI;

std::string hex(const std::vector<uint32_t> &numbers)
{
    std::ostringstream out;
    for (const uint32_t number : numbers) {
        out << std::hex << number << ',';
    }
    return out.str();
}

std::string mac_name(uint32_t number, const std::string &tail = "g,a")
{
    return hex({0x200, number >> 16, number & 0xffff}) + tail;
}

strings mac_names(const std::vector<uint32_t> &numbers)
{
    strings result;
    for (const uint32_t number : numbers) {
        result.push_back(mac_name(number));
    }
    return result;
}

std::string vtep_name(uint32_t xcid, uint32_t seg_info2, uint32_t vtep)
{
    const std::string digits = hex({0x0a000000 | vtep});
    return hex({xcid, seg_info2}) + "0" + digits.substr(0, digits.size() - 1);
}

// Aging has no list without data.
std::vector<request_kind> list_kinds(const std::string &path)
{
    return path == "mac-aging" ? std::vector{data} : std::vector{names, data};
}

// 450 entries: 100 on a port, 250 behind as many VTEPs, 40 of the bridge domain itself, 60 in another bridge domain.
void hold_450()
{
    domain(1, "g:a");
    domain(2, "h:b");
    interface_port(10);
    vxlan_port(11, 7);
    interface_port(20);
    for (uint32_t i = 0; i < 450; i++) {
        const uint32_t kind = i % 45;
        const uint32_t xcid = kind < 10 ? 10 : kind < 35 ? 11 : kind < 39 ? EDM_XCID_DUMMY : 20;
        const uint32_t flags = xcid == 11 ? vni : xcid == EDM_XCID_DUMMY ? EDM_MAC_BD_OWN : 0;
        holds(xcid == 20 ? 2 : 1, xcid, i, flags, static_cast<uint16_t>(i));
    }
}

TEST_F(served_module, AnswersInPagesOfOneResync)
{
    hold_450();
    const struct {
        const char *path;
        uint32_t count;
        std::vector<size_t> pages;
    } cases[] = {
        {"mac-table", host::all_items, {200, 200, 50}},
        {"mac-table", 0, {200, 200, 50}},
        {"mac-table", 201, {200, 1}},
        {"mac-table/domain/g:a", host::all_items, {200, 190}},
        {"mac-table/port/11/domain/g:a", 0, {200, 50}},
        {"mac-aging", host::all_items, {200, 200, 50}},
        {"mac-aging", 200, {200}},
        {"mac-aging", 0, {0}},
        {"mac-vtep", host::all_items, {250}},
        {"mac-vtep", 249, {249}},
        {"mac-vtep", 0, {0}},
    };
    for (const auto &c : cases) {
        for (const auto kind : list_kinds(c.path)) {
            SCOPED_TRACE(testing::Message() << c.path << " " << c.count);
            the.asked.clear();
            std::vector<size_t> pages;
            std::set<std::string> seen;
            const auto visit = [&](const host::operational_page &page) {
                pages.push_back(page.items.size());
                const strings got = names_of(page);
                seen.insert(got.begin(), got.end());
                return true;
            };
            EXPECT_EQ(test::read_pages({.path = c.path, .kind = kind, .count = c.count}, visit), 0u);
            EXPECT_EQ(pages, c.pages);
            EXPECT_EQ(seen.size(), std::accumulate(pages.begin(), pages.end(), size_t{0}));
            EXPECT_EQ(the.asked.size(), 1u) << "only the first page requests a resync";
        }
    }
    EXPECT_FALSE(test::query({.path = "mac-table", .count = 200}).more);
}

// Two ports of a bridge domain, one of them with three VTEPs, and a port with a fourth.
void hold_8()
{
    domain(1, "g:a");
    interface_port(10);
    vxlan_port(11, 7);
    vxlan_port(12, 7);
    for (uint32_t i = 1; i <= 8; i++) {
        holds(1, i <= 4 ? 10 : i <= 7 ? 11 : 12, i, i <= 4 ? 0 : vni, static_cast<uint16_t>(i));
    }
}

void remove_mac(uint32_t number)
{
    const uint8_t mac_addr[] = {2, 0, 0, 0, 0, static_cast<uint8_t>(number)};
    l2fib_mac_edm_mutex_lock();
    EXPECT_EQ(l2fm_edm_table_mac_destroy(l2fm_edm_table_mac_get_by_bdname_mac("g:a", mac_addr)), 0u);
    l2fib_mac_edm_mutex_unlock();
}

void remove_vtep(uint32_t xcid, uint8_t vtep)
{
    const uint8_t vtep_addr[] = {10, 0, 0, vtep};
    l2fib_mac_edm_mutex_lock();
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
    EXPECT_EQ(l2fm_edm_table_vtep_destroy(l2fm_edm_table_vtep_lookup(vtep_addr, bp), bp), 0u);
    l2fib_mac_edm_mutex_unlock();
}

TEST_F(served_module, ContinuesAfterWhatWasRemovedBetweenPages)
{
    const struct {
        const char *path;
        uint32_t first; // items of the first page
        uint32_t status;
        void (*remove)();
        strings rest;
    } cases[] = {
        {"mac-table", 2, none, [] { remove_mac(2); }, {}},
        {"mac-table", 2, 0, [] { remove_mac(3); }, mac_names({4, 5, 6, 7, 8})},
        {"mac-table", 2, none, [] { l2fm_edm_table_bp_destroy(10); }, {}},
        {"mac-table", 2, 0, [] { l2fm_edm_table_bp_destroy(11); }, mac_names({3, 4, 8})},
        {"mac-table", 2, none, [] { l2fm_edm_table_bd_destroy(1); }, {}},
        {"mac-table", 8, none, [] {}, {}},
        {"mac-table/port/10/domain/g:a", 2, 0, [] { remove_mac(2); }, mac_names({3, 4})},
        {"mac-table/port/10/domain/g:a", 4, none, [] {}, {}},
        {"mac-table/port/10/domain/g:a", 2, none, [] { l2fm_edm_table_bp_destroy(10); }, {}},
        {"mac-aging", 2, 0, [] { remove_mac(3); }, mac_names({4, 5, 6, 7, 8})},
        {"mac-aging", 2, bad, [] { remove_mac(2); }, {}},
        {"mac-aging", 2, bad, [] { l2fm_edm_table_bp_destroy(10); }, {}},
        {"mac-aging", 8, 0, [] {}, {}},
        {"mac-vtep", 2, 0, [] { remove_vtep(11, 7); }, {vtep_name(12, 7, 8)}},
        {"mac-vtep", 1, 0, [] { remove_vtep(11, 5); }, {vtep_name(12, 7, 8)}},
        {"mac-vtep", 1, 0, [] { l2fm_edm_table_bp_destroy(11); }, {}},
        {"mac-vtep", 4, 0, [] { remove_vtep(12, 8); }, {}},
        {"mac-vtep/seg-info2/7", 2, 0, [] {}, {vtep_name(11, 7, 7)}},
    };
    for (const auto &c : cases) {
        for (const auto kind : list_kinds(c.path)) {
            SCOPED_TRACE(testing::Message() << c.path << " after " << c.first << ", row " << &c - cases);
            SetUp();
            hold_8();
            const auto first = test::query({.path = c.path, .count = c.first});
            ASSERT_EQ(first.items.size(), c.first);
            c.remove();
            const auto rest =
                test::query({.path = c.path, .kind = kind, .start_key = std::string(first.items.back().name)});
            EXPECT_EQ(rest.status, c.status);
            EXPECT_EQ(names_of(rest), c.rest);
            EXPECT_EQ(the.asked.size(), 1u);
        }
    }
}

TEST_F(served_module, RefusesAMalformedStartKey)
{
    hold_8();
    test::query({.path = "mac-table"});
    const struct {
        const char *path;
        std::string key;
        uint32_t status;
        strings items;
    } cases[] = {
        {"mac-table", "", bad, {}},
        {"mac-table", "200,0,7,g", bad, {}},
        {"mac-table", "200,0,,g,a", bad, {}},
        {"mac-table", "200,0,zz,g,a", bad, {}},
        {"mac-table", "200,0,7,g," + std::string(28, 'x'), bad, {}},
        {"mac-table", "200,0,7,g," + std::string(27, 'x'), none, {}},
        {"mac-table", "200,0,7," + std::string(33, 'x') + ",a", bad, {}},
        {"mac-table", "200,0,7," + std::string(32, 'x') + ",a", none, {}},
        {"mac-table", std::string(100'000, '7'), bad, {}},
        {"mac-table", "200,0,7,g,a,and more%s%n", 0, mac_names({8})},
        {"mac-table", " 0x200, +0,\t10007,g,a", 0, mac_names({8})},
        {"mac-table", "ffffffffffffffffffffffff,0,7,g,a", none, {}},
        {"mac-table/domain/g:a", "200,0,7,g,b", none, {}},
        {"mac-table/port/11/domain/g:a", "200,0,6,g,b", none, {}},
        {"mac-table/port/11/domain/g:a", "0,0,0,g,a", 0, mac_names({5, 6, 7})},
        {"mac-table/port/99/domain/g:a", "nonsense", none, {}},
        {"mac-aging", "200,0,7,g", bad, {}},
        {"mac-aging", "200,0,7," + std::string(101, 'x') + "," + std::string(100, 'x'), bad, {}},
        {"mac-aging", "200,0,7,g,a", 0, mac_names({8})},
        {"mac-vtep", "b,7,", bad, {}},
        {"mac-vtep", "b,ffffffffffffffffff,0a000007", 0, {vtep_name(12, 7, 8)}},
        {"mac-vtep", "ffffffff,7,0a000007", 0, {}},
    };
    the.asked.clear();
    for (const auto &c : cases) {
        for (const auto kind : list_kinds(c.path)) {
            SCOPED_TRACE(testing::Message() << c.path << " " << c.key.substr(0, 80));
            test::skip_traces();
            const auto page = test::query({.path = c.path, .kind = kind, .start_key = c.key});
            EXPECT_EQ(page.status, c.status);
            EXPECT_EQ(names_of(page), c.items);
            // A key of another bridge domain or port is refused silently.
            const bool is_traced = c.status == bad || (c.status == none && std::string_view(c.path) == "mac-table");
            EXPECT_EQ(traced(1918).size() + traced(1972).size(), is_traced ? 1u : 0u);
        }
    }
    EXPECT_THAT(the.asked, IsEmpty());
}

TEST_F(served_module, TakesItemNamesFromTheFullName)
{
    const std::string g32(32, 'g'), d27(27, 'd');
    const struct {
        std::string full_name, tail, aging_tail;
        uint32_t status, aging_status; // of a continuation
    } cases[] = {
        {"g:a", "g,a", "g,a", 0, 0},
        {"g:b:c", "g,b", "g,b:c", none, 0},
        {":g:b", "g,b", "g,b", none, bad},
        {"solo", "solo,", "solo,", bad, bad},
        {"::", ",", ",", bad, bad},
        {g32 + ":" + d27, g32 + "," + d27, g32 + "," + d27, 0, 0},
        {g32 + "g:dd", g32 + "g,dd", g32 + "g,dd", bad, 0},
        {"gg:d" + d27, "gg,d" + d27, "gg,d" + d27, bad, 0},
    };
    for (const auto &c : cases) {
        SetUp();
        domain(1, c.full_name);
        interface_port(10);
        holds(1, 10, 1);
        holds(1, 10, 2);
        for (const std::string &path :
             {"mac-table/domain/" + c.full_name, "mac-table/port/10/domain/" + c.full_name, std::string("mac-aging")}) {
            SCOPED_TRACE(path + " of " + c.full_name);
            const bool aging = path == "mac-aging";
            const std::string &tail = aging ? c.aging_tail : c.tail;
            EXPECT_THAT(names_of(test::query({.path = path})), ElementsAre(mac_name(1, tail), mac_name(2, tail)));
            EXPECT_EQ(test::query({.path = path, .start_key = mac_name(1, tail)}).status,
                      aging ? c.aging_status : c.status);
        }
    }
}

TEST_F(served_module, RequestsItsResyncAndReportsItsFailure)
{
    const struct {
        const char *path;
        resync asked; // type 0: none
        std::vector<request_kind> kinds;
    } cases[] = {
        {"mac-table", {EDM_RESYNC_ALL, 0}, {names, data}},
        {"mac-table/domain/g:a", {EDM_RESYNC_BD, 1}, {names, data}},
        {"mac-table/domain/g:a/mac/02:00:00:00:00:01", {EDM_RESYNC_BD, 1}, {get}},
        {"mac-table/port/10/domain/g:a", {EDM_RESYNC_BP, 10}, {names, data}},
        {"mac-table/port/10/domain/g:a/resync-all", {EDM_RESYNC_ALL, 0}, {names}},
        {"mac-aging", {EDM_RESYNC_ALL, 0}, {data}},
        {"mac-count", {EDM_RESYNC_ALL, 0}, {get}},
        {"mac-count/domain/g:a", {}, {get}},
        {"mac-count/port/10", {}, {get}},
        {"mac-vtep", {EDM_RESYNC_ALL, 0}, {names, data}},
        {"mac-vtep/port/11/seg-info2/7/vtep/10.0.0.5", {EDM_RESYNC_BP, 11}, {get}},
    };
    hold_8();
    for (const auto &c : cases) {
        for (const request_kind kind : c.kinds) {
            for (the.status = 0; the.status <= 2; the.status += 2) {
                SCOPED_TRACE(testing::Message() << c.path << " " << the.status);
                the.asked.clear();
                test::skip_traces();
                const auto before = host::operational_get_statistics();
                const bool asks = c.asked.type != 0;
                const bool fails = the.status != 0 && asks;
                EXPECT_EQ(test::query({.path = c.path, .kind = kind}).status, fails ? EDM_ERR_RESYNC : 0);
                EXPECT_EQ(the.asked, std::vector(asks ? 1 : 0, c.asked));
                const std::vector<trace> points = traced(1964);
                EXPECT_EQ(points.size(), fails ? 1 : 0);
                EXPECT_TRUE(points.empty() || points[0].values.back() == EDM_ERR_RESYNC);
                const auto after = host::operational_get_statistics();
                EXPECT_EQ(after.lists_freed - before.lists_freed, fails && kind != get ? 1 : 0);
                EXPECT_EQ(after.list_refusals + after.lists_abandoned, before.list_refusals + before.lists_abandoned);
            }
        }
    }
}

TEST_F(served_module, TracesWhereAWalkStarts)
{
    EXPECT_EQ(test::query({.path = "mac-aging"}).status, bad) << "of an empty cache";
    hold_8();
    test::skip_traces();
    EXPECT_EQ(test::query({.path = "mac-table", .kind = names}).status, 0u);
    EXPECT_EQ(traced(1967), (std::vector<trace>{{"l2fib_hw_mac_addr_edm_list", {1, 10, 2, 0, 0x100}}}));
}

TEST_F(served_module, FillsRecordsFromThePortAndTheFlags)
{
    const struct {
        uint16_t type; // of the port's segment, and its xcid
        uint16_t flags;
        uint32_t mac_flags;
        uint16_t mac_flags2;
        const char *place, *node, *aux;
    } cases[] = {
        {2, 0x0000, 0, 0, "xcid=2 seg_type=2 seg_id=30 seg_sub_id=23 bmac_valid=0", "6", "0"},
        {2, 0x0001, 0x00100000, 0, "xcid=2 seg_type=2 seg_id=30 seg_sub_id=23 bmac_valid=1 bmac=010203040506", "5",
         "0"},
        {3, 0x0102, 0x08004000, 0, "xcid=3 seg_type=4 seg_id=1260 seg_attr=440 seg_attr_kind=2 bmac_valid=0", "5", "0"},
        {4, 0x0005, 0x00102000, 0, "xcid=4 seg_type=5 seg_id=4 bmac_valid=1 bmac=010203040506", "5", "0"},
        {5, 0x1010, 0x00010000, 0,
         "xcid=5 seg_type=6 seg_id=5 seg_sub_id=543 bmac_valid=0 vtep_addr=0a000102 vtep_seg_info=540", "5", "0"},
        {5, 0x0000, 0, 0, "xcid=5 seg_type=6 seg_id=5 seg_sub_id=543 bmac_valid=0 vtep_addr=00000000 vtep_seg_info=540",
         nullptr, "0"},
        {33, 0xc000, 0, 0x0030, "xcid=33 seg_type=20 seg_id=33 bmac_valid=0", nullptr, "3 aux_value_alt=0"},
        {6, 0x4800, 0x80000000, 0x2010, "xcid=6 seg_type=0 bmac_valid=0", nullptr, "2 aux_value=0"},
        {2, 0x0008, 0x00020000, 0, "xcid=4294967295 seg_type=0 bmac_valid=0", nullptr, "0"},
        {2, 0x0060, 0x00600000, 0, "xcid=4294967295 seg_type=0 bmac_valid=0", nullptr, "0"},
        {2, 0x4a00, 0xa0000000, 0x0010, "xcid=4294967295 seg_type=0 bmac_valid=0", nullptr, "1 aux_value=0"},
        {2, 0x2400, 0x40000000, 8, "xcid=4294967295 seg_type=0 bmac_valid=0", nullptr, "3 aux_value_alt=0"},
    };
    domain(1, "g:a");
    for (const uint32_t type : {2u, 3u, 4u, 5u, 33u, 6u}) {
        const host::segment segment = {type, 0x77, 30, L2FIB_INTERFACE_SUB_KIND_23, 23, 440, {540, 0, 0, 543}};
        ASSERT_EQ(host::cross_connect_set(type, {.field_126 = 1260, .first = segment}), 0u);
    }
    for (const auto &c : cases) {
        auto &entry = holds(1, c.type, static_cast<uint32_t>(&c - cases), c.flags, 0x102);
        std::memcpy(entry.bmac_addr, "\1\2\3\4\5\6", sizeof(entry.bmac_addr));
        entry.ext_attr = 0x1234;
        entry.ext_flags = static_cast<uint16_t>(c.type == 6 ? 3 : 2);
        entry.hw_timestamp = 24 * 60 * 60 + 62;
    }
    const auto page = test::query({.path = "mac-aging"});
    ASSERT_EQ(page.items.size(), std::size(cases));
    for (const auto &c : cases) {
        std::string got = test::record_text(page.items[static_cast<size_t>(&c - cases)].data);
        got.erase(got.find(" age="), got.find(" aux_kind=") - got.find(" age="));
        const std::string node = c.node == nullptr ? std::to_string(EDM_NODE_UNKNOWN) : c.node;
        EXPECT_EQ(got,
                  test::words("mac_flags=" + std::to_string(c.mac_flags), "mac_flags2=" + std::to_string(c.mac_flags2),
                              "hw_valid=1 ext_attr=4660 bridge_id=1 bd_name='g:a'", c.place, "node_id=" + node,
                              (c.flags & 0x2000) != 0 ? "time_str='02 Jan 00:01:02'" : "time_str='N/A'",
                              std::string("aux_kind=") + c.aux));
    }
}

// Counts of the cache are compared with the reference table in handlers_model_test.cpp.
TEST_F(served_module, CountsByTheHardwareOrTheCache)
{
    hold_8();
    the.counts = {9, EDM_COUNTER_UNKNOWN, 7, 0, {}};
    const struct {
        const char *path;
        uint32_t count_status;
        const char *expected;
    } cases[] = {
        {"mac-count/port/0xffffffff", 0, "mac_cnt_sum=0 mac_cnt_plain=0 mac_cnt_f2=0 mac_cnt_f4=0 mac_cnt_f60=0"},
        {"mac-count/domain/g:a", 0, "mac_cnt_sum=9 mac_cnt_plain=0 mac_cnt_f2=7 mac_cnt_f4=0 mac_cnt_f60=0"},
        {"mac-count/domain/g:a", 1, "mac_cnt_sum=8 mac_cnt_plain=8 mac_cnt_f2=0 mac_cnt_f4=0 mac_cnt_f60=0"},
    };
    EXPECT_EQ(test::query({.path = "mac-table"}).items.size(), 8u);
    for (const auto &[path, count_status, expected] : cases) {
        the.count_status = count_status;
        const auto page = test::query({.path = path, .kind = get});
        ASSERT_EQ(page.items.size(), 1u) << path;
        EXPECT_EQ(test::record_text(page.items[0].data), expected) << path << " " << count_status;
    }
    EXPECT_EQ(test::query({.path = "mac-count/domain/unknown", .kind = get}).status, none);
}

TEST_F(served_module, AnswersOneEntryOnlyWithTheHardware)
{
    hold_8();
    host::mac_query_set(
        [](void *, uint32_t, const uint8_t *mac_addr, uint8_t *) { return mac_addr[5] == 3 ? 77u : 0u; }, nullptr);
    const struct {
        const char *path;
        uint32_t status;
        std::vector<trace> points;
    } cases[] = {
        {"mac-table/domain/g:a/mac/02:00:00:00:00:03", 77, {{"l2fib_hw_mac_addr_edm_get", {88, 77}}}},
        {"mac-table/domain/g:a/mac/02:00:00:00:00:09", none, {{"l2fib_hw_mac_addr_edm_get", {88, none}}}},
        {"mac-table/domain/unknown/mac/02:00:00:00:00:04", none, {}},
        {"mac-table/domain/g:a/mac/02:00:00:00:00:04", 0, {}},
    };
    for (const auto &c : cases) {
        test::skip_traces();
        EXPECT_EQ(test::query({.path = c.path, .kind = get}).status, c.status) << c.path;
        EXPECT_EQ(traced(1918), c.points) << c.path;
    }
}

} // namespace
