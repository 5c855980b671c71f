// SPDX-License-Identifier: Apache-2.0

// Every call of the platform that can fail is made to fail once, in a scenario that makes all of them: the step that
// meets the refusal ends as it should, and the table stays sound and gives everything back in the end.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <map>
#include <set>
#include <sstream>

#include "host/objects/l2fib_objects.h"
#include "host/pool/chunk_statistics.h"
#include "host/tree/ordtree_memory.h"
#include "platform/chunk.h"
#include "platform/l2fib.h"
#include "platform/utility.h"
#include "tests/support/faults/interpose.h"
#include "tests/support/table/small_table.h"
#include "tests/support/table/table_audit.h"

using namespace small_table;

namespace {

// A refused deletion or release has happened all the same, so that no freed record is left in a tree: a real tree has
// no such state. Only where the module takes a record for untouched then, it is.
bool refused_deletion_deletes = true;

} // namespace

INTERPOSE(chunk_pool_t *, chunk_create,
          (const char *name, uint32_t size, uint32_t count, uint32_t flags, uint32_t a, uint32_t b),
          (name, size, count, flags, a, b), nullptr)
INTERPOSE(uint32_t, chunk_free, (chunk_pool_t * pool, void *element), (pool, element), (real(pool, element), 0u))
INTERPOSE(ordtree_link_t *, ordtree_delete, (ordtree_t * tree, ordtree_link_t *node), (tree, node),
          (refused_deletion_deletes ? real(tree, node) : nullptr, nullptr))
INTERPOSE(uint32_t, l2fib_get_plat_ctx_by_id, (uint32_t object_class, uint32_t id, l2fib_ctx_t *ctx),
          (object_class, id, ctx), EIO)
INTERPOSE(uint32_t, l2fib_get_seg1_by_seg2,
          (uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t *type, l2fib_ctx_t *segment),
          (object_class, ctx, type, segment), EIO)
INTERPOSE(uint32_t, l2fib_access_field, (uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t field, void *value),
          (object_class, ctx, field, value), EIO)
INTERPOSE_OPERATION(ordtree_init)

extern "C" uint32_t ordtree_init(ordtree_t *tree, uint32_t index_count, ordtree_node_to_entry_fn node_to_entry, ...)
{
    if (interpose::ordtree_init.meet()) {
        return EIO;
    }
    va_list comparators;
    va_start(comparators, node_to_entry);
    const ordtree_compare_fn first = va_arg(comparators, ordtree_compare_fn);
    const ordtree_compare_fn second = index_count > 1 ? va_arg(comparators, ordtree_compare_fn) : nullptr;
    va_end(comparators);
    return INTERPOSE_HIDDEN(ordtree_init)(tree, index_count, node_to_entry, first, second);
}

namespace {

// Makes every call: creation, update, replacement, eviction, refresh and move, sweep, destruction.
constexpr const char *scenario[] = {
    "1 10 1",          // bridge domain, interface, entry
    "2 30 1 0x1000 5", // VXLAN, VNI entry, VTEP
    "3 20 1 0x1",      // pseudowire, PBB entry
    "4 9 1 0x8",       // dummy port
    "1 10 1",          // in place
    "2 20 1",          // another variant and port
    "4 9 1 0x8",       // replaced
    "limit 4",
    "5 10 1", // evicts 4
    "limit 9",         "6 30 1",          "mark",
    "1 10 1", // refreshes its port
    "5 30 2", // another bridge domain, for the port as well
    "sweep",  // 2, 3, 6 and the VTEP
    "2 30 2 0x1000 5", "mark bp 30",      "sweep bp 30",  "kind 10 5", "mark bp 10",
    "1 10 1 0x1000 6", // its port becomes a VXLAN
    "destroy bp 10",   "7 30 2 0x1000 5", "destroy bd 2",
};
constexpr std::string_view moving_step = "5 30 2";

// Statuses by name, and the ids of the trace points that came with each.
using outcomes = std::map<std::string, std::set<std::string>>;

void add_outcome(outcomes &all, uint32_t status)
{
    auto &ids = all[status == EDM_ERR_INVALID_ARGS  ? "INVALID_ARGS"
                    : status == EDM_ERR_NO_RESOURCE ? "NO_RESOURCE"
                    : status == EDM_ERR_STOPPED     ? "STOPPED"
                                                    : std::to_string(status)];
    std::istringstream traces(take_traces());
    for (std::string each; std::getline(traces >> std::ws, each, ';');) {
        ids.insert(each.substr(0, 4));
    }
}

// Runs the scenario with the nth call refused, and adds the outcome of the step that made the call. Returns false if
// the scenario makes fewer calls.
bool run_refusing(interpose::operation &operation, uint64_t nth, outcomes &all)
{
    start();
    operation.refuse(nth);
    bool is_refused = false;
    const auto add_first = [&](uint32_t status) {
        if (!is_refused && operation.has_refused()) {
            is_refused = true;
            add_outcome(all, status);
        }
        take_traces();
    };
    for (const char *step : scenario) {
        SCOPED_TRACE(step);
        refused_deletion_deletes = step != moving_step;
        add_first(run(step));
        EXPECT_EQ(audit_table(), "");
    }
    stop();
    add_first(0);
    operation.refuse(0);
    EXPECT_EQ(host::ordtree_memory().nodes, 0u);
    EXPECT_EQ(host::chunk_next(nullptr), nullptr) << "a pool is left";
    return is_refused;
}

const std::pair<interpose::operation &, outcomes> operations[] = {
    {interpose::chunk_malloc,
     {{"0", {"1949", "1970"}}, {"NO_RESOURCE", {"1912", "1913", "1915", "1916", "1942", "1949", "1960", "1965"}}}},
    {interpose::chunk_free, {{"0", {"1949", "1954"}}}},
    {interpose::ordtree_init, {{"0", {"1968", "1970"}}, {"NO_RESOURCE", {"1913", "1915", "1938", "1965", "1968"}}}},
    {interpose::ordtree_insert,
     {{"0", {"1970"}}, {"NO_RESOURCE", {"1911", "1912", "1913", "1915", "1916", "1960", "1965"}}}},
    {interpose::ordtree_delete,
     {{"0", {"1912", "1936", "1954", "1955", "1969", "1971"}},
      {"INVALID_ARGS", {"1936"}},
      {"NO_RESOURCE", {"1915", "1916", "1942", "1953", "1955", "1960"}},
      {"STOPPED", {"1917", "1955"}}}},
    {interpose::l2fib_get_plat_ctx_by_id, {{"NO_RESOURCE", {"1913", "1915", "1940", "1941"}}}},
    {interpose::l2fib_get_seg1_by_seg2, {{"NO_RESOURCE", {"1913", "1915", "1940"}}}},
    {interpose::l2fib_access_field, {{"NO_RESOURCE", {"1913", "1915", "1940", "1941"}}}},
    {interpose::platform_get_my_nodeid, {{"0", {"1958"}}}},
    {interpose::platform_ifhandle_parse_ifhandle, {{"0", {"1958"}}}},
};

TEST(Refusal, OfEachCallEndsItsStepAndHarmsNothing)
{
    for (const auto &[operation, expected] : operations) {
        SCOPED_TRACE(testing::Message() << "row " << &expected - &operations[0].second);
        outcomes found;
        for (uint64_t nth = 1; run_refusing(operation, nth, found); nth++) {}
        EXPECT_EQ(found, expected);
    }
}

TEST(Refusal, OfAPoolLeavesNone)
{
    for (uint64_t nth = 1; nth <= EDM_POOL_COUNT; nth++) {
        interpose::chunk_create.refuse(nth);
        take_traces();
        EXPECT_EQ(l2fm_edm_table_init(), EDM_ERR_NO_RESOURCE);
        EXPECT_NE(take_traces().find("1948 l2fm_edm_table_chunk_init 12; 1938 l2fm_edm_table_init"), std::string::npos);
        EXPECT_EQ(host::chunk_next(nullptr), nullptr);
        ordtree_finish(l2fm_edm_table_bd_get_root());
        ordtree_finish(l2fm_edm_table_bp_get_root());
    }
    interpose::chunk_create.refuse(EDM_POOL_COUNT + 1);
    start();
    EXPECT_FALSE(interpose::chunk_create.has_refused());
    interpose::chunk_create.refuse(0);
    stop();
}

TEST(Refusal, OfAGlobalTreeShowsInTheTraceOnly)
{
    start(); // the objects and the limit
    stop();
    for (uint64_t nth = 1; nth <= 2; nth++) {
        interpose::ordtree_init.refuse(nth);
        take_traces();
        EXPECT_EQ(l2fm_edm_table_init(), 0u);
        EXPECT_TRUE(take_traces().ends_with("1938 l2fm_edm_table_init"));
        EXPECT_EQ(feed(1, 10, 1), EDM_ERR_NO_RESOURCE);
        EXPECT_EQ(take_traces(), nth == 1 ? "1938 l2fm_edm_table_get; 1913 l2fib_mac_edm_add 10"
                                          : "1938 l2fm_edm_table_get; 1938 l2fm_edm_table_bd_create; "
                                            "1915 l2fib_mac_edm_add 1");
        stop();
    }
}

TEST(Refusal, HalfWayThroughARefreshKeepsWhatWasRead)
{
    start();
    run("1 10 1; mark");
    host::cross_connect changed;
    changed.first = {.type = L2FIB_SEGMENT_INTERFACE, .interface_handle = 0x200, .interface_3 = 30};
    ASSERT_EQ(host::cross_connect_set(10, changed), 0u);
    interpose::l2fib_access_field.refuse(3); // sub-kind, handle, field 3
    take_traces();
    EXPECT_EQ(feed(1, 10, 1), EDM_ERR_NO_RESOURCE);
    EXPECT_EQ(take_traces(), "1940 l2fm_edm_table_bp_fill 10 5; 1915 l2fib_mac_edm_add 10 5");
    const l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(10);
    EXPECT_EQ(bp->seg_info1, 0x200u);
    EXPECT_EQ(bp->seg_info2, 3u);
    EXPECT_EQ(bp->refresh_pending, 1u);
    stop();
}

TEST(Refusal, OfAnInsertionAndItsUndoIsTraced)
{
    check({{"into the bridge domain's tree", "1 10 1", "2 20 1", EDM_ERR_NO_RESOURCE,
            "1954 l2fm_edm_table_bp_create 20 INVALID_ARGS; 1913 l2fib_mac_edm_add 20", "1: 10(1) | list 1"}},
          [] {
              interpose::ordtree_insert.refuse(2);
              interpose::ordtree_delete.refuse(1);
          });
}

} // namespace
