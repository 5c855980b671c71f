// SPDX-License-Identifier: Apache-2.0

// Chunk pools compared with the general heap. The elements have the size of a MAC entry. A benchmark writes both ends
// of an element as soon as it gets it. Each round starts without memory: the pool is new and the heap is trimmed.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "platform/chunk.h"

namespace {

constexpr uint32_t element_size = 88;    // of a MAC entry with its link, in bytes
constexpr uint32_t element_count = 1000; // by how many elements the pool grows

struct pool_source {
    chunk_pool_t *pool = chunk_create("bench", element_size, element_count, CHUNK_ZEROED_GROWABLE, 0, 0);
    pool_source() = default;
    pool_source(const pool_source &) = delete;
    pool_source &operator=(const pool_source &) = delete;
    ~pool_source() { chunk_destroy(pool); }
    void *take() const { return chunk_malloc(pool); }
    void give(void *element) const { chunk_free(pool, element); }
};

struct heap_source {
    heap_source() = default;
    heap_source(const heap_source &) = delete;
    heap_source &operator=(const heap_source &) = delete;
    ~heap_source() { malloc_trim(0); }
    void *take() const { return std::calloc(1, element_size); }
    void give(void *element) const { std::free(element); }
};

template <typename source>
char *take_and_write(const source &from)
{
    auto *element = static_cast<char *>(from.take());
    element[0] = 1;
    element[element_size - 1] = 1;
    return element;
}

template <typename source>
void give_all(const source &to, const std::vector<char *> &elements)
{
    for (char *element : elements) {
        to.give(element);
    }
}

std::vector<char *> elements_for(const benchmark::State &state)
{
    return std::vector<char *>(static_cast<size_t>(state.range(0)));
}

template <typename source>
void hand_out(benchmark::State &state)
{
    auto elements = elements_for(state);
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        {
            const source from;
            state.ResumeTiming();
            for (char *&element : elements) {
                element = take_and_write(from);
            }
            state.PauseTiming();
            give_all(from, elements);
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The distribution of the times of single allocations, with the time of reading the clock.
template <typename source>
void slowest(benchmark::State &state)
{
    using clock = std::chrono::steady_clock;
    auto elements = elements_for(state);
    std::vector<double> times;
    for ([[maybe_unused]] auto _ : state) {
        const source from;
        for (char *&element : elements) {
            const auto start = clock::now();
            element = take_and_write(from);
            times.push_back(std::chrono::duration<double, std::nano>(clock::now() - start).count());
        }
        give_all(from, elements);
    }
    std::sort(times.begin(), times.end());
    const auto percentile = [&](double part) {
        return times[static_cast<size_t>(part * static_cast<double>(times.size() - 1))];
    };
    state.counters["median_ns"] = percentile(0.5);
    state.counters["p99_ns"] = percentile(0.99);
    state.counters["p99.9_ns"] = percentile(0.999);
    state.counters["max_ns"] = times.back();
}

template <typename source>
void give_and_take_at_random(benchmark::State &state)
{
    const source from;
    auto elements = elements_for(state);
    for (char *&element : elements) {
        element = take_and_write(from);
    }
    std::minstd_rand random(1);
    for ([[maybe_unused]] auto _ : state) {
        char *&element = elements[random() % elements.size()];
        from.give(element);
        element = take_and_write(from);
    }
    give_all(from, elements);
    state.SetItemsProcessed(state.iterations());
}

template <typename source>
void give_back_shuffled(benchmark::State &state)
{
    auto elements = elements_for(state);
    std::minstd_rand random(1);
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        {
            const source from;
            for (char *&element : elements) {
                element = take_and_write(from);
            }
            std::shuffle(elements.begin(), elements.end(), random);
            state.ResumeTiming();
            give_all(from, elements);
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void sizes(benchmark::internal::Benchmark *bench)
{
    bench->Arg(10'000)->Arg(100'000)->Arg(1'000'000);
}

void rounds(benchmark::internal::Benchmark *bench)
{
    sizes(bench);
    bench->Iterations(5)->Unit(benchmark::kMillisecond);
}

BENCHMARK_TEMPLATE(hand_out, pool_source)->Apply(rounds);
BENCHMARK_TEMPLATE(hand_out, heap_source)->Apply(rounds);
BENCHMARK_TEMPLATE(slowest, pool_source)->Apply(rounds);
BENCHMARK_TEMPLATE(slowest, heap_source)->Apply(rounds);
BENCHMARK_TEMPLATE(give_and_take_at_random, pool_source)->Apply(sizes);
BENCHMARK_TEMPLATE(give_and_take_at_random, heap_source)->Apply(sizes);
BENCHMARK_TEMPLATE(give_back_shuffled, pool_source)->Apply(rounds);
BENCHMARK_TEMPLATE(give_back_shuffled, heap_source)->Apply(rounds);

} // namespace
