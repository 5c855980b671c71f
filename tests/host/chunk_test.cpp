// SPDX-License-Identifier: Apache-2.0

// Pools of elements of one size, and the arena of slabs behind them.

#include "platform/chunk.h"

#include <gtest/gtest.h>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/pool/arena.h"
#include "host/pool/chunk_statistics.h"
#include "tests/support/faults/no_slabs.h"

namespace {

using host::arena_slab_size;

chunk_pool_t *make_pool(uint32_t element_size, uint32_t element_count, const char *name = "test")
{
    return chunk_create(name, element_size, element_count, CHUNK_ZEROED_GROWABLE, 0, 0);
}

host::chunk_statistics statistics_of(const chunk_pool_t *pool)
{
    host::chunk_statistics statistics = {};
    EXPECT_TRUE(host::chunk_read_statistics(pool, &statistics));
    return statistics;
}

size_t slabs_taken()
{
    host::arena_statistics statistics = {};
    host::arena_read_statistics(&statistics);
    return statistics.taken;
}

char *take(chunk_pool_t *pool)
{
    return static_cast<char *>(chunk_malloc(pool));
}

// Each test leaves the arena as it was, and no pool.
class chunk : public testing::Test {
protected:
    void TearDown() override
    {
        EXPECT_EQ(slabs_taken(), 0u);
        EXPECT_EQ(host::chunk_next(nullptr), nullptr);
    }
};

bool consists_of(const char *element, size_t size, char content)
{
    return element[0] == content && memcmp(element, element + 1, size - 1) == 0;
}

// Fills each element that is out with a byte of its own. An element that the pool hands out twice, moves, shortens or
// does not clear shows as a wrong byte. The pool swings between empty and `most` elements.
void compare_with_model(uint32_t size, uint32_t step, size_t most, unsigned seed)
{
    chunk_pool_t *pool = make_pool(size, step);
    ASSERT_NE(pool, nullptr);
    std::mt19937 random(seed);
    std::vector<std::pair<char *, char>> out;
    for (size_t round = 0; round < 6 * most; round++) {
        const bool growing = round / most % 2 == 0;
        if (out.empty() || random() % 8 < (growing ? 7u : 1u)) {
            char *element = take(pool);
            ASSERT_NE(element, nullptr);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(element) % 8, 0u);
            ASSERT_TRUE(consists_of(element, size, 0));
            out.emplace_back(element, static_cast<char>(1 + random() % 100));
            memset(element, out.back().second, size);
        } else {
            std::swap(out[random() % out.size()], out.back());
            ASSERT_TRUE(consists_of(out.back().first, size, out.back().second));
            ASSERT_NE(chunk_free(pool, out.back().first), 0u);
            out.pop_back();
        }
        ASSERT_EQ(statistics_of(pool).in_use, out.size());
    }
    chunk_destroy(pool);
}

TEST_F(chunk, BehavesLikeTheModel)
{
    constexpr struct {
        uint32_t size, step;
        size_t most;
    } cases[] = {{80, 1000, 40'000}, {88, 1, 40'000}, {280, 100, 20'000}, {300, 10, 20'000},
                 {1, 1, 5000},       {4097, 3, 3000}, {700'000, 1, 20}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.size);
        compare_with_model(c.size, c.step, c.most, c.size);
    }
}

TEST_F(chunk, PoolsOfTwoThreadsAreIndependent)
{
    std::thread other(compare_with_model, 88, 1000, 30'000, 1);
    compare_with_model(280, 10, 10'000, 2);
    other.join();
}

TEST_F(chunk, HandsOutMemoryInOrder)
{
    chunk_pool_t *pool = make_pool(84, 1000);
    std::vector<char *> out(5000);
    std::generate(out.begin(), out.end(), [&] { return take(pool); });
    EXPECT_TRUE(std::is_sorted(out.begin(), out.end()));
    for (const size_t hole : {300u, 7u, 64u}) {
        chunk_free(pool, out[hole]);
    }
    for (const size_t hole : {7u, 64u, 300u}) {
        EXPECT_EQ(chunk_malloc(pool), out[hole]);
    }
    chunk_destroy(pool);
}

bool is_resident(const char *slab)
{
    constexpr size_t page_size = 4096;
    unsigned char flags = 0;
    return mincore(const_cast<char *>(slab + arena_slab_size - page_size), page_size, &flags) == 0 && (flags & 1) != 0;
}

TEST_F(chunk, SlabsOfHugePagesAreTouchedAhead)
{
    const std::string zeroes(arena_slab_size, '\0');
    const int owner = 0;
    std::set<char *> taken;
    bool was_touched = false;
    for (int attempt = 0; attempt < 500 && !was_touched; attempt++) {
        auto *slab = static_cast<char *>(host::arena_take(&owner, host::arena_pages::huge));
        ASSERT_NE(slab, nullptr);
        EXPECT_TRUE(taken.insert(slab).second);
        EXPECT_EQ(host::arena_owner(slab), &owner);
        was_touched = is_resident(slab);
        EXPECT_EQ(memcmp(slab, zeroes.data(), arena_slab_size), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(was_touched);
    for (char *slab : taken) {
        memset(slab, 1, arena_slab_size);
        host::arena_give(slab);
    }
}

TEST_F(chunk, RefusesToFreeWhatIsNotOut)
{
    chunk_pool_t *pool = make_pool(88, 1000);
    chunk_pool_t *other = make_pool(88, 1000, "other");
    char *live = take(pool);
    char *freed = take(pool);
    chunk_free(pool, freed);
    char *slab = host::arena_slab_of<char>(live);
    char *of_other = take(other);
    void *of_nobody = host::arena_take(&pool);
    char local[88];
    void *const cases[] = {nullptr,
                           local,
                           reinterpret_cast<void *>(1),
                           reinterpret_cast<void *>(UINTPTR_MAX),
                           live + 1,
                           live + 87,
                           live - 88,
                           slab,
                           slab - 1,
                           slab + arena_slab_size - 1,
                           slab + arena_slab_size,
                           freed,
                           freed + 88, // never handed out
                           of_other,
                           of_nobody,
                           pool};
    for (void *refused : cases) {
        EXPECT_EQ(chunk_free(pool, refused), 0u) << refused;
    }
    EXPECT_EQ(statistics_of(pool).refused_frees, std::size(cases));
    EXPECT_EQ(statistics_of(pool).in_use, 1u);
    EXPECT_EQ(statistics_of(other).in_use, 1u);
    EXPECT_NE(chunk_free(pool, live), 0u);
    EXPECT_EQ(chunk_free(pool, live), 0u);
    host::arena_give(of_nobody);
    chunk_destroy(pool);
    chunk_destroy(other);
}

TEST_F(chunk, RefusesDestroyedAndForeignPools)
{
    chunk_pool_t *destroyed = make_pool(88, 1000);
    void *element = chunk_malloc(destroyed);
    chunk_destroy(destroyed);
    chunk_pool_t *successor = make_pool(88, 1000); // in the place of the destroyed one
    host::chunk_statistics unchanged = {};
    for (chunk_pool_t *handle : {static_cast<chunk_pool_t *>(nullptr), destroyed, reinterpret_cast<chunk_pool_t *>(1),
                                 reinterpret_cast<chunk_pool_t *>(&destroyed)}) {
        EXPECT_EQ(chunk_malloc(handle), nullptr);
        EXPECT_EQ(chunk_free(handle, element), 0u);
        EXPECT_FALSE(host::chunk_read_statistics(handle, &unchanged));
        chunk_destroy(handle);
    }
    EXPECT_NE(chunk_malloc(successor), nullptr);
    chunk_destroy(successor);
}

TEST_F(chunk, ChecksArgumentsOfCreation)
{
    constexpr struct {
        const char *name;
        uint32_t size, count, flags, reserved1, reserved2;
        bool is_accepted;
    } cases[] = {
        {"", 1, 1, 0x101, 0, 0, true},
        {"x", arena_slab_size - 128, 1, 0x101, 0, 0, true},
        {"x", 88, UINT32_MAX, 0x101, 0, 0, true},
        {nullptr, 88, 1, 0x101, 0, 0, false},
        {"x", 0, 1, 0x101, 0, 0, false},
        {"x", arena_slab_size, 1, 0x101, 0, 0, false},
        {"x", 88, 0, 0x101, 0, 0, false},
        {"x", 88, 1, 0x100, 0, 0, false},
        {"x", 88, 1, 0x101, 1, 0, false},
        {"x", 88, 1, 0x101, 0, 1, false},
    };
    for (const auto &c : cases) {
        chunk_pool_t *pool = chunk_create(c.name, c.size, c.count, c.flags, c.reserved1, c.reserved2);
        EXPECT_EQ(chunk_malloc(pool) != nullptr, c.is_accepted) << "row " << &c - cases;
        chunk_destroy(pool);
    }
}

// Fills a slab to its end, where a map too short would run into the elements.
void fill_one_slab(uint32_t size)
{
    chunk_pool_t *pool = make_pool(size, 100);
    std::vector<char *> out;
    {
        const test::no_slabs refused;
        EXPECT_EQ(make_pool(size, 100, "second"), nullptr);
        while (char *element = take(pool)) {
            out.push_back(element);
        }
    }
    EXPECT_EQ(statistics_of(pool).slabs, 1u);
    EXPECT_EQ(out.size(), statistics_of(pool).in_use);
    EXPECT_GT(out.size() * size, arena_slab_size * 97 / 100);
    EXPECT_EQ(statistics_of(pool).failures, 1u);
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [=](char *element) { return consists_of(element, size, 0); }));
    EXPECT_NE(chunk_free(pool, out[5]), 0u);
    EXPECT_EQ(chunk_malloc(pool), out[5]);
    EXPECT_NE(chunk_malloc(pool), nullptr);
    chunk_destroy(pool);
}

TEST_F(chunk, GrowthFailsWithoutASlabAndRecovers)
{
    for (uint32_t size = 8; size < 512; size += 16) {
        SCOPED_TRACE(size);
        fill_one_slab(size);
    }
}

TEST_F(chunk, GrowthFailsWithoutMemoryInASlabAndRecovers)
{
    interpose::madvise.refuse(interpose::every);
    EXPECT_EQ(make_pool(88, 1), nullptr);
    EXPECT_EQ(slabs_taken(), 0u) << "the slab is given back";
    interpose::madvise.refuse(0);
    chunk_pool_t *pool = make_pool(88, 1);
    const uint64_t bytes = statistics_of(pool).bytes;
    interpose::madvise.refuse(interpose::every);
    while (take(pool) != nullptr) {}
    EXPECT_EQ(take(pool), nullptr);
    const auto refused = statistics_of(pool);
    EXPECT_EQ(refused.bytes, bytes);
    EXPECT_EQ(refused.failures, 2u);
    EXPECT_LE(refused.in_use * 88, bytes);
    interpose::madvise.refuse(0);
    char *element = take(pool);
    ASSERT_NE(element, nullptr);
    EXPECT_TRUE(consists_of(element, 88, 0));
    EXPECT_GT(statistics_of(pool).bytes, bytes);
    chunk_destroy(pool);
}

TEST_F(chunk, KeepsOneEmptySlabAndReturnsTheOthers)
{
    chunk_pool_t *pool = make_pool(1000, 10);
    std::vector<char *> out;
    while (statistics_of(pool).slabs < 4) {
        out.push_back(take(pool));
    }
    for (int i = 0; i < 3; i++) { // on the boundary of a slab
        chunk_free(pool, out.back());
        EXPECT_EQ(statistics_of(pool).slabs, 4u);
        EXPECT_EQ(chunk_malloc(pool), out.back());
    }
    for (char *element : out) {
        chunk_free(pool, element);
    }
    const auto statistics = statistics_of(pool);
    EXPECT_EQ(statistics.slabs, 1u);
    EXPECT_EQ(slabs_taken(), 1u);
    EXPECT_LE(statistics.bytes, arena_slab_size);
    EXPECT_EQ(statistics.peak, out.size());
    chunk_destroy(pool);
}

TEST_F(chunk, VisitsPoolsInOrderOfCreation)
{
    const std::string name(60, 'n');
    chunk_pool_t *small = make_pool(280, 10, name.c_str());
    chunk_pool_t *large = make_pool(88, 1000, "large");
    EXPECT_EQ(host::chunk_next(nullptr), small);
    EXPECT_EQ(host::chunk_next(small), large);
    EXPECT_EQ(host::chunk_next(large), nullptr);
    EXPECT_EQ(statistics_of(small).name, name.substr(0, 47));
    EXPECT_LE(statistics_of(small).bytes, 16u << 10) << "a small pool costs little";
    chunk_destroy(small);
    EXPECT_EQ(host::chunk_next(small), large);
    chunk_destroy(large);
}

#ifdef __SANITIZE_ADDRESS__
TEST_F(chunk, PoisonsWhatIsNotOut)
{
    chunk_pool_t *pool = make_pool(84, 10);
    char *element = take(pool);
    EXPECT_EQ(__asan_region_is_poisoned(element, 84), nullptr);
    EXPECT_TRUE(__asan_address_is_poisoned(element + 84));
    EXPECT_TRUE(__asan_address_is_poisoned(element + 88));
    chunk_free(pool, element);
    EXPECT_TRUE(__asan_address_is_poisoned(element));
    chunk_destroy(pool);
    char *slab = static_cast<char *>(host::arena_take(&pool));
    EXPECT_EQ(__asan_region_is_poisoned(slab, arena_slab_size), nullptr);
    host::arena_give(slab);
}
#endif

TEST_F(chunk, ArenaKnowsItsSlabsAndZeroesThemAgain)
{
    int owner;
    char *last = nullptr;
    EXPECT_EQ(host::arena_take(nullptr), nullptr);
    for (const auto pages : {host::arena_pages::huge, host::arena_pages::small}) {
        interpose::mprotect.refuse(interpose::every);
        EXPECT_EQ(host::arena_take(&owner), nullptr);
        interpose::mprotect.refuse(0);
        char *slab = static_cast<char *>(host::arena_take(&owner, pages));
        test::wait_for_keeper();
        EXPECT_EQ(reinterpret_cast<uintptr_t>(slab) % arena_slab_size, 0u);
        EXPECT_EQ(host::arena_owner(slab + arena_slab_size - 1), &owner);
        EXPECT_TRUE(host::arena_touch(slab, arena_slab_size));
        EXPECT_TRUE(consists_of(slab, arena_slab_size, 0));
        memset(slab, 1, arena_slab_size);
        host::arena_give(slab + 1);
        EXPECT_EQ(slabs_taken(), 1u);
        host::arena_give(slab);
        host::arena_give(slab);
        EXPECT_EQ(slabs_taken(), 0u);
        EXPECT_EQ(host::arena_owner(slab), nullptr);
        EXPECT_TRUE(last == nullptr || last == slab) << "address space is used again";
        last = slab;
    }
}

} // namespace
