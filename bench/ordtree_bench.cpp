// SPDX-License-Identifier: Apache-2.0

// The host's ordered tree compared with other containers, all with records of the same size.
//
// The records are in one array in the order of their insertion. They have random keys and belong to one tree or to 320
// trees. One iteration is one pass over all records, so items_per_second gives the cost of one operation. To compare,
// run
//     ordtree_bench --benchmark_enable_random_interleaving=true --benchmark_repetitions=5
//                   --benchmark_report_aggregates_only=true

#include "bench/thread_time.h"
#include "platform/ordtree.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#if __has_include(<boost/intrusive/avl_set.hpp>)
#include <boost/intrusive/avl_set.hpp>
#define WITH_BOOST 1
#endif
#if __has_include(<absl/container/btree_map.h>)
#include <absl/container/btree_map.h>
#define WITH_ABSL 1
#endif

namespace {

using bench::measure;
using key_type = uint64_t;

constexpr size_t record_size = 88; // of a MAC entry with its link, in bytes
constexpr size_t address_size = 6; // in bytes
constexpr size_t padded_address_size = 8;

// A record as large as a MAC entry. It begins with the hook that a container embeds.
template <typename Hook>
struct record : Hook {
    uint8_t address[address_size];
    uint32_t tree;
    char rest[record_size - sizeof(Hook) - padded_address_size - sizeof(uint32_t)];
};

struct no_hook {
    void *unused;
};

// A key is the address as a number, whose first byte is the most significant one.
constexpr uint32_t unused_key_bits = 64 - 8 * address_size;

template <typename Record>
key_type key_of(const Record &of)
{
    key_type key = 0;
    std::memcpy(&key, of.address, sizeof(of.address));
    return __builtin_bswap64(key) >> unused_key_bits;
}

template <typename Record>
void set_key(Record &of, key_type key)
{
    key = __builtin_bswap64(key << unused_key_bits);
    std::memcpy(of.address, &key, sizeof(of.address));
}

template <bool Described>
class ordtree_container {
public:
    struct element : record<ordtree_link_t> {};

    ordtree_container()
    {
        if (Described) {
            ordtree_describe_key(compare, sizeof(ordtree_link_t), address_size, ORDTREE_KEY_BYTES);
        }
        ordtree_init(&tree, 1, nullptr, compare);
    }
    ordtree_container(const ordtree_container &) = delete;
    ordtree_container &operator=(const ordtree_container &) = delete;
    ~ordtree_container() { ordtree_finish(&tree); }

    void insert(element &added) { ordtree_insert(&tree, &added); }
    void erase(element &removed) { ordtree_delete(&tree, &removed); }
    const element *find(key_type key) const { return ask(ordtree_search, key); }
    const element *after(key_type key) const { return ask(ordtree_get_next, key); }

    template <typename Visit>
    void walk(Visit visit) const
    {
        for (auto *at = ordtree_get_first(&tree, 0); at != nullptr; at = ordtree_get_next(&tree, at, 0)) {
            visit(*static_cast<const element *>(at));
        }
    }

    void drain()
    {
        ordtree_link_t *next = nullptr;
        for (auto *at = ordtree_get_first(&tree, 0); at != nullptr; at = next) {
            next = ordtree_get_next(&tree, at, 0);
            ordtree_delete(&tree, at);
        }
    }

private:
    static uint32_t compare(const ordtree_link_t *first, const ordtree_link_t *second)
    {
        const int order = std::memcmp(static_cast<const element *>(first)->address,
                                      static_cast<const element *>(second)->address, address_size);
        return order < 0 ? ORDTREE_LESS : order == 0 ? ORDTREE_EQUAL : ORDTREE_GREATER;
    }

    template <typename Question>
    const element *ask(Question question, key_type key) const
    {
        element probe;
        probe.place = nullptr;
        set_key(probe, key);
        return static_cast<const element *>(question(&tree, &probe, 0));
    }

    ordtree_t tree{};
};

// The order of containers that compare records, or pointers to them, with each other and with keys.
struct by_key {
    using is_transparent = void;
    template <typename Record>
    static key_type key(const Record &of)
    {
        if constexpr (std::is_pointer_v<Record>) {
            return key_of(*of);
        } else {
            return key_of(of);
        }
    }
    static key_type key(key_type of) { return of; }
    template <typename First, typename Second>
    bool operator()(const First &first, const Second &second) const
    {
        return key(first) < key(second);
    }
};

class std_set {
public:
    struct element : record<no_hook> {};

    void insert(element &added) { set.insert(&added); }
    void erase(element &removed) { set.erase(&removed); }
    const element *find(key_type key) const { return at(set.find(key)); }
    const element *after(key_type key) const { return at(set.upper_bound(key)); }

    template <typename Visit>
    void walk(Visit visit) const
    {
        for (const element *each : set) {
            visit(*each);
        }
    }

    void drain()
    {
        for (auto at = set.begin(); at != set.end();) {
            at = set.erase(at);
        }
    }

private:
    using set_type = std::set<element *, by_key>;
    const element *at(set_type::const_iterator where) const { return where == set.end() ? nullptr : *where; }
    set_type set;
};

#ifdef WITH_BOOST
class boost_avl_set {
public:
    struct element : record<boost::intrusive::avl_set_base_hook<>> {};

    ~boost_avl_set() { set.clear(); }

    void insert(element &added) { set.insert(added); }
    void erase(element &removed) { set.erase(set.iterator_to(removed)); }
    const element *find(key_type key) const { return at(set.find(key, by_key{})); }
    const element *after(key_type key) const { return at(set.upper_bound(key, by_key{})); }

    template <typename Visit>
    void walk(Visit visit) const
    {
        for (const element &each : set) {
            visit(each);
        }
    }

    void drain()
    {
        for (auto where = set.begin(); where != set.end();) {
            where = set.erase(where);
        }
    }

private:
    using set_type = boost::intrusive::avl_set<element, boost::intrusive::compare<by_key>>;
    const element *at(set_type::const_iterator where) const { return where == set.end() ? nullptr : &*where; }
    set_type set;
};
#endif

#ifdef WITH_ABSL
class absl_btree_map {
public:
    struct element : record<no_hook> {};

    void insert(element &added) { map.emplace(key_of(added), &added); }
    void erase(element &removed) { map.erase(key_of(removed)); }
    const element *find(key_type key) const { return at(map.find(key)); }
    const element *after(key_type key) const { return at(map.upper_bound(key)); }

    template <typename Visit>
    void walk(Visit visit) const
    {
        for (const auto &each : map) {
            visit(*each.second);
        }
    }

    void drain()
    {
        for (auto where = map.begin(); where != map.end();) {
            where = map.erase(where);
        }
    }

private:
    using map_type = absl::btree_map<key_type, element *>;
    const element *at(map_type::const_iterator where) const { return where == map.end() ? nullptr : where->second; }
    map_type map;
};
#endif

// A set of records with random even keys. Each odd key is absent.
template <typename Container>
class population {
public:
    using element = typename Container::element;
    static_assert(sizeof(element) == record_size);

    population(size_t count, size_t trees, bool sorted)
        : records(count)
        , containers(std::make_unique<Container[]>(trees))
        , container_count(trees)
    {
        std::mt19937_64 random(20);
        std::vector<key_type> keys(count);
        std::generate(keys.begin(), keys.end(), [&random] { return (random() >> 17) << 1; });
        if (sorted) {
            std::sort(keys.begin(), keys.end());
        }
        for (size_t i = 0; i < count; i++) {
            set_key(records[i], keys[i]);
            records[i].tree = static_cast<uint32_t>(random() % trees);
        }
        for (size_t i = 0; i < count; i++) {
            order.push_back({keys[i], records[i].tree, static_cast<uint32_t>(i)});
        }
        std::shuffle(order.begin(), order.end(), random);
    }

    void fill()
    {
        for (element &each : records) {
            containers[each.tree].insert(each);
        }
    }

    void drain()
    {
        for (size_t i = 0; i < container_count; i++) {
            containers[i].drain();
        }
    }

    struct question {
        key_type key;
        uint32_t tree;
        uint32_t record;
    };

    std::vector<element> records;
    std::vector<question> order; // a random order of access, different from the order of insertion
    std::unique_ptr<Container[]> containers;
    size_t container_count;
};

template <typename Container, bool Sorted>
void insert(benchmark::State &state)
{
    population<Container> all(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)), Sorted);
    for (auto _ : state) {
        measure(state, [&] { all.fill(); });
        all.drain();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Container, bool Walking>
void erase(benchmark::State &state)
{
    population<Container> all(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)), false);
    for (auto _ : state) {
        all.fill();
        measure(state, [&] {
            if (Walking) {
                all.drain();
                return;
            }
            for (const auto &each : all.order) {
                all.containers[each.tree].erase(all.records[each.record]);
            }
        });
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

enum class lookup { hit, miss, successor };

template <typename Container, lookup What>
void look_up(benchmark::State &state)
{
    population<Container> all(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)), false);
    all.fill();
    for (auto _ : state) {
        measure(state, [&] {
            for (const auto &each : all.order) {
                const Container &in = all.containers[each.tree];
                const key_type key = What == lookup::hit ? each.key : each.key + 1;
                benchmark::DoNotOptimize(What == lookup::successor ? in.after(key) : in.find(key));
            }
        });
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    all.drain();
}

template <typename Container>
void walk(benchmark::State &state)
{
    population<Container> all(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)), false);
    all.fill();
    for (auto _ : state) {
        measure(state, [&] {
            uint64_t sum = 0;
            for (size_t i = 0; i < all.container_count; i++) {
                all.containers[i].walk([&sum](const auto &each) { sum += each.address[5] + each.tree; });
            }
            benchmark::DoNotOptimize(sum);
        });
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    all.drain();
}

void register_one(const std::string &work, const char *container, void (*function)(benchmark::State &))
{
    auto *const made = benchmark::RegisterBenchmark((work + "/" + container).c_str(), function);
    for (const int64_t trees : {1, 320}) {
        for (const int64_t count : {1'000, 10'000, 100'000, 1'000'000}) {
            made->Args({count, trees});
        }
    }
    made->UseManualTime()->Unit(benchmark::kMicrosecond)->ArgNames({"records", "trees"});
}

template <typename Container>
void register_all(const char *name)
{
    register_one("insert_random", name, insert<Container, false>);
    register_one("insert_ascending", name, insert<Container, true>);
    register_one("search_hit", name, look_up<Container, lookup::hit>);
    register_one("search_miss", name, look_up<Container, lookup::miss>);
    register_one("successor_of_absent", name, look_up<Container, lookup::successor>);
    register_one("walk", name, walk<Container>);
    register_one("delete_by_walk", name, erase<Container, true>);
    register_one("delete_random", name, erase<Container, false>);
}

const bool registered = [] {
    register_all<ordtree_container<true>>("ordtree");
    register_all<ordtree_container<false>>("ordtree_by_comparator");
    register_all<std_set>("std_set");
#ifdef WITH_BOOST
    register_all<boost_avl_set>("boost_avl_set");
#endif
#ifdef WITH_ABSL
    register_all<absl_btree_map>("absl_btree_map");
#endif
    return true;
}();

} // namespace
