// SPDX-License-Identifier: Apache-2.0

// The started module behind the operational database, with a forwarding plane that a test scripts: what the hardware
// holds is a list of descriptors, fed again at every resync. For one source of a test program.
#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/database/operational_db_host.h"
#include "host/event/event_host.h"
#include "host/objects/l2fib_host.h"
#include "host/objects/l2fib_objects.h"
#include "host/pool/chunk_statistics.h"
#include "host/trace/trace_reader.h"
#include "l2fm_edm_table.h"
#include "platform/event.h"
#include "tests/support/host/decoded_record.h"
#include "tests/support/host/new_traces.h"
#include "tests/support/host/requests.h"
#include "tests/support/table/table_audit.h"

namespace served {

using host::request_kind;

constexpr auto names = request_kind::list;
constexpr auto data = request_kind::datalist;
constexpr auto get = request_kind::get;

struct resync {
    uint32_t type;
    uint32_t arg;
    bool operator==(const resync &) const = default;
};

// Touched by the test only while no request is under way.
struct plane {
    std::vector<l2fib_mac_edm_entry_t> entries;
    uint32_t status = 0; // how it ends a resync
    std::vector<resync> asked;
    uint32_t count_status = 0;
    edm_mac_counters_t counts = {};
};

inline plane the;
inline uint32_t entry_limit;

// One resync: mark, feed what the scope holds, sweep, report the end.
template <typename Mark, typename Feeds, typename Sweep, typename... Scope>
void serve_resync(uint32_t type, Mark mark, Feeds feeds, Sweep sweep, Scope... scope)
{
    the.asked.push_back({type, (0u + ... + scope)});
    mark(scope...);
    for (const auto &entry : the.entries) {
        if (feeds(entry)) {
            EXPECT_EQ(l2fib_mac_edm_add(&entry), 0u);
        }
    }
    sweep(scope...);
    l2fib_mac_edm_resync_complete(the.status);
}

inline l2fib_mac_edm_pd_cb_t callbacks()
{
    l2fib_mac_edm_pd_cb_t table = {};
    table.resync_all_cb = [] {
        serve_resync(
            EDM_RESYNC_ALL, l2fib_mac_edm_mark_all, [](auto &) { return true; }, l2fib_mac_edm_sweep_all);
    };
    table.resync_bd_cb = [](uint16_t id) {
        const auto feeds = [id](auto &entry) { return entry.bridge_id == id; };
        serve_resync(EDM_RESYNC_BD, l2fib_mac_edm_mark_bd, feeds, l2fib_mac_edm_sweep_bd, id);
    };
    table.resync_bp_cb = [](uint32_t xcid) {
        const auto feeds = [xcid](auto &entry) { return entry.xcid == xcid; };
        serve_resync(EDM_RESYNC_BP, l2fib_mac_edm_mark_bp, feeds, l2fib_mac_edm_sweep_bp, xcid);
    };
    table.action_cb = table.cb4 = table.cb6 = [] {};
    table.bd_mac_count_cb = [](uint16_t, edm_mac_counters_t *counters) {
        *counters = the.counts;
        return the.count_status;
    };
    table.cache_evm_cb = [](event_manager_t *) {};
    return table;
}

// Runs the module for as long as the test program runs.
struct running_module : testing::Environment {
    explicit running_module(const l2fib_mac_edm_pd_cb_t &platform = callbacks())
        : table(platform)
    {}

    void SetUp() override
    {
        event_manager_t *evm = event_manager_create(0, "/dev/test", EVENT_MANAGER_DEPTH, 0);
        ASSERT_EQ(l2fib_mac_edm_init(evm, this, evm_get_chan(evm), &table), 0u);
        ASSERT_EQ(l2fib_mac_edm_defn_init(&entry_limit, 2'000'000), 0u);
        for (const char *path : paths) {
            ASSERT_EQ(host::event_manager_wait(path, 60), host::event_manager_state::serving);
        }
    }

    void TearDown() override
    {
        for (const char *path : paths) {
            event_manager_t *evm = host::event_manager_find(path);
            host::event_manager_stop(evm);
            EXPECT_EQ(host::event_manager_join(evm, 60), 0u);
        }
        EXPECT_EQ(audit_table(), "");
        EXPECT_EQ(l2fm_edm_table_deinit(), 0u);
        EXPECT_EQ(host::chunk_next(nullptr), nullptr) << "a pool is left";
        EXPECT_EQ(host::operational_get_statistics().live_lists, 0u);
    }

    static constexpr const char *paths[] = {"/dev/l2fib_mac_edm", "/dev/l2fib_mac_cache"};

    const l2fib_mac_edm_pd_cb_t table;
};

inline void domain(uint32_t bridge_id, const std::string &name)
{
    ASSERT_EQ(host::bridge_domain_set(bridge_id, name), 0u);
}

// With the second attribute 7, as VXLAN ports may have it.
inline void interface_port(uint32_t xcid)
{
    const host::segment segment = {.type = L2FIB_SEGMENT_INTERFACE, .interface_3 = 7};
    ASSERT_EQ(host::cross_connect_set(xcid, {.first = segment}), 0u);
}

inline void vxlan_port(uint32_t xcid, uint32_t seg_info2, uint32_t seg_info1 = 0)
{
    const host::segment segment = {.type = L2FIB_SEGMENT_VXLAN, .vxlan_54 = {seg_info2, 0, 0, seg_info1}};
    ASSERT_EQ(host::cross_connect_set(xcid, {.first = segment}), 0u);
}

// The hardware holds the address 02:00:00 and then `number`; with EDM_MAC_VNI behind the VTEP 10.0.0.0 plus `vtep`.
inline l2fib_mac_edm_entry_t &holds(uint16_t bridge_id, uint32_t xcid, uint32_t number, uint32_t flags = 0,
                                    uint16_t vtep = 0)
{
    l2fib_mac_edm_entry_t entry = {};
    entry.flags = static_cast<uint16_t>(flags);
    entry.xcid = xcid;
    entry.bridge_id = bridge_id;
    const uint64_t mac_addr = __builtin_bswap64(uint64_t{0x0200} << 48 | uint64_t{number} << 16);
    const uint32_t vtep_addr = __builtin_bswap32(0x0a000000u | vtep);
    std::memcpy(entry.mac_addr, &mac_addr, sizeof(entry.mac_addr));
    std::memcpy(entry.vtep_addr, &vtep_addr, sizeof(entry.vtep_addr));
    return the.entries.emplace_back(entry);
}

inline std::vector<std::string> names_of(const host::operational_page &page)
{
    std::vector<std::string> found;
    for (const auto &item : page.items) {
        found.emplace_back(item.name);
    }
    return found;
}

struct trace {
    std::string function;
    std::vector<uint64_t> values;
    bool operator==(const trace &) const = default;
};

// The trace points of one id, oldest first.
inline std::vector<trace> traced(uint32_t id)
{
    std::vector<trace> found;
    for (const auto ring : {host::trace_ring::normal, host::trace_ring::error}) {
        for (const host::trace_point &point : test::new_traces(ring)) {
            if (point.id == id) {
                found.push_back({point.function, {point.values, point.values + point.value_count}});
            }
        }
    }
    return found;
}

// Each test begins with an empty cache.
struct served_module : testing::Test {
    void SetUp() override
    {
        the = {};
        l2fib_mac_edm_mutex_lock();
        while (const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_first_by_bridgeid()) {
            l2fm_edm_table_bd_destroy(bd->bridge_id);
        }
        l2fib_mac_edm_mutex_unlock();
        host::objects_clear();
        host::mac_query_set(nullptr, nullptr);
        test::skip_traces();
    }
};

} // namespace served
