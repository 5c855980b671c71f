// SPDX-License-Identifier: Apache-2.0

// The table as its readers and its owner see it: lookups, walks, the list, the pools, start and teardown.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include "host/objects/l2fib_objects.h"
#include "host/pool/chunk_statistics.h"
#include "host/tree/ordtree_memory.h"
#include "table/element.h"
#include "tests/support/table/small_table.h"
#include "tests/support/table/table_audit.h"

using namespace small_table;

namespace {

// The ids of a chain of bridge domains.
template <typename Next>
std::string chain(l2fm_edm_bd_t *record, Next next)
{
    std::string all;
    for (; record != nullptr; record = next(record)) {
        all += (all.empty() ? "" : ", ") + std::to_string(record->bridge_id);
    }
    return all;
}

uint32_t own_lookup(uint32_t number, uint32_t bridge_id)
{
    const auto of = entry(number, 10, bridge_id);
    const l2fm_edm_mac_t *mac =
        l2fm_edm_table_mac_lookup(&of, l2fm_edm_table_bd_get_by_bridgeid(1), l2fm_edm_table_bp_get_by_xcid(10));
    return mac == nullptr ? 0 : mac->bp->xcid;
}

// Address 5 is on both ports 10 and 20 of bridge domain 1; VTEP 5 on both ports of bridge domain 2; 3 holds nothing.
struct lookups : fixture {
    void SetUp() override
    {
        fixture::SetUp();
        ASSERT_EQ(run("5 10 1; 5 20 2; mark bp 20; 2 20 1; 0x100 10 1; 0xff 10 1; 6 9 1 0x8; 7 40 2 0x1000 5;"
                      "8 30 2 0x1000 5; 9 40 2 0x1000 4; create bd 3"),
                  0u);
        ASSERT_EQ(table_text(), "1: 10(5 255 256) 20(2 5!@2) dummy(6) | 2: 30(8){5} 40(7 9){4 5} | 3: | "
                                "list 5 5 2 256 255 6 7 8 9");
        take_traces();
    }
};

TEST_F(lookups, FindAnEntryThatTheHostingProcessInserted)
{
    const auto fed = entry(2, 10, 1); // address 2 is on port 20
    l2fm_edm_mac_t *twin = l2fm_edm_table_mac_alloc_and_fill(&fed);
    ASSERT_NE(ordtree_insert(&l2fm_edm_table_bp_get_by_xcid(10)->mac_tree, &edm::to_element(twin)->mac_link), nullptr);
    EXPECT_EQ(cached(2, 1), twin);
    EXPECT_EQ(feed(2, 10, 1), EDM_ERR_INVALID_ARGS); // it has no port
    twin->bp = l2fm_edm_table_bp_get_by_xcid(10);
    EXPECT_EQ(feed(2, 10, 1, EDM_MAC_STATIC), 0u);
    EXPECT_EQ(l2fm_edm_table_mac_destroy(twin), 0u); // the audit sees that it was never counted
    EXPECT_EQ(cached(2, 1)->bp->xcid, 20u);
}

TEST_F(lookups, PassOverAPortThatIsInNoTree)
{
    const auto fed = entry(9, 50, 1);
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_alloc_and_fill(l2fm_edm_table_bd_get_by_bridgeid(1), 50, 1);
    EXPECT_EQ(l2fm_edm_table_mac_create(bp, &fed), 0u);
    EXPECT_EQ(cached(9, 1), nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_destroy_internal(bp), 0u);
}

// What the comparison with the reference table does not ask for.
// What the comparison with the reference table leaves out.
TEST_F(lookups, FindDummyPortsByTheirBridgeDomainOnly)
{
    const l2fm_edm_bd_t *one = l2fm_edm_table_bd_get_by_bridgeid(1);
    l2fm_edm_bp_t *dummy = l2fm_edm_table_bd_bp_get(one, EDM_XCID_DUMMY);
    const auto six = mac_address(6);
    ASSERT_NE(dummy, nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_mac_get(&dummy->mac_tree, six.data()), cached(6, 1));
    EXPECT_EQ(l2fm_edm_table_bp_get_by_xcid(EDM_XCID_DUMMY), nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_get_by_xcid(0), nullptr);
    EXPECT_EQ(l2fm_edm_table_mac_get_by_xcid_mac(EDM_XCID_DUMMY, six.data()), nullptr);
    EXPECT_EQ(l2fm_edm_table_bd_bp_get(one, 30), nullptr) << "a port of another bridge domain";
    EXPECT_EQ(l2fm_edm_table_bd_get_by_bridgeid(0x10001), nullptr);
    EXPECT_EQ(l2fm_edm_table_vtep_get_by_bridgeid_vtep(2, vtep_address(5).data()),
              l2fm_edm_table_bp_vtep_get_first(l2fm_edm_table_bp_get_by_xcid(30)));
    EXPECT_EQ(own_lookup(5, 1), 10u);
    EXPECT_EQ(own_lookup(2, 1), 20u) << "on another port of the bridge domain that is reported";
    EXPECT_EQ(own_lookup(8, 2), 30u) << "which need not be the one that is given";
    EXPECT_EQ(own_lookup(8, 1), 0u);
    EXPECT_EQ(take_traces(), "");
}

TEST_F(lookups, ResolveNamesWithoutTheTable)
{
    uint32_t id = 0;
    ASSERT_EQ(host::bridge_domain_set(1000, "BD9") + host::bridge_domain_set(999, "BD10"), 0u);
    EXPECT_EQ(l2fm_edm_table_bd_name_to_id("BD9", &id), 0u);
    EXPECT_EQ(id, 1000u);
    EXPECT_EQ(l2fm_edm_table_bd_name_to_id("BD8", &id), EDM_ERR_NOT_FOUND);
    EXPECT_EQ(l2fm_edm_table_bd_name_to_id(nullptr, &id), EDM_ERR_NOT_FOUND);
    EXPECT_EQ(l2fm_edm_table_bd_name_to_id("BD9", nullptr), EDM_ERR_NOT_FOUND);
    run("create bd 1000; create bd 999");
    EXPECT_EQ(chain(l2fm_edm_table_bd_get_first_by_name(), l2fm_edm_table_bd_get_next_by_name), "999, 1000, 3, 2, 1");
}

// Lookups of each kind without a place to look in, and without a key.
void expect_null(const l2fm_edm_bp_t *port, const l2fm_edm_bd_t *domain)
{
    const uint8_t *const no_address = nullptr;
    const auto five = mac_address(5);
    const auto of = entry(5, 10, 1);
    EXPECT_EQ(l2fm_edm_table_bd_get_by_name(nullptr), nullptr);
    EXPECT_EQ(l2fm_edm_table_bd_get_next_by_bridgeid(nullptr), nullptr);
    EXPECT_EQ(l2fm_edm_table_bd_bp_get(nullptr, 10), nullptr);
    EXPECT_EQ(l2fm_edm_table_bd_bp_get_next(domain, nullptr), nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_get_next(nullptr), nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_mac_get(port == nullptr ? nullptr : &port->mac_tree, no_address), nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_mac_get_first(nullptr), nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_mac_get_next(port, nullptr), nullptr);
    EXPECT_EQ(l2fm_edm_table_bp_vtep_get_next(port, nullptr), nullptr);
    EXPECT_EQ(l2fm_edm_table_vtep_lookup(five.data(), nullptr), nullptr);
    EXPECT_EQ(l2fm_edm_table_bd_mac_get(nullptr, five.data()), nullptr);
    EXPECT_EQ(l2fm_edm_table_mac_get_by_xcid_mac(10, no_address), nullptr);
    EXPECT_EQ(l2fm_edm_table_mac_get_by_bdname_mac(nullptr, five.data()), nullptr);
    EXPECT_EQ(l2fm_edm_table_mac_get_next_by_bdname_mac("g:c", no_address), nullptr);
    EXPECT_EQ(l2fm_edm_table_vtep_get_by_bridgeid_vtep(2, no_address), nullptr);
    EXPECT_EQ(l2fm_edm_table_mac_lookup(nullptr, domain, nullptr), nullptr);
    EXPECT_EQ(l2fm_edm_table_mac_lookup(&of, nullptr, nullptr), nullptr);
}

TEST_F(lookups, AnswerNullToNull)
{
    expect_null(l2fm_edm_table_bp_get_by_xcid(10), l2fm_edm_table_bd_get_by_bridgeid(1));
    EXPECT_EQ(take_traces(), "");
}

TEST(StoppedTrees, AnswerNull)
{
    expect_null(nullptr, nullptr);
    EXPECT_EQ(l2fm_edm_table_mac_get_by_bridgeid_mac(1, mac_address(1).data()), nullptr);
    EXPECT_EQ(run("mark; sweep; mark bd 1; sweep bp 1"), 0u) << "walks of a table without records";
}

// ---- Walks ----

std::string visited; // by the walks of a test
bool walks_continue;

uint32_t visit_mac(l2fm_edm_mac_t *mac, void *)
{
    visited += std::to_string(mac->mac_addr[5]) + " ";
    return walks_continue ? 5 : 0; // every value but 0 continues the walk
}

uint32_t visit_vtep(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *bp)
{
    visited += std::to_string(bp->xcid) + "/" + std::to_string(vtep->vtep_addr[3]) + " ";
    return walks_continue ? 5 : 0;
}

// Another thread takes the lock. If it never gets it, the time-out of the test ends the wait.
void take_lock_elsewhere()
{
    std::thread([] {
        l2fib_mac_edm_mutex_lock();
        l2fib_mac_edm_mutex_unlock();
    }).join();
}

struct walks : fixture {};

TEST_F(walks, VisitInOrderAndStop)
{
    run("3 30 2 0x1000 6; 2 20 1; 1 10 1; 4 20 1; 5 9 1 0x20; 6 40 2 0x1000 5; 7 30 2 0x1000 4");
    const std::pair<uint32_t (*)(), std::string> rows[] = {
        {[] { return l2fm_edm_table_walk_all_macs(visit_mac, nullptr); }, "3 2 1 4 5 6 7 "},
        {[] { return l2fm_edm_table_walk_all_macs_under_bd(visit_mac, nullptr, 1); }, "1 2 4 5 "},
        {[] { return l2fm_edm_table_walk_all_macs_under_bd(visit_mac, nullptr, 9); }, ""},
        {[] { return l2fm_edm_table_walk_all_macs_under_bp(visit_mac, nullptr, 20); }, "2 4 "},
        {[] { return l2fm_edm_table_walk_all_vteps(visit_vtep); }, "30/4 30/6 40/5 "},
        {[] { return l2fm_edm_table_walk_all_vteps_under_bd(visit_vtep, nullptr, 2); }, "30/4 30/6 40/5 "},
        {[] { return l2fm_edm_table_walk_all_vteps_under_bp(visit_vtep, nullptr, 40); }, "40/5 "},
        {[] { return l2fm_edm_table_walk_all_vteps_under_bp(visit_vtep, nullptr, 10); }, ""},
    };
    take_traces();
    for (const auto &[walk, visits] : rows) {
        for (const bool to_the_end : {true, false}) {
            visited.clear();
            walks_continue = to_the_end;
            EXPECT_EQ(walk(), to_the_end || visits.empty() ? 0 : EDM_ERR_STOPPED) << visits;
            EXPECT_EQ(visited, to_the_end ? visits : visits.substr(0, visits.find(' ') + 1));
            take_lock_elsewhere();
        }
    }
    EXPECT_EQ(take_traces(), "");
}

// What a walk has to visit next, whatever its callback changes.
struct expected_walk {
    std::set<uint32_t> present;
    uint32_t next;
    std::minstd_rand random{1};
};

uint32_t visit_and_change(l2fm_edm_mac_t *mac, void *cookie)
{
    auto &expected = *static_cast<expected_walk *>(cookie);
    const uint32_t number = 256u * mac->mac_addr[4] + mac->mac_addr[5];
    EXPECT_EQ(number, expected.next);
    const auto behind = expected.present.upper_bound(number);
    expected.next = behind == expected.present.end() ? 0 : *behind;
    const auto change = static_cast<uint32_t>(expected.random() % 100);
    if (change < 10) {
        expected.present.erase(number);
        EXPECT_EQ(l2fm_edm_table_mac_destroy(mac), 0u);
    } else if (change < 13) {
        const auto added = static_cast<uint32_t>(number + 1 + expected.random() % 100);
        expected.present.insert(added);
        feed(added, 10, 1);
    }
    return 1;
}

TEST_F(walks, VisitWhatIsThereWhenTheyReachIt)
{
    small_table::limit = UINT32_MAX;
    expected_walk expected;
    for (uint32_t number = 1; number < 2000; number += 2) {
        feed(number, 10, 1);
        expected.present.insert(number);
    }
    for (int round = 0; round < 5; round++) {
        expected.next = *expected.present.begin();
        EXPECT_EQ(l2fm_edm_table_walk_all_macs_under_bp(visit_and_change, &expected, 10), 0u);
        EXPECT_EQ(expected.next, 0u);
    }
}

TEST_F(walks, NeedACallback)
{
    for (const uint32_t status :
         {l2fm_edm_table_walk_all_macs(nullptr, nullptr), l2fm_edm_table_walk_all_macs_under_bd(nullptr, nullptr, 1),
          l2fm_edm_table_walk_all_macs_under_bp(nullptr, nullptr, 1), l2fm_edm_table_walk_all_vteps(nullptr),
          l2fm_edm_table_walk_all_vteps_under_bd(nullptr, nullptr, 1),
          l2fm_edm_table_walk_all_vteps_under_bp(nullptr, nullptr, 1)}) {
        EXPECT_EQ(status, EDM_ERR_INVALID_ARGS);
    }
    take_lock_elsewhere();
}

// A walk frees each record before it looks for the next one.
TEST_F(walks, EmptyTheTableByTheirCallback)
{
    run("1 10 1; 2 20 1; 3 9 2 0x20");
    EXPECT_EQ(l2fm_edm_table_walk_all_macs(
                  [](l2fm_edm_mac_t *mac, void *) { return l2fm_edm_table_mac_destroy(mac) + 1; }, nullptr),
              0u);
    EXPECT_EQ(table_text(), "1: 10() 20() | 2: dummy() | list");
}

struct table : fixture {};

TEST_F(walks, PassOverPortsWithoutABridgeDomain)
{
    run("1 30 1 0x1000 5; mark; try update 30 9");
    visited.clear();
    walks_continue = true;
    EXPECT_EQ(l2fm_edm_table_walk_all_vteps(visit_vtep), 0u);
    EXPECT_EQ(visited, "");
    EXPECT_EQ(l2fm_edm_table_walk_all_vteps_under_bp(visit_vtep, nullptr, 30), 0u);
    EXPECT_EQ(visited, "30/5 ");
    const auto feeds_another = [](l2fm_edm_mac_t *, void *cookie) {
        feed(++*static_cast<uint32_t *>(cookie), 10, 1);
        return 1u;
    };
    uint32_t newest = 1;
    EXPECT_EQ(l2fm_edm_table_walk_all_macs(feeds_another, &newest), 0u);
    EXPECT_EQ(newest, 2u);
}

TEST_F(table, TakesEntriesOffTheListOnce)
{
    run("1 10 1");
    l2fm_edm_mac_t *mac = cached(1, 1);
    const l2fm_edm_ll_root_t *list = l2fm_edm_table_ll_get_root();
    for (int again = 0; again < 2; again++) {
        EXPECT_EQ(l2fm_edm_table_ll_remove(mac), &mac->list_link);
        EXPECT_EQ(list->ll_count, 0u);
        EXPECT_EQ(static_cast<const void *>(list->ll_first), list);
        EXPECT_EQ(static_cast<const void *>(list->ll_last), list);
    }
    EXPECT_EQ(l2fm_edm_table_ll_insert(mac), 0u);
    EXPECT_EQ(l2fm_edm_table_ll_init(), EDM_ERR_INVALID_ARGS);
    EXPECT_EQ(list->ll_count, 1u);
}

// A full table evicts its newest entry for each new one, anywhere. Its parts still add up to the whole.
TEST_F(table, AddsUpByDomainAndByPortUnderALimit)
{
    constexpr uint32_t all = 300;
    static constexpr uint32_t ports[] = {10, 20, 30, 40};
    run("limit 300");
    for (uint32_t i = 0; i < 450; i++) {
        EXPECT_EQ(feed(i, ports[i * 7 % 4], 1 + i * 7 % 4 / 2,
                       i % 9 == 0   ? EDM_MAC_BD_OWN
                       : i % 5 == 0 ? EDM_MAC_STATIC
                                    : 0),
                  0u);
    }
    const auto count = [](l2fm_edm_mac_t *mac, void *counts) {
        static_cast<uint32_t *>(counts)[mac->bp->xcid == EDM_XCID_DUMMY]++;
        return 1u;
    };
    uint32_t whole[2] = {}, by_domain[2] = {}, by_port[2] = {}; // on ordinary ports and on dummy ports
    l2fm_edm_table_walk_all_macs(count, whole);
    for (const uint32_t bridge_id : {1u, 2u}) {
        l2fm_edm_table_walk_all_macs_under_bd(count, by_domain, bridge_id);
    }
    for (const uint32_t xcid : {10u, 20u, 30u, 40u, EDM_XCID_DUMMY}) {
        l2fm_edm_table_walk_all_macs_under_bp(count, by_port, xcid);
    }
    EXPECT_EQ(whole[0] + whole[1], all);
    EXPECT_GT(whole[1], 0u);
    EXPECT_EQ(by_domain[0], whole[0]);
    EXPECT_EQ(by_domain[1], whole[1]);
    EXPECT_EQ(by_port[0], whole[0]);
    EXPECT_EQ(by_port[1], 0u) << "a dummy port has no id";
    EXPECT_EQ(l2fm_edm_table_mac_get_pool()->mac_cnt_total, all);
}

TEST_F(table, CountsVtepsDownToZero)
{
    const uint32_t &count = l2fm_edm_table_mac_get_pool()->vtep_cnt;
    for (const char *removal : {"mark; sweep", "mark bd 1; sweep bd 1", "destroy bp 30", "destroy bd 1"}) {
        SCOPED_TRACE(removal);
        run("1 30 1 0x1000 5; 2 30 1 0x1000 5; 3 30 1 0x1000 6");
        EXPECT_EQ(count, 2u);
        for (const uint32_t address : {1u, 2u, 3u}) {
            EXPECT_EQ(l2fm_edm_table_mac_destroy(cached(address, 1)), 0u);
        }
        EXPECT_EQ(count, 2u) << "VTEPs outlive their entries until a sweep";
        run(removal);
        EXPECT_EQ(count, 0u);
    }
}

TEST_F(table, GivesAndTakesElementsOfItsPools)
{
    EXPECT_EQ(l2fm_edm_table_malloc(EDM_POOL_COUNT), nullptr);
    uint64_t foreign = 0;
    EXPECT_EQ(l2fm_edm_table_free(EDM_POOL_COUNT, &foreign), EDM_ERR_INVALID_ARGS);
    EXPECT_EQ(l2fm_edm_table_bd_free(nullptr), EDM_ERR_INVALID_ARGS);
    for (uint32_t pool = 0; pool < EDM_POOL_COUNT; pool++) {
        EXPECT_EQ(l2fm_edm_table_free(pool, nullptr), EDM_ERR_INVALID_ARGS);
    }
    EXPECT_EQ(take_traces(), "");
    EXPECT_EQ(l2fm_edm_table_free(EDM_POOL_MAC, &foreign), EDM_ERR_NO_RESOURCE);
    EXPECT_EQ(take_traces(), "1949 l2fm_edm_table_free");
    void *used = l2fm_edm_table_malloc(EDM_POOL_BP);
    std::memset(used, 0xff, sizeof(bp_element));
    EXPECT_EQ(l2fm_edm_table_free(EDM_POOL_BP, used), 0u);
    void *fresh = l2fm_edm_table_malloc(EDM_POOL_BP);
    const std::string bytes(static_cast<const char *>(fresh), sizeof(bp_element));
    EXPECT_EQ(bytes, std::string(sizeof(bp_element), '\0'));
    EXPECT_EQ(l2fm_edm_table_free(EDM_POOL_BP, fresh), 0u);
}

TEST(TableLife, StartsEmptyAgainAfterATeardown)
{
    for (int again = 0; again < 3; again++) {
        const bool has_list = l2fm_edm_table_ll_get_root()->ll_initialised != 0;       // made once in a process
        std::memset(l2fm_edm_table_mac_get_pool(), 0xff, sizeof(l2fm_edm_mac_pool_t)); // counters of a former table
        take_traces();
        EXPECT_EQ(l2fm_edm_table_init(), 0u);
        EXPECT_EQ(take_traces(), has_list ? "1938 l2fm_edm_table_init" : "");
        EXPECT_NE(ordtree_running(l2fm_edm_table_bd_get_root()), 0u);
        EXPECT_NE(ordtree_running(l2fm_edm_table_bp_get_root()), 0u);
        EXPECT_EQ(audit_table(), "");
        EXPECT_EQ(table_text(), "list");
        EXPECT_EQ(l2fm_edm_table_bd_cache_init(), EDM_ERR_INVALID_ARGS);
        EXPECT_EQ(l2fm_edm_table_bp_cache_init(), EDM_ERR_INVALID_ARGS);
        EXPECT_EQ(l2fm_edm_table_deinit(), 0u);
    }
}

TEST(TableLife, LeavesNothingAtItsEnd)
{
    start();
    run("1 10 1; 2 30 1 0x1000 5; 3 30 1 0x1001 6; 4 9 1 0x20; 5 40 2 0x1000 5; 6 20 1; mark bp 20; try update 20 9");
    const auto lost = entry(9, 99, 1); // on no port
    l2fm_edm_table_ll_insert(l2fm_edm_table_mac_alloc_and_fill(&lost));
    take_traces();
    EXPECT_EQ(l2fm_edm_table_deinit(), 0u);
    EXPECT_EQ(take_traces(), "1954 l2fm_edm_table_bp_destroy_internal DUMMY NOT_FOUND; "
                             "1954 l2fm_edm_table_bp_destroy_internal 20 NOT_FOUND; "
                             "1938 l2fm_edm_table_get"); // the lost entry's port is looked for
    EXPECT_EQ(l2fm_edm_table_ll_get_root()->ll_count, 0u);
    EXPECT_EQ(ordtree_running(l2fm_edm_table_bd_get_root()), 0u);
    EXPECT_EQ(ordtree_running(l2fm_edm_table_bp_get_root()), 0u);
    EXPECT_EQ(host::ordtree_memory().nodes, 0u);
    EXPECT_EQ(host::chunk_next(nullptr), nullptr) << "a pool is left";
}

} // namespace
