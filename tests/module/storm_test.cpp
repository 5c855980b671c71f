// SPDX-License-Identifier: Apache-2.0

// Everything at once on a small table, for the thread sanitizer: feeds, marks and sweeps, removals by both streams,
// ports that change their kind, a limit that moves, lookups, walks, resynchronisations and requests of the database.
// L2FIB_STORM_SECONDS says how long it blows at least.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vector>

#include "host/event/notification_host.h"
#include "host/objects/l2fib_objects.h"
#include "tests/support/host/event_loop.h"
#include "tests/support/module/served_module.h"
#include "tests/support/table/table_audit.h"

namespace {

constexpr uint32_t domains = 5;
constexpr uint32_t ports = 20; // port p is in bridge domain p % domains, most of the time
constexpr uint32_t addresses = 400;
constexpr uint32_t limit = 300;

// The thread's own dice.
uint32_t below(uint32_t bound)
{
    static std::atomic<uint32_t> seed{1};
    thread_local std::minstd_rand dice(seed++);
    return static_cast<uint32_t>(dice()) % bound;
}

// ---- Steps, each repeated by one or more threads ----

void feed()
{
    static constexpr uint16_t kinds[] = {
        0,           EDM_MAC_STATIC, EDM_MAC_LOCAL, EDM_MAC_BD_FIXED,         EDM_MAC_BD_OWN, EDM_MAC_BD_200,
        EDM_MAC_PBB, EDM_MAC_VNI,    EDM_MAC_VNI,   EDM_MAC_VNI | EDM_MAC_PBB};
    l2fib_mac_edm_entry_t entry{};
    const uint32_t port = below(ports);
    entry.flags = kinds[below(std::size(kinds))];
    entry.xcid = 1 + port;
    entry.bridge_id = static_cast<uint16_t>(1 + (below(50) == 0 ? below(domains) : port % domains));
    entry.mac_addr[4] = static_cast<uint8_t>(below(addresses) >> 8);
    entry.mac_addr[5] = static_cast<uint8_t>(below(addresses));
    entry.vtep_addr[3] = static_cast<uint8_t>(below(8));
    const uint32_t status = l2fib_mac_edm_add(&entry);
    EXPECT_TRUE(status == 0 || status == EDM_ERR_STOPPED || status == EDM_ERR_NO_RESOURCE) << std::hex << status;
}

void mark_feed_and_sweep(uint32_t type, uint32_t scope)
{
    static constexpr struct {
        uint32_t (*mark)(uint32_t);
        uint32_t (*sweep)(uint32_t);
    } operations[] = {
        {[](uint32_t) { return l2fib_mac_edm_mark_all(); }, [](uint32_t) { return l2fib_mac_edm_sweep_all(); }},
        {l2fib_mac_edm_mark_bd, l2fib_mac_edm_sweep_bd},
        {l2fib_mac_edm_mark_bp, l2fib_mac_edm_sweep_bp}};
    const auto &operation = operations[type - EDM_RESYNC_ALL];
    EXPECT_EQ(operation.mark(scope), 0u);
    for (int fed = 0; fed < 200; fed++) {
        feed();
    }
    EXPECT_EQ(operation.sweep(scope), 0u);
}

void mark_and_sweep()
{
    mark_feed_and_sweep(EDM_RESYNC_ALL + below(3), 1 + below(domains));
}

void change_port()
{
    const uint32_t xcid = 1 + below(ports);
    const bool vxlan = xcid % 3 != below(20);
    host::cross_connect_set(xcid, {.first = {.type = vxlan ? L2FIB_SEGMENT_VXLAN : L2FIB_SEGMENT_INTERFACE}});
}

// One notification, waited for so that they do not pile up.
void remove()
{
    efp_notification_t port{};
    port.port_id = 1 + below(ports);
    port.object_kind = EFP_KIND_BRIDGE_PORT_3;
    port.validity = 1;
    port.event_code = BDXC_EVENT_REMOVED;
    switch (below(3)) {
    case 0: EXPECT_EQ(host::bdxc_publish_bridge_domain_removed(1 + below(domains)), 0u); break;
    case 1: EXPECT_EQ(host::bdxc_publish_cross_connect_removed(port.port_id), 0u); break;
    default: EXPECT_EQ(host::efp_publish(&port), 0u); break;
    }
    test::serve_queued(l2fib_mac_cache_evm);
    change_port();
    __atomic_store_n(hw_edm_pool, limit - below(100), __ATOMIC_RELAXED);
}

uint32_t count(l2fm_edm_mac_t *mac, void *counted)
{
    EXPECT_NE(mac->bp, nullptr);
    ++*static_cast<uint32_t *>(counted);
    return 1;
}

void look()
{
    uint32_t all = 0;
    uint32_t some = 0;
    l2fm_edm_table_walk_all_macs_under_bd(count, &some, 1 + below(domains));
    l2fib_mac_edm_mutex_lock();
    EXPECT_EQ(l2fm_edm_table_walk_all_macs(count, &all), 0u);
    EXPECT_EQ(all, l2fm_edm_table_mac_get_pool()->mac_cnt_total);
    const uint8_t address[] = {0, 0, 0, 0, 0, static_cast<uint8_t>(below(256))};
    const l2fm_edm_mac_t *mac = l2fm_edm_table_mac_get_by_bridgeid_mac(1 + below(domains), address);
    EXPECT_TRUE(mac == nullptr || std::equal(address, std::end(address), mac->mac_addr));
    l2fib_mac_edm_mutex_unlock();
    if (below(20) == 0) {
        EXPECT_EQ(audit_table(), "");
    }
}

// One resync at a time is under way: this is the only step that asks for any.
void ask()
{
    static constexpr const char *lists[] = {"mac-table", "mac-table/domain/s:1", "mac-table/port/3/domain/s:3",
                                            "mac-aging", "mac-vtep"};
    const uint32_t type = EDM_RESYNC_ALL + below(4);
    EXPECT_EQ(l2fib_mac_edm_thread_send_resync(type, 1 + below(domains), nullptr), 0u);
    const char *path = lists[below(std::size(lists))];
    const uint32_t listed = test::query({.path = path}).status;
    const bool empty = listed == EDM_ERR_NO_ITEM || listed == EDM_ERR_BAD_REQUEST; // the scope, at that moment
    EXPECT_TRUE(listed == 0 || empty) << path << ' ' << std::hex << listed;
    EXPECT_EQ(test::query({.path = "mac-count", .kind = host::request_kind::get}).status, 0u);
    EXPECT_EQ(test::query({.path = "mac-action", .kind = host::request_kind::action}).status, 0u);
}

// ---- The platform: resyncs inside the callback or on a thread of its own ----

std::thread resyncing;

void resync(uint32_t type, uint32_t scope)
{
    const auto run = [type, scope] {
        mark_feed_and_sweep(type, scope);
        EXPECT_EQ(l2fib_mac_edm_resync_complete(below(2)), 0u);
    };
    if (below(2) == 0) {
        run();
        return;
    }
    if (resyncing.joinable()) {
        resyncing.join();
    }
    resyncing = std::thread(run);
}

l2fib_mac_edm_pd_cb_t callbacks()
{
    l2fib_mac_edm_pd_cb_t table = served::callbacks();
    table.resync_all_cb = [] { resync(EDM_RESYNC_ALL, 0); };
    table.resync_bd_cb = [](uint16_t bridge_id) { resync(EDM_RESYNC_BD, bridge_id); };
    table.resync_bp_cb = [](uint32_t xcid) { resync(EDM_RESYNC_BP, xcid); };
    table.bd_mac_count_cb = [](uint16_t, edm_mac_counters_t *) { return 1u; };
    return table;
}

const auto *const environment = testing::AddGlobalTestEnvironment(new served::running_module(callbacks()));

TEST(Storm, LeavesASoundTable)
{
    static constexpr struct {
        void (*step)();
        int threads;
    } work[] = {{feed, 4}, {mark_and_sweep, 1}, {remove, 1}, {look, 2}, {ask, 1}};
    constexpr uint64_t least = 30; // steps of each kind
    const char *seconds = std::getenv("L2FIB_STORM_SECONDS");
    const auto end = std::chrono::steady_clock::now()
                     + std::chrono::seconds(seconds == nullptr ? 3 : std::strtol(seconds, nullptr, 10));

    ASSERT_EQ(l2fib_mac_edm_defn_init(&served::entry_limit, limit), 0u);
    for (uint32_t bridge_id = 1; bridge_id <= domains; bridge_id++) {
        served::domain(bridge_id, "s:" + std::to_string(bridge_id));
    }
    for (uint32_t port = 0; port < 10 * ports; port++) {
        change_port();
    }
    std::vector<std::thread> threads;
    for (const auto &[step, number] : work) {
        for (int thread = 0; thread < number; thread++) {
            threads.emplace_back([step = step, end] {
                for (uint64_t done = 0; done < least || std::chrono::steady_clock::now() < end; done++) {
                    step();
                    std::this_thread::yield(); // for those that wait for the lock
                }
            });
        }
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    if (resyncing.joinable()) {
        resyncing.join();
    }
    EXPECT_EQ(audit_table(), "");
}

} // namespace
