// SPDX-License-Identifier: Apache-2.0

// The table at its main work. The addresses are random, over 10 bridge domains with 32 ports each. The benchmarks feed
// them one by one through the exported interface, look them up, walk over them, mark and sweep them. Each figure is the
// time of one entry.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "bench/random_table.h"
#include "bench/thread_time.h"
#include "host/pool/chunk_statistics.h"
#include "host/tree/ordtree_memory.h"
#include "l2fm_edm_table.h"
#include "platform/l2fib.h"

namespace {

using bench::bridge_domains;
using bench::create_objects;
using bench::make_entries;
using bench::measure;
using clock_type = std::chrono::steady_clock;

// Of the first byte of an address. No entry of the table has it.
constexpr uint8_t multicast_bit = 1;

// A started table for the life of one benchmark. With `fill` it holds `count` entries, without it none.
struct filled_table {
    explicit filled_table(int64_t count, bool fill = true)
        : entries(make_entries(static_cast<size_t>(count)))
    {
        static uint32_t limit_cell;
        create_objects();
        l2fm_edm_table_init();
        l2fib_mac_edm_defn_init(&limit_cell, UINT32_MAX);
        if (fill) {
            feed();
            std::shuffle(entries.begin(), entries.end(), std::mt19937_64(2));
        }
    }
    ~filled_table() { l2fm_edm_table_deinit(); }
    filled_table(const filled_table &) = delete;
    filled_table &operator=(const filled_table &) = delete;

    void feed() const
    {
        for (const l2fib_mac_edm_entry_t &entry : entries) {
            if (l2fib_mac_edm_add(&entry) != 0) {
                std::abort();
            }
        }
    }

    std::vector<l2fib_mac_edm_entry_t> entries;
};

void report(benchmark::State &state, uint64_t items)
{
    state.counters["per_entry"] = benchmark::Counter(
        static_cast<double>(items), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

uint64_t bytes_in_use()
{
    uint64_t bytes = host::ordtree_memory().node_bytes;
    host::chunk_statistics pool;
    for (chunk_pool_t *at = host::chunk_next(nullptr); at != nullptr; at = host::chunk_next(at)) {
        if (host::chunk_read_statistics(at, &pool)) {
            bytes += pool.in_use * pool.element_size;
        }
    }
    return bytes;
}

void create(benchmark::State &state)
{
    std::vector<double> each;
    for (auto _ : state) {
        const filled_table table(state.range(0), false);
        each.clear();
        each.reserve(table.entries.size());
        measure(state, [&] {
            auto before = clock_type::now();
            for (const l2fib_mac_edm_entry_t &entry : table.entries) {
                l2fib_mac_edm_add(&entry);
                const auto now = clock_type::now();
                each.push_back(std::chrono::duration<double, std::nano>(now - before).count());
                before = now;
            }
        });
        state.counters["bytes"] = static_cast<double>(bytes_in_use()) / static_cast<double>(state.range(0));
    }
    report(state, static_cast<uint64_t>(state.range(0)));
    std::sort(each.begin(), each.end());
    state.counters["p99_ns"] = each[each.size() * 99 / 100];
    state.counters["max_us"] = each.back() / 1000;
}

void feed_again(benchmark::State &state)
{
    const filled_table table(state.range(0));
    for (auto _ : state) {
        measure(state, [&] { table.feed(); });
    }
    report(state, table.entries.size());
}

// Looks up every address by bridge domain. Each lookup flips the bits `flip` of the first byte: 0 for a cached address,
// `multicast_bit` for an absent one.
void look_up(benchmark::State &state, uint8_t flip)
{
    filled_table table(state.range(0));
    for (l2fib_mac_edm_entry_t &entry : table.entries) {
        entry.mac_addr[0] ^= flip;
    }
    for (auto _ : state) {
        measure(state, [&] {
            for (const l2fib_mac_edm_entry_t &entry : table.entries) {
                benchmark::DoNotOptimize(l2fm_edm_table_mac_get_by_bridgeid_mac(entry.bridge_id, entry.mac_addr));
            }
        });
    }
    report(state, table.entries.size());
}

void look_up_hit(benchmark::State &state)
{
    look_up(state, 0);
}
void look_up_absent(benchmark::State &state)
{
    look_up(state, multicast_bit);
}

void successor_of_absent(benchmark::State &state)
{
    filled_table table(state.range(0));
    for (auto _ : state) {
        measure(state, [&] {
            for (l2fib_mac_edm_entry_t &entry : table.entries) {
                entry.mac_addr[0] ^= multicast_bit;
                const l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(entry.xcid);
                benchmark::DoNotOptimize(l2fm_edm_table_bp_macaddr_get_next(&bp->mac_tree, entry.mac_addr));
            }
        });
    }
    report(state, table.entries.size());
}

void full_resync(benchmark::State &state)
{
    const filled_table table(state.range(0));
    for (auto _ : state) {
        measure(state, [&] {
            l2fib_mac_edm_mark_all();
            table.feed();
            l2fib_mac_edm_sweep_all();
        });
    }
    report(state, table.entries.size());
}

uint32_t count_visit(l2fm_edm_mac_t *mac, void *cookie)
{
    *static_cast<uint64_t *>(cookie) += mac->flags + 1u;
    return EDM_WALK_CONTINUE;
}

void walk_in_order(benchmark::State &state)
{
    const filled_table table(state.range(0));
    uint64_t sum = 0;
    for (auto _ : state) {
        measure(state, [&] {
            for (uint16_t bridge_id = 1; bridge_id <= bridge_domains; bridge_id++) {
                l2fm_edm_table_walk_all_macs_under_bd(count_visit, &sum, bridge_id);
            }
        });
    }
    benchmark::DoNotOptimize(sum);
    report(state, table.entries.size());
}

void walk_as_created(benchmark::State &state)
{
    const filled_table table(state.range(0));
    uint64_t sum = 0;
    for (auto _ : state) {
        measure(state, [&] { l2fm_edm_table_walk_all_macs(count_visit, &sum); });
    }
    benchmark::DoNotOptimize(sum);
    report(state, table.entries.size());
}

void mark_and_sweep(benchmark::State &state)
{
    for (auto _ : state) {
        const filled_table table(state.range(0));
        measure(state, [&] {
            l2fib_mac_edm_mark_all();
            l2fib_mac_edm_sweep_all();
        });
    }
    report(state, static_cast<uint64_t>(state.range(0)));
}

void sizes(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Arg(10'000)->Arg(100'000)->Arg(1'000'000)->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(create)->Apply(sizes);
BENCHMARK(feed_again)->Apply(sizes);
BENCHMARK(look_up_hit)->Apply(sizes);
BENCHMARK(look_up_absent)->Apply(sizes);
BENCHMARK(successor_of_absent)->Apply(sizes);
BENCHMARK(full_resync)->Apply(sizes);
BENCHMARK(walk_in_order)->Apply(sizes);
BENCHMARK(walk_as_created)->Apply(sizes);
BENCHMARK(mark_and_sweep)->Apply(sizes);

} // namespace
