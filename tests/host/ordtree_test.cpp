// SPDX-License-Identifier: Apache-2.0

// The host's ordered tree against a plain reference, with the tree's own audit after every few steps.

#include "host/pool/arena.h"
#include "host/tree/ordtree_memory.h"
#include "platform/ordtree.h"

#include <gtest/gtest.h>

#include "tests/support/faults/no_slabs.h"
#include "tests/support/host/tree_audit.h"
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

namespace {

struct record {
    ordtree_link_t links[2];
    uint8_t address[6];
    uint32_t id;
};

thread_local uint64_t comparator_calls;

// Comparators whose keys are described, and the same ones whose keys are not.
template <bool Described>
uint32_t by_address(const ordtree_link_t *first, const ordtree_link_t *second)
{
    comparator_calls++;
    const auto *const a = reinterpret_cast<const record *>(first);
    const auto *const b = reinterpret_cast<const record *>(second);
    const int order = std::memcmp(a->address, b->address, sizeof(a->address));
    return order < 0 ? ORDTREE_LESS : order == 0 ? ORDTREE_EQUAL : ORDTREE_GREATER;
}

template <bool Described>
uint32_t by_id(const ordtree_link_t *first, const ordtree_link_t *second)
{
    comparator_calls++;
    const uint32_t a = reinterpret_cast<const record *>(first - 1)->id;
    const uint32_t b = reinterpret_cast<const record *>(second - 1)->id;
    return a < b ? ORDTREE_LESS : a == b ? ORDTREE_EQUAL : ORDTREE_GREATER;
}

struct kind {
    bool described;
    uint32_t index_count;
};

constexpr kind kinds[] = {{true, 1}, {false, 1}, {true, 2}, {false, 2}};

uint32_t init(ordtree_t &tree, kind of)
{
    ordtree_describe_key(by_address<true>, offsetof(record, address), 6, ORDTREE_KEY_BYTES);
    ordtree_describe_key(by_id<true>, offsetof(record, id) - sizeof(ordtree_link_t), 4, ORDTREE_KEY_U32);
    return of.described ? ordtree_init(&tree, of.index_count, nullptr, by_address<true>, by_id<true>)
                        : ordtree_init(&tree, of.index_count, nullptr, by_address<false>, by_id<false>);
}

// The address is the number in network order; ids run the other way, so that the two orders differ.
void set_keys(record &of, uint32_t number)
{
    std::memset(of.address, 0xfe, sizeof(of.address));
    for (unsigned i = 5; i >= 2; i--) {
        of.address[i] = static_cast<uint8_t>(number >> (8 * (5 - i)));
    }
    of.id = ~number;
}

uint32_t number_of(const record &of)
{
    return ~of.id;
}

record *entry(ordtree_link_t *node)
{
    return reinterpret_cast<record *>(node);
}

bool is_out(const record &of)
{
    return of.links[0].place == nullptr && of.links[1].place == nullptr;
}

// ORDTREE_SEED repeats a run.
uint32_t seed()
{
    const char *const given = std::getenv("ORDTREE_SEED");
    static const uint32_t value =
        given != nullptr ? static_cast<uint32_t>(std::strtoul(given, nullptr, 0)) : std::random_device{}();
    return value;
}

#define TRACE_SEED() SCOPED_TRACE("ORDTREE_SEED=" + std::to_string(seed()))
#define ASSERT_SOUND(tree) ASSERT_STREQ(test::tree_fault(&(tree)), nullptr)

std::vector<record> numbered_records(uint32_t count)
{
    std::vector<record> records(count);
    for (uint32_t i = 0; i < count; i++) {
        set_keys(records[i], i * 3);
    }
    return records;
}

// Records by their numbers, which is the order of the addresses; that of the ids is the reverse.
class reference {
public:
    std::map<uint32_t, record *> records;

    record *find(uint32_t number) const { return at(records.find(number)); }
    record *first(uint32_t index) const { return at(index == 0 ? records.begin() : before(records.end())); }
    record *next(uint32_t index, uint32_t number) const
    {
        return at(index == 0 ? records.upper_bound(number) : before(records.lower_bound(number)));
    }

private:
    using place = std::map<uint32_t, record *>::const_iterator;

    place before(place where) const { return where == records.begin() ? records.end() : std::prev(where); }
    record *at(place where) const { return where == records.end() ? nullptr : where->second; }
};

// A tree, its reference and a tree of the same shape whose records serve as foreign probes.
class model : public ::testing::TestWithParam<kind> {
protected:
    static constexpr uint32_t key_count = 6000;

    void SetUp() override
    {
        ordtree_watch(&tree, &changes); // without effect on a tree that does not run
        ASSERT_EQ(init(tree, GetParam()), 0U);
        EXPECT_EQ(tree.changes, nullptr);
        ordtree_watch(&tree, &changes);
        ASSERT_EQ(init(other, GetParam()), 0U);
        for (record &each : foreign) {
            ASSERT_NE(ordtree_insert(&other, each.links), nullptr);
        }
        for (uint32_t i = 0; i < pool.size(); i++) {
            set_keys(pool[i], i % key_count); // two records of each key
        }
    }

    void TearDown() override
    {
        ordtree_finish(&tree);
        ordtree_finish(&other);
        EXPECT_EQ(changes, effective_changes + 1) << "the end of the tree is a change";
        EXPECT_EQ(host::ordtree_memory().nodes, 0U);
    }

    void change(record &of)
    {
        const record *const present = expected.find(number_of(of));
        effective_changes += present == nullptr || present == &of ? 1 : 0;
        EXPECT_EQ(ordtree_insert(&tree, of.links), present == nullptr ? of.links : nullptr);
        if (present == nullptr) {
            expected.records[number_of(of)] = &of;
            return;
        }
        EXPECT_EQ(ordtree_delete(&tree, of.links), present == &of ? of.links : nullptr);
        EXPECT_TRUE(is_out(of));
        if (present == &of) {
            EXPECT_EQ(ordtree_delete(&tree, of.links), nullptr);
            expected.records.erase(number_of(of));
        }
    }

    void query(const record &probe)
    {
        for (uint32_t index = 0; index < tree.index_count; index++) {
            EXPECT_EQ(entry(ordtree_search(&tree, probe.links, index)), expected.find(number_of(probe)));
            EXPECT_EQ(entry(ordtree_get_next(&tree, probe.links, index)), expected.next(index, number_of(probe)));
            EXPECT_EQ(entry(ordtree_get_first(&tree, index)), expected.first(index));
        }
    }

    uint64_t changes = 0;
    uint64_t effective_changes = 0;
    ordtree_t tree{};
    ordtree_t other{};
    std::vector<record> foreign = numbered_records(key_count / 3);
    std::vector<record> pool = std::vector<record>(size_t{key_count} * 2);
    reference expected;
};

TEST_P(model, AgreesWithTheReference)
{
    TRACE_SEED();
    std::mt19937 random(seed());
    for (unsigned step = 0; step < 30000; step++) {
        // The share of keys in use wanders, so that the tree grows and shrinks by whole levels.
        const size_t window = step % 10000 < 6000 ? pool.size() : pool.size() / 100;
        record &one = pool[random() % window];
        change(one);
        record probe{};
        set_keys(probe, static_cast<uint32_t>(random() % key_count));
        query(probe);
        query(one);
        query(foreign[random() % foreign.size()]);
        if (step % 199 == 0) {
            ASSERT_SOUND(tree);
        }
        ASSERT_EQ(tree.record_count, expected.records.size());
        ASSERT_FALSE(HasFailure()) << "step " << step;
    }
}

INSTANTIATE_TEST_SUITE_P(Ordtree, model, ::testing::ValuesIn(kinds));

using sequence = std::vector<uint32_t>;

// Downwards in each of the stretches, which follow each other upwards: leaves run empty beside full ones.
sequence sawtooth(uint32_t count, uint32_t stretch)
{
    sequence made(count);
    for (uint32_t start = 0; start < count; start += stretch) {
        const uint32_t end = std::min(start + stretch, count);
        std::iota(made.rbegin() + (count - end), made.rbegin() + (count - start), start);
    }
    return made;
}

sequence shuffled(uint32_t count)
{
    sequence made = sawtooth(count, 1);
    std::shuffle(made.begin(), made.end(), std::mt19937(seed()));
    return made;
}

// Audits whenever the number of records is a multiple of `stride`.
void grow_and_shrink(kind of, const sequence &insertion, const sequence &deletion, uint32_t stride)
{
    auto records = numbered_records(static_cast<uint32_t>(insertion.size()));
    ordtree_t tree{};
    ASSERT_EQ(init(tree, of), 0U);
    const auto change = [&](const sequence &order, ordtree_link_t *(*operation)(ordtree_t *, ordtree_link_t *)) {
        for (const uint32_t i : order) {
            ASSERT_EQ(operation(&tree, records[i].links), records[i].links);
            if (tree.record_count % stride == 0) {
                ASSERT_SOUND(tree);
            }
        }
    };
    change(insertion, ordtree_insert);
    change(deletion, ordtree_delete);
    EXPECT_EQ(tree.record_count, 0U);
    ordtree_finish(&tree);
}

TEST(Ordtree, SurvivesEveryOrderOfInsertionAndDeletion)
{
    TRACE_SEED();
    constexpr uint32_t count = 9000; // three levels
    const sequence orders[] = {sawtooth(count, 1), sawtooth(count, count), sawtooth(count, 500), shuffled(count)};
    for (const kind &of : kinds) {
        for (const sequence &insertion : orders) {
            for (const sequence &deletion : orders) {
                grow_and_shrink(of, insertion, deletion, 499);
                EXPECT_EQ(host::ordtree_memory().nodes, 0U);
            }
        }
    }
}

TEST(Ordtree, DrainsInOrder)
{
    TRACE_SEED();
    auto records = numbered_records(9000);
    for (const kind &of : kinds) {
        for (const uint32_t most : {1U, 7U, 100U}) {
            uint64_t changes = 0;
            ordtree_t tree{};
            ordtree_link_t *drained[100];
            EXPECT_EQ(ordtree_drain(&tree, drained, most), 0U) << "it does not run";
            ASSERT_EQ(init(tree, of), 0U);
            ordtree_watch(&tree, &changes);
            for (const uint32_t i : shuffled(9000)) {
                ASSERT_NE(ordtree_insert(&tree, records[i].links), nullptr);
            }
            EXPECT_EQ(ordtree_drain(&tree, drained, 0), 0U);
            EXPECT_EQ(ordtree_get_next(&tree, records[0].links, 0), records[1].links) << "leaves a cursor";
            uint32_t place = 0;
            while (const uint32_t count = ordtree_drain(&tree, drained, most)) {
                ASSERT_LE(count, most);
                for (uint32_t i = 0; i < count; i++, place++) {
                    ASSERT_EQ(entry(drained[i]), &records[place]);
                    ASSERT_TRUE(is_out(records[place]));
                }
                if (place % 50 < count) {
                    ASSERT_SOUND(tree);
                    ASSERT_EQ(ordtree_get_first(&tree, 0), place < 9000 ? records[place].links : nullptr);
                }
            }
            EXPECT_EQ(place, of.index_count == 1 ? 9000U : 0U);
            EXPECT_EQ(changes, 9000U + place);
            EXPECT_EQ(tree.record_count, 9000U - place);
            for (; place < 9000; place++) {
                ASSERT_NE(ordtree_delete(&tree, records[place].links), nullptr);
            }
            ordtree_finish(&tree);
        }
    }
}

TEST(Ordtree, WalksWithoutASearchWhileRecordsLeave)
{
    auto records = numbered_records(5000);
    for (const kind &of : kinds) {
        ordtree_t tree{};
        ASSERT_EQ(init(tree, of), 0U);
        for (const uint32_t i : shuffled(5000)) {
            ASSERT_NE(ordtree_insert(&tree, records[i].links), nullptr);
        }
        comparator_calls = 0;
        // Gathers from places that are not in walking order.
        for (record &each : records) {
            ordtree_link_t *gathered[100];
            const auto place = static_cast<uint32_t>(&each - records.data());
            const auto count = std::min<uint32_t>(place % 101, static_cast<uint32_t>(records.size()) - 1 - place);
            ASSERT_EQ(ordtree_gather(&tree, each.links, 0, gathered, place % 101), count);
            for (uint32_t i = 0; i < count; i++) {
                ASSERT_EQ(entry(gathered[i]), &records[place + 1 + i]);
            }
        }
        // Index 0 is walked upwards. Every third record stays, as after a sweep.
        uint32_t visited = 0;
        ordtree_link_t *next = nullptr;
        for (auto *at = ordtree_get_first(&tree, 0); at != nullptr; at = next) {
            next = ordtree_get_next(&tree, at, 0);
            ASSERT_EQ(entry(at), &records[visited]);
            if (visited++ % 3 != 0) {
                ASSERT_NE(ordtree_delete(&tree, at), nullptr);
            }
        }
        EXPECT_EQ(visited, records.size());
        EXPECT_EQ(comparator_calls, 0U);
        ASSERT_SOUND(tree);
        ordtree_finish(&tree);
    }
}

// Trees of one node each, which use up the nodes of the slabs that there are.
class ballast {
public:
    ~ballast()
    {
        while (!trees_.empty()) {
            drop();
        }
    }

    bool add()
    {
        auto &[tree, only] = trees_.emplace_back();
        const bool is_added = init(tree, {true, 1}) == 0U && ordtree_insert(&tree, only.links) != nullptr;
        if (!is_added) {
            drop();
        }
        return is_added;
    }

    void drop()
    {
        ordtree_finish(&trees_.back().tree);
        trees_.pop_back();
    }

private:
    struct loaded {
        ordtree_t tree{};
        record only{};
    };
    std::deque<loaded> trees_; // which do not move
};

// More than one insertion takes.
constexpr unsigned nodes_of_an_insertion = 8;

TEST(Ordtree, InsertsIntoAllIndexesOrNone)
{
    TRACE_SEED();
    ballast others;
    ASSERT_TRUE(others.add());
    const test::no_slabs refused;
    for (const kind &of : kinds) {
        auto records = numbered_records(6000);
        ordtree_t tree{};
        ASSERT_EQ(init(tree, of), 0U);
        unsigned refusals = 0;
        for (const uint32_t i : shuffled(static_cast<uint32_t>(records.size()))) {
            while (others.add()) {}
            const auto all = host::ordtree_memory().nodes;
            for (size_t free = 0; ordtree_insert(&tree, records[i].links) == nullptr; free++) {
                refusals++;
                ASSERT_TRUE(is_out(records[i]));
                ASSERT_EQ(host::ordtree_memory().nodes, all - free);
                ASSERT_EQ(ordtree_search(&tree, records[i].links, of.index_count - 1), nullptr);
                ASSERT_SOUND(tree);
                ASSERT_LT(free, nodes_of_an_insertion);
                others.drop();
            }
        }
        EXPECT_GT(refusals, 100U);
        ASSERT_SOUND(tree);

        // A key that is taken in the second index only. There is room, so nothing else refuses it.
        for (unsigned node = 0; node < nodes_of_an_insertion; node++) {
            others.drop();
        }
        record half{};
        set_keys(half, 1);
        half.id = records[17].id;
        EXPECT_EQ(ordtree_insert(&tree, half.links) == nullptr, of.index_count == 2);
        EXPECT_EQ(is_out(half), of.index_count == 2);
        ASSERT_SOUND(tree);
        ordtree_finish(&tree);
    }
}

TEST(Ordtree, ToleratesAnyLink)
{
    auto records = numbered_records(500);
    ordtree_t tree{}, other{};
    ASSERT_EQ(init(tree, {true, 2}), 0U);
    ASSERT_EQ(init(other, {true, 2}), 0U);
    record dangling{};
    ASSERT_NE(ordtree_insert(&other, dangling.links), nullptr);
    ordtree_finish(&other);
    for (record &each : records) {
        ASSERT_NE(ordtree_insert(&tree, each.links), nullptr);
    }
    void *const leaf = records[100].links[0].place;
    void *const wild[] = {&tree,
                          leaf,
                          static_cast<char *>(leaf) + 8,
                          records[100].links[1].place,
                          tree.index[0].root,
                          dangling.links[0].place,
                          reinterpret_cast<void *>(uintptr_t{1}),
                          reinterpret_cast<void *>(~uintptr_t{0})};
    for (void *const place : wild) {
        record probe{};
        set_keys(probe, 100 * 3 + 1);
        probe.links[0].place = probe.links[1].place = place;
        EXPECT_EQ(ordtree_delete(&tree, probe.links), nullptr);
        EXPECT_EQ(probe.links[0].place, place) << "a refused link is not changed";
        EXPECT_EQ(entry(ordtree_get_next(&tree, probe.links, 0)), &records[101]);
        EXPECT_EQ(entry(ordtree_get_next(&tree, probe.links, 1)), &records[100]);
        EXPECT_EQ(ordtree_insert(&tree, probe.links), probe.links) << "it is in no tree";
        EXPECT_EQ(ordtree_delete(&tree, probe.links), probe.links);
    }
    // A record whose links changed places, a copy of a record, and a record of another tree.
    std::swap(records[50].links[0], records[50].links[1]);
    EXPECT_EQ(ordtree_delete(&tree, records[50].links), nullptr);
    std::swap(records[50].links[0], records[50].links[1]);
    record copy = records[7];
    EXPECT_EQ(entry(ordtree_get_next(&tree, copy.links, 0)), &records[8]);
    EXPECT_EQ(ordtree_delete(&tree, copy.links), nullptr);
    ASSERT_EQ(init(other, {true, 2}), 0U);
    EXPECT_EQ(ordtree_insert(&other, records[9].links), nullptr);
    EXPECT_EQ(ordtree_delete(&other, records[9].links), nullptr);
    ordtree_finish(&other);
    // A record whose key changed while it was in the tree.
    ASSERT_SOUND(tree);
    set_keys(records[7], 1000000);
    EXPECT_STREQ(test::tree_fault(&tree), "a key word is not that of its record");
    EXPECT_NE(ordtree_delete(&tree, records[7].links), nullptr);
    ASSERT_SOUND(tree);
    ordtree_finish(&tree);
}

void *to_entry(ordtree_link_t *node)
{
    return node;
}

TEST(Ordtree, RefusesBadComparatorsAndNull)
{
    ordtree_t tree{};
    record one{};
    EXPECT_NE(ordtree_init(nullptr, 1, nullptr, by_address<false>), 0U);
    EXPECT_NE(ordtree_init(&tree, 0, nullptr), 0U);
    EXPECT_NE(ordtree_init(&tree, 3, nullptr, by_address<false>, by_id<false>, by_id<false>), 0U);
    EXPECT_NE(ordtree_init(&tree, 2, nullptr, by_address<false>, ordtree_compare_fn{nullptr}), 0U);
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(ordtree_running(&tree), 0U);
        EXPECT_EQ(ordtree_insert(&tree, one.links), nullptr);
        EXPECT_EQ(ordtree_get_first(&tree, 0), nullptr);
        EXPECT_EQ(ordtree_get_next(&tree, one.links, 0), nullptr);
        ASSERT_EQ(ordtree_init(&tree, 1, to_entry, by_address<false>), 0U);
        EXPECT_NE(ordtree_init(&tree, 1, nullptr, by_id<false>), 0U) << "it runs already";
        EXPECT_EQ(tree.node_to_entry, to_entry);
        EXPECT_EQ(ordtree_insert(&tree, nullptr), nullptr);
        ASSERT_NE(ordtree_insert(&tree, one.links), nullptr);
        EXPECT_EQ(ordtree_search(&tree, one.links, 1), nullptr) << "there is one index only";
        EXPECT_EQ(ordtree_search(&tree, nullptr, 0), nullptr);
        ordtree_finish(&tree);
        one = {};
    }
}

struct wide_key {
    ordtree_link_t link;
    uint8_t key[8];
};

template <unsigned Width>
uint32_t by_bytes(const ordtree_link_t *first, const ordtree_link_t *second)
{
    comparator_calls++;
    const int order = std::memcmp(first + 1, second + 1, Width);
    return order < 0 ? ORDTREE_LESS : order == 0 ? ORDTREE_EQUAL : ORDTREE_GREATER;
}

TEST(Ordtree, OrdersDescribedKeysLikeTheirComparator)
{
    TRACE_SEED();
    std::mt19937_64 random(seed());
    constexpr std::array<ordtree_compare_fn, 8> comparators = {by_bytes<1>, by_bytes<2>, by_bytes<3>, by_bytes<4>,
                                                               by_bytes<5>, by_bytes<6>, by_bytes<7>, by_bytes<8>};
    for (uint32_t width = 1; width <= comparators.size(); width++) {
        ordtree_describe_key(comparators[width - 1], sizeof(ordtree_link_t), width, ORDTREE_KEY_BYTES);
        ordtree_describe_key(comparators[width - 1], 0, 9, ORDTREE_KEY_BYTES); // makes no sense
        ordtree_t tree{};
        ASSERT_EQ(ordtree_init(&tree, 1, nullptr, comparators[width - 1]), 0U);
        std::vector<wide_key> keys(300);
        comparator_calls = 0;
        for (wide_key &each : keys) {
            const uint64_t key = &each == &keys.front() ? 0 : &each == &keys.back() ? UINT64_MAX : random();
            std::memcpy(each.key, &key, sizeof(key));
            ordtree_insert(&tree, &each.link); // some of the short ones occur twice
        }
        for (const wide_key &each : keys) {
            wide_key probe = each;
            probe.link.place = nullptr;
            EXPECT_NE(ordtree_search(&tree, &probe.link, 0), nullptr);
        }
        EXPECT_EQ(comparator_calls, 0U);
        EXPECT_GT(tree.record_count, 100U);
        ASSERT_SOUND(tree);
        ordtree_finish(&tree);
    }
}

// Addresses of one vendor come in runs, and the tree may hold greater ones already.
TEST(Ordtree, FillsNodesFromARunOfKeysBelowGreaterOnes)
{
    constexpr uint32_t run = 6000;
    constexpr uint32_t greater = 20;
    auto records = numbered_records(run + greater);
    ordtree_t tree{};
    ASSERT_EQ(init(tree, {true, 1}), 0U);
    for (uint32_t i = 0; i < run + greater; i++) {
        ASSERT_NE(ordtree_insert(&tree, records[(run + i) % (run + greater)].links), nullptr);
    }
    constexpr uint32_t least_leaves = run / 61;
    EXPECT_LT(host::ordtree_memory().nodes, least_leaves * 11 / 10);
    ASSERT_SOUND(tree);
    ordtree_finish(&tree);
}

TEST(Ordtree, SharesAndReturnsSlabs)
{
    std::vector<ordtree_t> trees(1500); // of two nodes each, more than a slab holds
    auto records = numbered_records(static_cast<uint32_t>(trees.size()));
    for (ordtree_t &each : trees) {
        ASSERT_EQ(init(each, {true, 2}), 0U);
    }
    for (int round = 0; round < 3; round++) {
        ASSERT_NE(ordtree_insert(trees.data(), records[0].links), nullptr);
        size_t filled = 1;
        {
            const test::no_slabs refused;
            while (ordtree_insert(&trees[filled], records[filled].links) != nullptr) {
                filled++;
            }
        }
        EXPECT_EQ(host::ordtree_memory().nodes, filled * 2) << "a node that was of no use alone has to be free again";
        EXPECT_TRUE(is_out(records[filled]));
        for (size_t i = filled; i < trees.size(); i++) {
            ASSERT_NE(ordtree_insert(&trees[i], records[i].links), nullptr);
        }
        EXPECT_EQ(host::ordtree_memory().mapped_bytes, 2 * host::arena_slab_size);
        for (size_t i = 0; i < trees.size(); i++) {
            ASSERT_NE(ordtree_delete(&trees[i], records[i].links), nullptr);
        }
        EXPECT_EQ(host::ordtree_memory().nodes, 0U);
        EXPECT_EQ(host::ordtree_memory().mapped_bytes, host::arena_slab_size) << "one is kept";
    }
}

TEST(Ordtree, GrowsOnManyThreads)
{
    const auto work = [](const sequence &order) {
        for (int round = 0; round < 4; round++) {
            grow_and_shrink({true, 2}, order, order, 1000);
        }
    };
    std::thread other(work, shuffled(4000));
    work(sawtooth(4000, 500));
    other.join();
    EXPECT_EQ(host::ordtree_memory().nodes, 0U);
    EXPECT_LE(host::ordtree_memory().mapped_bytes, host::arena_slab_size);
}

} // namespace
