// SPDX-License-Identifier: Apache-2.0

// Reads a whole table in pages through the operational database, as an operator's command does: by bridge domain, by
// port, in order of creation. A figure is the time of one item or of one page, from the request until the requester has
// the item. `locked` is the share of the time in which the requests hold the table lock; a feed would wait then.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <dlfcn.h>

#include "bench/random_table.h"
#include "host/database/operational_db_host.h"
#include "host/event/event_host.h"
#include "l2fm_edm_table.h"
#include "tests/support/requests.h"

namespace {

using clock_type = std::chrono::steady_clock;

thread_local uint32_t lock_depth;
thread_local clock_type::time_point locked_at;
std::chrono::nanoseconds locked; // the holder of the table lock writes it

using lock_fn = void (*)();

lock_fn next_lock_function(const char *name)
{
    return reinterpret_cast<lock_fn>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The linker prefers these functions to the module's own ones, also for calls inside the module.

void l2fib_mac_edm_mutex_lock()
{
    static const lock_fn next = next_lock_function(__func__);
    next();
    if (lock_depth++ == 0) {
        locked_at = clock_type::now();
    }
}

void l2fib_mac_edm_mutex_unlock()
{
    static const lock_fn next = next_lock_function(__func__);
    if (--lock_depth == 0) {
        locked += clock_type::now() - locked_at;
    }
    next();
}

namespace {

// The table needs no resync: it always holds what was fed.
void end_resync()
{
    l2fib_mac_edm_resync_complete(EDM_RESYNC_STATUS_DONE);
}

constexpr const char *module_threads[] = {EDM_REQUEST_THREAD_PATH, EDM_CACHE_THREAD_PATH};
constexpr uint32_t max_thread_wait = 60; // in seconds

void start_module()
{
    l2fib_mac_edm_pd_cb_t callbacks = {};
    callbacks.resync_all_cb = callbacks.action_cb = callbacks.cb4 = callbacks.cb6 = end_resync;
    callbacks.resync_bd_cb = [](uint16_t) { end_resync(); };
    callbacks.resync_bp_cb = [](uint32_t) { end_resync(); };
    callbacks.bd_mac_count_cb = [](uint16_t, edm_mac_counters_t *) { return 1u; };
    callbacks.cache_evm_cb = [](event_manager_t *) {};
    static uint32_t limit;
    event_manager_t *evm = event_manager_create(0, "/dev/bench", EVENT_MANAGER_DEPTH, 0);
    if (l2fib_mac_edm_init(evm, evm, evm_get_chan(evm), &callbacks) != 0
        || l2fib_mac_edm_defn_init(&limit, UINT32_MAX) != 0) {
        std::abort();
    }
    for (const char *path : module_threads) {
        host::event_manager_wait(path, max_thread_wait);
    }
}

// Fills the table with `count` entries, unless it has that many already.
void fill_table(size_t count)
{
    static size_t filled;
    if (filled == count) {
        return;
    }
    for (uint16_t bridge_id = 1; bridge_id <= bench::bridge_domains; bridge_id++) {
        l2fm_edm_table_bd_destroy(bridge_id);
    }
    for (const l2fib_mac_edm_entry_t &entry : bench::make_entries(count)) {
        if (l2fib_mac_edm_add(&entry) != 0) {
            std::abort();
        }
    }
    filled = count;
}

std::vector<std::string> whole_table()
{
    return {"mac-table"};
}

std::vector<std::string> aging_order()
{
    return {"mac-aging"};
}

std::vector<std::string> each_bridge_domain()
{
    std::vector<std::string> paths;
    for (uint16_t bridge_id = 1; bridge_id <= bench::bridge_domains; bridge_id++) {
        paths.push_back("mac-table/domain/" + bench::domain_name(bridge_id));
    }
    return paths;
}

std::vector<std::string> each_port()
{
    std::vector<std::string> paths;
    for (uint16_t bridge_id = 1; bridge_id <= bench::bridge_domains; bridge_id++) {
        for (uint32_t port = 0; port < bench::ports_of_bd; port++) {
            paths.push_back("mac-table/port/" + std::to_string(bench::xcid_of(bridge_id, port)) + "/domain/"
                            + bench::domain_name(bridge_id));
        }
    }
    return paths;
}

void page_through(benchmark::State &state, host::request_kind kind, std::vector<std::string> (*paths_of)())
{
    fill_table(static_cast<size_t>(state.range(0)));
    const std::vector<std::string> paths = paths_of();
    uint64_t items = 0;
    uint64_t pages = 0;
    const auto visit = [&](const host::operational_page &page) {
        items += page.items.size();
        pages++;
        return true;
    };
    locked = {};
    const auto begin = clock_type::now();
    for ([[maybe_unused]] auto _ : state) {
        for (const std::string &path : paths) {
            if (test::read_pages({.path = path, .kind = kind}, visit) != 0) {
                state.SkipWithError("a request failed");
            }
        }
    }
    const std::chrono::duration<double, std::nano> taken = clock_type::now() - begin;
    state.counters["ns/item"] = taken.count() / static_cast<double>(items);
    state.counters["us/page"] = taken.count() / static_cast<double>(pages) / 1e3;
    state.counters["locked"] = static_cast<double>(locked.count()) / taken.count();
    state.counters["locked_ns/item"] = static_cast<double>(locked.count()) / static_cast<double>(items);
}

constexpr auto names = host::request_kind::list;
constexpr auto data = host::request_kind::datalist;

#define PAGING(name, kind, paths)                      \
    BENCHMARK_CAPTURE(page_through, name, kind, paths) \
        ->Arg(100'000)                                 \
        ->Arg(1'000'000)                               \
        ->Unit(benchmark::kMillisecond)                \
        ->UseRealTime()

PAGING(whole_table_names, names, whole_table);
PAGING(whole_table_records, data, whole_table);
PAGING(bridge_domains_names, names, each_bridge_domain);
PAGING(bridge_domains_records, data, each_bridge_domain);
PAGING(ports_names, names, each_port);
PAGING(ports_records, data, each_port);
PAGING(aging_records, data, aging_order);

} // namespace

int main(int argc, char **argv)
{
    bench::create_objects();
    start_module();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    for (const char *path : module_threads) {
        event_manager_t *evm = host::event_manager_find(path);
        host::event_manager_stop(evm);
        host::event_manager_join(evm, max_thread_wait);
    }
}
