// SPDX-License-Identifier: Apache-2.0

// The handlers as a requester sees them: a path in, pages of items out.
#include "host/utility_host.h"
#include "tests/support/served_module.h"

#include <array>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <numeric>
#include <set>
#include <sstream>

namespace {

using namespace served;
using testing::ElementsAre;
using testing::IsEmpty;
using strings = std::vector<std::string>;

const auto *const environment = [] {
    setenv("TZ", "UTC", 1);
    return testing::AddGlobalTestEnvironment(new running_module);
}();

constexpr auto names = request_kind::list;
constexpr auto data = request_kind::datalist;
constexpr auto get = request_kind::get;
constexpr uint32_t bad = EDM_ERR_BAD_REQUEST;
constexpr uint32_t none = EDM_ERR_NO_ITEM;
constexpr uint16_t vni = EDM_MAC_VNI;

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

template <typename Record>
auto bytes_of(const Record &record)
{
    return std::bit_cast<std::array<uint8_t, sizeof(record)>>(record);
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

TEST_F(served_module, long_answers_come_in_pages_of_one_resync)
{
    hold_450();
    const struct {
        const char *path;
        uint32_t count;
        std::vector<size_t> pages;
    } cases[] = {
        {"mac-table", host::all_items, {200, 200, 50}},
        {"mac-table", 0, {200, 200, 50}},
        {"mac-table", 200, {200}},
        {"mac-table", 201, {200, 1}},
        {"mac-table/domain/g:a", host::all_items, {200, 190}},
        {"mac-table/port/11/domain/g:a", host::all_items, {200, 50}},
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
            EXPECT_EQ(the.asked.size(), 1u) << "only the first page asks for a resync";
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

TEST_F(served_module, lists_continue_after_what_was_removed_between_pages)
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

TEST_F(served_module, start_keys_are_read_with_care)
{
    hold_8();
    test::query({.path = "mac-table"});
    const std::string long_part(100, 'x');
    const struct {
        const char *path;
        std::string key;
        uint32_t status;
        strings items;
    } cases[] = {
        {"mac-table", "", bad, {}},
        {"mac-table", "200,0,7,g", bad, {}},
        {"mac-table", "200,0,7,,a", bad, {}},
        {"mac-table", "200,0,,g,a", bad, {}},
        {"mac-table", "200,0,zz,g,a", bad, {}},
        {"mac-table", "200;0;7;g;a", bad, {}},
        {"mac-table", "200,0,7,g," + std::string(28, 'x'), bad, {}},
        {"mac-table", "200,0,7,g," + std::string(27, 'x'), none, {}},
        {"mac-table", "200,0,7," + std::string(33, 'x') + ",a", bad, {}},
        {"mac-table", "200,0,7," + std::string(32, 'x') + ",a", none, {}},
        {"mac-table", std::string(100'000, '7'), bad, {}},
        {"mac-table", "200,0,7,g,a,and more%s%n", 0, mac_names({8})},
        {"mac-table", " 0x200, +0,\t10007,g,a", 0, mac_names({8})},
        {"mac-table", "ffffffffffffffffffffffff,0,7,g,a", none, {}},
        {"mac-table/domain/g:a", "200,0,7,g,b", none, {}},
        {"mac-table/mac/02:00:00:00:00:06", "200,0,7,g,a", none, {}},
        {"mac-table/port/11/domain/g:a", "200,0,7,g", bad, {}},
        {"mac-table/port/11/domain/g:a", "200,0,6,g,b", none, {}},
        {"mac-table/port/11/domain/g:a", "0,0,0,g,a", 0, mac_names({5, 6, 7})},
        {"mac-table/port/99/domain/g:a", "nonsense", none, {}},
        {"mac-aging", "200,0,7,g", bad, {}},
        {"mac-aging", "200,0,7," + long_part + "," + long_part, bad, {}},
        {"mac-aging", "200,0,7," + long_part + "x," + long_part, bad, {}},
        {"mac-aging", "200,0,7,g,a", 0, mac_names({8})},
        {"mac-vtep", "b,7", bad, {}},
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
            // A key that has nothing to do with the request is refused silently.
            const bool is_vtep = std::string_view(c.path) == "mac-vtep";
            const bool is_traced = c.status == bad || (c.status == none && std::string_view(c.path) == "mac-table");
            const auto points = traced(is_vtep ? 1972 : 1918);
            ASSERT_EQ(points.size(), is_traced ? 1u : 0u);
            if (is_traced) {
                EXPECT_THAT(points[0].values, ElementsAre(kind == names && !is_vtep ? 87 : 86, c.status));
            }
        }
    }
    EXPECT_THAT(the.asked, IsEmpty());
}

TEST_F(served_module, item_names_take_their_parts_from_the_full_name)
{
    const std::string g32(32, 'g');
    const std::string d27(27, 'd');
    const struct {
        std::string full_name;
        std::string tail;
        std::string aging_tail;
        uint32_t status; // of a continuation by bridge domain and by port
        uint32_t aging_status;
    } cases[] = {
        {"g:a", "g,a", "g,a", 0, 0},
        {"g:b:c", "g,b", "g,b:c", none, 0},
        {"g::b", "g,b", "g,:b", none, 0},
        {":g:b", "g,b", "g,b", none, bad},
        {"solo", "solo,", "solo,", bad, bad},
        {"g:", "g,", "g,", bad, bad},
        {"::", ",", ",", bad, bad},
        {g32 + ":" + d27, g32 + "," + d27, g32 + "," + d27, 0, 0},
        {g32 + "g:dd", g32 + "g,dd", g32 + "g,dd", bad, 0},
        {"gg:d" + d27, "gg,d" + d27, "gg,d" + d27, bad, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.full_name);
        SetUp();
        domain(1, c.full_name);
        interface_port(10);
        holds(1, 10, 1);
        holds(1, 10, 2);
        for (const std::string path : {"mac-table/domain/", "mac-table/port/10/domain/", "mac-aging"}) {
            const bool aging = path == "mac-aging";
            const auto continued = [&](const std::string &tail) {
                return test::query({.path = aging ? path : path + c.full_name, .start_key = mac_name(1, tail)});
            };
            const std::string &tail = aging ? c.aging_tail : c.tail;
            const auto first = test::query({.path = aging ? path : path + c.full_name});
            EXPECT_THAT(names_of(first), ElementsAre(mac_name(1, tail), mac_name(2, tail)));
            EXPECT_EQ(continued(tail).status, aging ? c.aging_status : c.status);
        }
    }
}

TEST_F(served_module, each_request_asks_for_its_resync_and_reports_its_failure)
{
    const char *const step = "l2fib_resync_bridge_domain_or_all";
    const uint32_t all = EDM_RESYNC_ALL;
    const uint32_t bd = EDM_RESYNC_BD;
    const uint32_t bp = EDM_RESYNC_BP;
    const struct {
        const char *path;
        const char *traced_as;
        uint32_t traced_id;
        resync asked; // type 0: nothing
        request_kind kind;
    } cases[] = {
        {"mac-table", step, 0, {all, 0}, names},
        {"mac-table", step, 0, {all, 0}, data},
        {"mac-table/domain/g:a", step, 1, {bd, 1}, names},
        {"mac-table/domain/g:a", step, 1, {bd, 1}, data},
        {"mac-table/domain/g:a/mac/02:00:00:00:00:01", step, 1, {bd, 1}, get},
        {"mac-table/port/10/domain/g:a", "l2fib_hw_mac_addr_bp_edm_list", 0, {bp, 10}, names},
        {"mac-table/port/10/domain/g:a", "l2fib_hw_mac_addr_bp_edm_datalist", 0, {bp, 10}, data},
        {"mac-table/port/10/domain/g:a/resync-all", "l2fib_hw_mac_addr_bp_edm_list", 0, {all, 0}, names},
        {"mac-aging", "l2fib_hw_mac_aging_edm_datalist", 0, {all, 0}, data},
        {"mac-count", step, 0, {all, 0}, get},
        {"mac-count/domain/g:a", "", 0, {}, get},
        {"mac-count/port/10", "", 0, {}, get},
        {"mac-vtep", "l2fib_hw_vtep_addr_edm_list", 0, {all, 0}, names},
        {"mac-vtep", "l2fib_hw_vtep_addr_edm_datalist", 0, {all, 0}, data},
        {"mac-vtep/port/11/seg-info2/7/vtep/10.0.0.5", "l2fib_hw_vtep_addr_edm_get", 11, {bp, 11}, get},
    };
    hold_8();
    for (const uint32_t status : {0u, 2u}) {
        for (const auto &c : cases) {
            SCOPED_TRACE(testing::Message() << c.path << " " << status);
            the.status = status;
            the.asked.clear();
            test::skip_traces();
            const auto before = host::operational_get_statistics();
            const bool asks = c.asked.type != 0;
            const bool fails = status != 0 && asks;
            EXPECT_EQ(test::query({.path = c.path, .kind = c.kind}).status, fails ? EDM_ERR_RESYNC : 0);
            EXPECT_EQ(the.asked, std::vector(asks ? 1 : 0, c.asked));
            EXPECT_EQ(traced(1964), std::vector(fails ? 1 : 0, trace{c.traced_as, {c.traced_id, EDM_ERR_RESYNC}}));
            const auto after = host::operational_get_statistics();
            EXPECT_EQ(after.lists_freed - before.lists_freed, fails && c.kind != get ? 1 : 0);
            EXPECT_EQ(after.list_refusals + after.lists_abandoned, before.list_refusals + before.lists_abandoned);
        }
    }
}

TEST_F(served_module, a_walk_traces_where_it_starts)
{
    EXPECT_EQ(test::query({.path = "mac-aging"}).status, bad) << "of an empty cache";
    hold_8();
    test::skip_traces();
    EXPECT_EQ(test::query({.path = "mac-table", .kind = names}).status, 0u);
    EXPECT_EQ(traced(1967), (std::vector<trace>{{"l2fib_hw_mac_addr_edm_list", {1, 10, 2, 0, 0x100}}}));
}

// What an entry with these flags on this port is reported as.
constexpr uint32_t unknown_node = EDM_NODE_UNKNOWN;
constexpr uint32_t dummy = EDM_XCID_DUMMY;
constexpr struct {
    uint16_t xcid; // and type of its segment
    uint16_t flags;
    uint32_t shown_xcid;
    uint32_t seg_type;
    uint64_t seg_id; // and above it the second value
    uint32_t node_id;
    uint32_t mac_flags;
    uint16_t mac_flags2;
    uint32_t aux_kind;
} record_cases[] = {
    {2, 0x0000, 2, 2, 23ull << 32 | 30, 6, 0, 0, 0},
    {2, 0x0001, 2, 2, 23ull << 32 | 30, 5, 0x00100000, 0, 0},
    {3, 0x0102, 3, 4, 1260, 5, 0x08004000, 0, 0},
    {3, 0x0001, 3, 4, 1260, 5, 0x00100000, 0, 0},
    {4, 0x0005, 4, 5, 4, 5, 0x00102000, 0, 0},
    {5, 0x1010, 5, 6, 543ull << 32 | 5, 5, 0x00010000, 0, 0},
    {5, 0x0000, 5, 6, 543ull << 32 | 5, unknown_node, 0, 0, 0},
    {33, 0xc000, 33, 20, 33, unknown_node, 0, 0x0030, 3},
    {6, 0x4800, 6, 0, 0, unknown_node, 0x80000000, 0x2010, 2},
    {6, 0x2000, 6, 0, 0, unknown_node, 0, 0x2008, 0},
    {2, 0x0008, dummy, 0, 0, unknown_node, 0x00020000, 0, 0},
    {2, 0x0060, dummy, 0, 0, unknown_node, 0x00600000, 0, 0},
    {2, 0x4a00, dummy, 0, 0, unknown_node, 0xa0000000, 0x0010, 1},
    {2, 0x0400, dummy, 0, 0, unknown_node, 0x40000000, 0, 3},
};

TEST_F(served_module, records_follow_the_port_and_the_flags)
{
    const uint8_t bmac[] = {1, 2, 3, 4, 5, 6};
    domain(1, "g:a");
    host::node_id_set(5);
    host::interface_node_set(0x77, 6);
    for (const uint32_t type : {2u, 3u, 4u, 5u, 33u, 6u}) {
        const host::segment segment = {type, 0x77, 30, L2FIB_INTERFACE_SUB_KIND_23, 23, 440, {540, 0, 0, 543}};
        ASSERT_EQ(host::cross_connect_set(type, {.field_126 = 1260, .first = segment}), 0u);
    }
    for (const auto &c : record_cases) {
        auto &entry = holds(1, c.xcid, static_cast<uint32_t>(&c - record_cases), c.flags, 0x102);
        std::memcpy(entry.bmac_addr, bmac, sizeof(bmac));
        entry.ext_attr = 0x1234;
        entry.ext_flags = static_cast<uint16_t>(c.xcid == 6 ? 3 : 2);
        entry.hw_timestamp = 24 * 60 * 60 + 62;
    }
    const auto page = test::query({.path = "mac-aging"});
    ASSERT_EQ(page.items.size(), std::size(record_cases));
    for (size_t i = 0; i < page.items.size(); i++) {
        SCOPED_TRACE(testing::Message() << "row " << i);
        const auto &c = record_cases[i];
        decoded<l2fib_mac_info_t> got(page.items[i].data, &l2fib_bridge_mac_info_parcel);
        EXPECT_STREQ(got.time_str, (c.flags & 0x2000) != 0 ? "02 Jan 00:01:02" : "N/A");
        EXPECT_LT(got.age, 60'000'000'000u);
        l2fib_mac_info_t expected = {};
        expected.mac_flags = c.mac_flags;
        expected.mac_flags2 = c.mac_flags2;
        expected.hw_valid = 1;
        expected.seg_type = c.seg_type;
        expected.seg.seg_id_wide = c.seg_id;
        expected.seg_attr = c.seg_type == 4 ? 440 : 0;
        expected.seg_attr_kind = c.seg_type == 4 ? 2 : 0;
        expected.node_id = c.node_id;
        expected.bridge_id = 1;
        expected.xcid = c.shown_xcid;
        expected.ext_attr = 0x1234;
        expected.aux_kind = c.aux_kind;
        if ((c.flags & 1) != 0 && c.seg_type != 4) {
            expected.bmac_valid = 1;
            std::memcpy(expected.bmac, bmac, sizeof(bmac));
        }
        if (c.seg_type == 6) {
            expected.vtep_seg_info = 540;
            std::memcpy(expected.vtep_addr, (c.flags & vni) != 0 ? "\x0a\0\x01\x02" : "\0\0\0\0", 4);
        }
        l2fib_mac_info_t without_texts = got;
        without_texts.time_str = without_texts.bd_name = without_texts.prev_mac = without_texts.next_mac = nullptr;
        without_texts.age = 0;
        EXPECT_EQ(bytes_of(without_texts), bytes_of(expected));
    }
}

TEST_F(served_module, counts_come_from_the_counters_the_cache_or_the_hardware)
{
    hold_8();
    the.entries.clear();
    for (const uint32_t flags : {0u, 2u, 4u, 6u, 0x20u, 0x42u}) {
        holds(1, 10, flags, flags);
    }
    const uint32_t unknown = EDM_COUNTER_UNKNOWN;
    const struct {
        const char *path;
        uint32_t count_status;
        edm_mac_counters_t counts;
        l2fib_mac_count_info_t expected;
    } cases[] = {
        {"mac-count", 0, {}, {5, 2, 3, 2, 2}},
        {"mac-count/port/0xffffffff", 0, {}, {}},
        {"mac-count/domain/g:a", 0, {9, unknown, 7, 0, {}}, {9, 0, 7, 0, 0}},
        {"mac-count/domain/g:a", 1, {9, unknown, 7, 0, {}}, {4, 2, 2, 2, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.path << " " << c.count_status);
        the.count_status = c.count_status;
        the.counts = c.counts;
        const auto page = test::query({.path = c.path, .kind = get});
        ASSERT_EQ(page.items.size(), 1u);
        decoded<l2fib_mac_count_info_t> got(page.items[0].data, &l2fib_bridge_hw_mac_count_info_parcel);
        EXPECT_EQ(bytes_of<l2fib_mac_count_info_t>(got), bytes_of(c.expected));
    }
    EXPECT_THAT(traced(1918), IsEmpty());
    EXPECT_EQ(test::query({.path = "mac-count/domain/unknown", .kind = get}).status, none);
}

TEST_F(served_module, one_entry_is_not_answered_without_the_hardware)
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
        SCOPED_TRACE(c.path);
        test::skip_traces();
        EXPECT_EQ(test::query({.path = c.path, .kind = get}).status, c.status);
        EXPECT_EQ(traced(1918), c.points);
    }
}

} // namespace
