// SPDX-License-Identifier: Apache-2.0

// The feed, mark and sweep, and the operations on records that they are made of: from a table that a few steps have
// filled, one more step, its status, its trace points, and the whole table afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "host/objects/l2fib_objects.h"
#include "table/element.h"
#include "tests/support/table/small_table.h"
#include "tests/support/table/table_audit.h"

using namespace small_table;

namespace {

constexpr uint32_t invalid = EDM_ERR_INVALID_ARGS;
constexpr uint32_t no_resource = EDM_ERR_NO_RESOURCE;
constexpr uint32_t stopped = EDM_ERR_STOPPED;

l2fm_edm_bp_t *port(uint32_t xcid)
{
    return l2fm_edm_table_bp_get_by_xcid(xcid);
}

// The comparison with the reference table checks the status and the table after every kind of step. The refusals of
// single calls check which trace points appear. Here each trace point appears once with its values.

// A batch traces the same as single feeds.
class feed_or_batch : public testing::TestWithParam<bool> {
protected:
    feed_or_batch() { feeds_batches = GetParam(); }
    ~feed_or_batch() override { feeds_batches = false; }
    feed_or_batch(const feed_or_batch &) = delete;
    feed_or_batch &operator=(const feed_or_batch &) = delete;
};

INSTANTIATE_TEST_SUITE_P(Feed, feed_or_batch, testing::Bool());

TEST_P(feed_or_batch, TracesEachFailure)
{
    check({
        {"no such bridge domain", "", "1 10 9", no_resource,
         "1941 l2fm_edm_table_bd_alloc_and_fill 9 2; 1915 l2fib_mac_edm_add 9", "list"},
        {"no such port", "", "1 99 1", no_resource, "1940 l2fm_edm_table_bp_fill 99 2; 1913 l2fib_mac_edm_add 99",
         "1: | list"},
        {"no room for a dummy port", "full BP", "1 10 1 0x8", no_resource,
         "1949 l2fm_edm_table_malloc; 1942 l2fm_edm_table_bp_alloc_and_fill; 1965 l2fib_mac_edm_add DUMMY",
         "1: | list"},
        {"refused by the tree", "2 20 1; 3 20 1; 4 10 1; mark bp 10; sweep bp 10; full trees", "1 10 1", no_resource,
         "1911 l2fm_edm_table_mac_create 10; 1911 l2fm_edm_table_mac_create NO_RESOURCE; "
         "1916 l2fib_mac_edm_add 0 10 1 2 0 256; 1960 l2fib_mac_edm_add NO_RESOURCE",
         "1: 10() 20(2 3) | list 2 3"},
        {"the replacement cannot be created", "1 10 1; undefine", "1 20 1", no_resource,
         "1942 l2fm_edm_table_mac_create; 1912 l2fm_edm_table_mac_update 10 NO_RESOURCE; "
         "1916 l2fib_mac_edm_add 0 20 1 2 0 256; 1960 l2fib_mac_edm_add NO_RESOURCE",
         "1: 10() 20() | list"},
        {"an entry on a port is no bridge domain's own", "1 10 1", "1 10 1 0x20", stopped,
         "1966 l2fm_edm_table_mac_update_bdmac 32 1 2 0 256; 1916 l2fib_mac_edm_add 32 10 1 2 0 256; "
         "1960 l2fib_mac_edm_add STOPPED",
         "1: 10(1) dummy() | list 1"},
        {"a VTEP on a port of another kind", "", "1 10 1 0x1000 5", 0,
         "1968 l2fm_edm_table_vtep_create_modify; 1970 l2fm_edm_table_mac_create 10", "1: 10(1) | list 1"},
        {"a refresh finds no port", "1 10 1; mark; remove 10", "1 10 1", no_resource,
         "1940 l2fm_edm_table_bp_fill 10 2; 1915 l2fib_mac_edm_add 10 2", "1: 10*(1!) | list 1"},
        {"a port that lost its bridge domain", "1 10 1; mark; try update 10 9", "destroy bp 10", 0,
         "1954 l2fm_edm_table_bp_destroy_internal 10 NOT_FOUND", "1: | list"},
    });
}

TEST(Feed, FailsWithoutATable)
{
    take_traces();
    EXPECT_EQ(feed(1, 10, 1), EDM_ERR_NO_RESOURCE);
    EXPECT_EQ(take_traces(), "1938 l2fm_edm_table_get; 1938 l2fm_edm_table_bd_create; 1915 l2fib_mac_edm_add 1");
    EXPECT_EQ(l2fib_mac_edm_add(nullptr), EDM_ERR_INVALID_ARGS);
    EXPECT_EQ(take_traces(), "1914 l2fib_mac_edm_add");
    uint32_t status = 7;
    EXPECT_EQ(l2fib_mac_edm_add_batch(nullptr, 1, &status), EDM_ERR_INVALID_ARGS);
    EXPECT_EQ(take_traces(), "1914 l2fib_mac_edm_add_batch");
    EXPECT_EQ(status, 7u);
    EXPECT_EQ(l2fib_mac_edm_add_batch(nullptr, 0, nullptr), 0u);
}

struct records : fixture {};

// The index gives its memory back in the middle of the batch.
TEST_F(records, SurviveABatchThatEmptiesTheIndex)
{
    small_table::limit = UINT32_MAX;
    for (uint32_t number = 1; number <= 4000; number++) {
        ASSERT_EQ(small_table::feed(number, 10, 1), 0u);
    }
    run("mark; 1 10 1; sweep");
    const l2fib_mac_edm_entry_t batch[] = {entry(1, 20, 1), entry(1, 20, 1), entry(2, 20, 1)};
    EXPECT_EQ(l2fib_mac_edm_add_batch(batch, std::size(batch), nullptr), 0u);
    EXPECT_EQ(table_text(), "1: 10() 20(1 2) | list 1 2");
}

TEST_F(records, RefuseNullAndTakenKeys)
{
    run("1 10 1; 2 5 1 0x20; 3 20 2; 4 5 2 0x20");
    const auto ordinary = entry(1, 10, 1);
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(1);
    l2fm_edm_mac_t *mac = cached(1, 1);
    take_traces();
    EXPECT_EQ(l2fm_edm_table_bp_create(bd, 20), nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_create(nullptr, 30), nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_create_dummy(bd, EDM_XCID_DUMMY), nullptr);
    for (const uint32_t status :
         {l2fm_edm_table_mac_update(nullptr, mac, &ordinary), l2fm_edm_table_mac_update(port(10), nullptr, &ordinary),
          l2fm_edm_table_mac_update(port(10), mac, nullptr), l2fm_edm_table_bp_destroy_internal(nullptr),
          l2fm_edm_table_bd_destroy_internal(nullptr), l2fm_edm_table_mac_destroy(nullptr),
          l2fm_edm_table_vtep_destroy(nullptr, port(10)), l2fm_edm_table_bp_fill(nullptr, 10)}) {
        EXPECT_EQ(status, EDM_ERR_INVALID_ARGS);
    }
    EXPECT_EQ(take_traces(), "");
    EXPECT_EQ(l2fm_edm_table_mac_create(port(10), &ordinary), EDM_ERR_NO_RESOURCE);
    EXPECT_EQ(l2fm_edm_table_mac_create(nullptr, &ordinary), EDM_ERR_INVALID_ARGS);
    EXPECT_EQ(l2fm_edm_table_mac_create(port(10), nullptr), EDM_ERR_NO_RESOURCE);
    EXPECT_EQ(l2fm_edm_table_vtep_create_modify(&ordinary, port(10)), EDM_ERR_INVALID_ARGS);
    EXPECT_EQ(table_text(), "1: 10(1) dummy(2) | 2: 20(3) dummy(4) | list 1 2 3 4");
}

TEST_F(records, OfADummyPortStandBesideThoseOfAnotherDomain)
{
    run("1 5 1 0x20; 2 5 2 0x20");
    const auto other = entry(1, 5, 2, 0x20);
    l2fm_edm_bp_t *dummy = l2fm_edm_table_bd_bp_get(l2fm_edm_table_bd_get_by_bridgeid(2), EDM_XCID_DUMMY);
    hw_edm_pool = nullptr;
    take_traces();
    EXPECT_EQ(l2fm_edm_table_mac_update(dummy, cached(1, 1), &other), EDM_ERR_NO_RESOURCE);
    EXPECT_EQ(take_traces(), "1942 l2fm_edm_table_mac_create; 1912 l2fm_edm_table_mac_update_bdmac 5 NO_RESOURCE");
    hw_edm_pool = &limit;
    EXPECT_EQ(l2fm_edm_table_mac_update(dummy, cached(1, 1), &other), 0u);
    EXPECT_EQ(table_text(), "1: dummy(1) | 2: dummy(1 2) | list 1 2 1");
}

TEST_F(records, WithoutAPortStopAMarkAndCanBeDestroyed)
{
    run("1 10 1; 2 30 1 0x1000 5; 3 30 1 0x1000 6; 4 9 1 0x20; 5 40 2 0x1000 5");
    l2fm_edm_mac_t *mac = cached(2, 1);
    l2fm_edm_table_mac_unset_bp(mac);
    EXPECT_EQ(run("mark"), EDM_ERR_STOPPED);
    EXPECT_EQ(table_text(), "1: 10*(1!) 30(2 3){5! 6!} dummy(4) | 2: 40(5){5!} | list 1 2 3 4 5");
    EXPECT_EQ(l2fm_edm_table_mac_destroy(mac), 0u); // its port is found by the id
    EXPECT_EQ(table_text(), "1: 10*(1!) 30(3){5! 6!} dummy(4) | 2: 40(5){5!} | list 1 3 4 5");
    const auto lost = entry(9, 99, 1);
    mac = l2fm_edm_table_mac_alloc_and_fill(&lost);
    l2fm_edm_table_ll_insert(mac);
    run("destroy bd 1; destroy bd 2");
    EXPECT_EQ(l2fm_edm_table_mac_get_pool()->mac_cnt_total, 0u);
    EXPECT_EQ(l2fm_edm_table_mac_destroy(mac), 0u); // nothing was counted
    l2fm_edm_vtep_t *vtep = l2fm_edm_table_vtep_alloc_and_fill(vtep_address(5).data());
    run("1 10 1");
    EXPECT_EQ(l2fm_edm_table_vtep_destroy(vtep, port(10)), 0u); // nor of a VTEP whose port has no tree
}

TEST_F(records, HaveBridgeDomainNamesOfAtMost60Characters)
{
    const std::string longest(60, 'n');
    ASSERT_EQ(host::bridge_domain_set(4, longest), 0u);
    ASSERT_EQ(host::bridge_domain_set(5, std::string(61, 'n')), 0u);
    ASSERT_EQ(host::bridge_domain_set(6, std::string(61, 'o')), 0u);
    EXPECT_EQ(run("create bd 0x10004; create bd 5"), 0u);
    EXPECT_EQ(l2fm_edm_table_bd_get_by_name(longest.c_str())->bridge_id, 4u);
    EXPECT_STREQ(l2fm_edm_table_bd_get_by_bridgeid(5)->bd_name, "");
    EXPECT_EQ(feed(1, 10, 6), EDM_ERR_NO_RESOURCE); // a second one without a name
    EXPECT_EQ(take_traces(), "1915 l2fib_mac_edm_add 6");
}

TEST_F(records, HavePortsWithTheAttributesOfTheirKind)
{
    using attributes = std::array<uint32_t, 5>; // kind, three attributes, whether there is a VTEP tree
    const std::pair<uint32_t, attributes> rows[] = {{interface_port, {1, interface_handle, 3, 23, 0}},
                                                    {pseudowire_port, {2, 44, 126, 0, 0}},
                                                    {kind_3_port, {3, 0, 0, 0, 0}},
                                                    {vxlan_port, {4, 543, 540, 0, 1}},
                                                    {kind_5_port, {5, 0, 0, 0, 0}},
                                                    {unknown_port, {0, 0, 0, 0, 0}},
                                                    {80, {1, 0x200, 0, 0, 0}}}; // without a sub-value
    host::cross_connect plain;
    plain.first.type = L2FIB_SEGMENT_INTERFACE;
    plain.first.interface_handle = 0x200;
    plain.first.interface_sub_value = 23;
    ASSERT_EQ(host::cross_connect_set(80, plain), 0u);
    for (const auto &[xcid, expected] : rows) {
        ASSERT_EQ(feed(1, xcid, 1), 0u);
        const l2fm_edm_bp_t *bp = port(xcid);
        const uint32_t runs = ordtree_running(&bp->vtep_tree) != 0 ? 1 : 0;
        EXPECT_EQ((attributes{bp->bp_type, bp->seg_info1, bp->seg_info2, bp->seg_info3, runs}), expected) << xcid;
    }
    run("mark; kind 80 99; 1 80 1");
    EXPECT_EQ(port(80)->bp_type, EDM_BP_TYPE_INTERFACE) << "an unknown kind changes nothing";
    run("mark; kind 80 2; 1 80 1");
    EXPECT_EQ(port(80)->seg_info3, 23u);
    ASSERT_EQ(host::cross_connect_set(80, plain), 0u);
    run("mark; 1 80 1");
    EXPECT_EQ(port(80)->seg_info3, 0u) << "the interface has lost its sub-kind";
}

TEST_F(records, NameTheNodeOfAnEntry)
{
    constexpr struct {
        uint32_t flags, xcid, node_id;
    } rows[] = {{0, interface_port, interface_node}, {0, pseudowire_port, own_node},
                {0, vxlan_port, EDM_NODE_UNKNOWN},   {0x0008, 5, EDM_NODE_UNKNOWN},
                {0x0200, 5, EDM_NODE_UNKNOWN},       {0x0001, vxlan_port, own_node},
                {0x0004, interface_port, own_node},  {0x0100, kind_3_port, own_node},
                {0x1000, vxlan_port, own_node},      {0x0002, kind_5_port, EDM_NODE_UNKNOWN}};
    for (const auto &row : rows) {
        EXPECT_EQ(feed(1, row.xcid, 1, row.flags), 0u);
        EXPECT_EQ(cached(1, 1)->node_id, row.node_id) << std::hex << row.flags << " on " << std::dec << row.xcid;
        l2fm_edm_table_bd_destroy(1);
    }
    run("1 10 1; 2 20 2; mark bp 10; 3 10 2; 1 20 2"); // in place, reported on another port
    EXPECT_EQ(cached(1, 2)->bp->xcid, interface_port);
    EXPECT_EQ(cached(1, 2)->node_id, own_node);
    host::cross_connect nowhere;
    nowhere.first.type = L2FIB_SEGMENT_INTERFACE;
    ASSERT_EQ(host::cross_connect_set(80, nowhere), 0u);
    take_traces();
    run("1 80 1; 1 80 1");
    EXPECT_EQ(cached(1, 1)->node_id, EDM_NODE_UNKNOWN);
    EXPECT_EQ(take_traces(), "1958 l2fm_edm_table_mac_create 80 1 2 0 256; "
                             "1958 l2fm_edm_table_mac_update 80 1 2 0 256");
}

// What a report may change in an entry: flags, two attributes, hardware's time, node, the extension's first byte,
// whether it was stamped.
using values = std::array<uint32_t, 7>;

l2fib_mac_edm_entry_t full_entry(uint32_t flags, uint32_t xcid, uint8_t value)
{
    l2fib_mac_edm_entry_t full = entry(1, xcid, 1, flags);
    full.ext_flags = full.ext_attr = value;
    full.hw_timestamp = full.node_id = value;
    std::memset(full.bmac_addr, value, sizeof(full.bmac_addr));
    full.vtep_addr[0] = static_cast<uint8_t>(value + 1);
    return full;
}

// Feeds the entry and reads what became of it.
values values_after(const l2fib_mac_edm_entry_t &fed, l2fm_edm_mac_t *present)
{
    constexpr uint64_t long_ago = 1;
    if (present != nullptr) {
        present->update_stamp = long_ago;
    }
    EXPECT_EQ(l2fib_mac_edm_add(&fed), 0u);
    const l2fm_edm_mac_t *mac = cached(1, 1);
    const uint32_t extension = (mac->flags & (EDM_MAC_PBB | EDM_MAC_VNI)) != 0 ? *edm::bmac_addr(mac) : 0;
    const uint32_t stamped = mac->update_stamp > long_ago ? 1 : 0;
    return {mac->flags, mac->ext_flags, mac->ext_attr, mac->hw_timestamp, mac->node_id, extension, stamped};
}

TEST_F(records, StoreWhatIsReported)
{
    constexpr uint32_t unknown = EDM_NODE_UNKNOWN;
    constexpr uint32_t dummy = EDM_XCID_DUMMY;
    // Where a VTEP's and a backbone address overlay, a creation copies the VTEP's last, an update the other.
    const struct {
        const char *what;
        uint32_t xcid, flags, again;
        values created, updated;
    } rows[] = {
        {"ordinary", 30, 0x2000, 0x2006, {0x2000, 50, 50, 50, unknown, 0, 1}, {0x2006, 60, 60, 60, own_node, 0, 1}},
        {"PBB", 30, 0x1, 0x81, {0x1, 50, 50, 50, 7, 50, 1}, {0x1, 60, 60, 60, 7, 60, 1}},
        {"VNI", 30, 0x1000, 0x1000, {0x1000, 50, 50, 50, 7, 51, 1}, {0x1000, 60, 60, 60, 7, 61, 1}},
        {"both overlay", 30, 0x1001, 0x1001, {0x1001, 50, 50, 50, 7, 51, 1}, {0x1001, 60, 60, 60, 7, 60, 1}},
        {"of a domain", dummy, 0x20, 0xc2, {0x20, 50, 50, 50, unknown, 0, 1}, {0xc2, 60, 60, 50, unknown, 0, 0}},
        {"of a domain, PBB", dummy, 0x21, 0x41, {0x21, 50, 50, 50, 7, 50, 1}, {0x41, 60, 60, 50, 7, 60, 0}},
        {"fixed", dummy, 0x8, 0x20, {0x8, 50, 50, 50, unknown, 0, 1}, {0x8, 50, 50, 50, unknown, 0, 0}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(values_after(full_entry(row.flags, row.xcid, 50), nullptr), row.created);
        l2fm_edm_mac_t *mac = cached(1, 1);
        EXPECT_EQ(values_after(full_entry(row.again, row.xcid, 60), mac), row.updated);
        EXPECT_EQ(cached(1, 1), mac);
        EXPECT_EQ(mac->aux_value, 0u);
        EXPECT_EQ(audit_table(), "");
        l2fm_edm_table_bd_destroy(1);
    }
}

} // namespace
