// SPDX-License-Identifier: Apache-2.0

// The platform's small services: bounded copies, node ids, address texts, lock-wait records.

#include <cstring>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/utility_host.h"
#include "platform/bounded_copy.h"
#include "platform/utility.h"

namespace {

TEST(BoundedCopy, CopiesAWholeTextOrLeavesAnEmptyOne)
{
    char text[8];
    const struct {
        const char *source;
        size_t size;
        const char *result; // null: refused
    } cases[] = {{"", 1, ""},        {"abcdefg", 8, "abcdefg"}, {"abcdefgh", 8, nullptr},
                 {"ab", 2, nullptr}, {nullptr, 8, nullptr},     {text + 1, 8, nullptr}};
    for (const auto &c : cases) {
        strcpy(text, "1234567");
        EXPECT_EQ(strcpy_s(text, c.size, c.source) == 0, c.result != nullptr);
        EXPECT_STREQ(text, c.result != nullptr ? c.result : "");
    }
    text[0] = 'x';
    EXPECT_NE(strcpy_s(text, 0, ""), 0u);
    EXPECT_NE(strcpy_s(text, SIZE_MAX - 1, ""), 0u);
    EXPECT_EQ(text[0], 'x');
    EXPECT_NE(strcpy_s(nullptr, 8, "a"), 0u);
}

TEST(BoundedCopy, CopiesAllBytesOrLeavesZeros)
{
    char bytes[6];
    const char source[7] = "abcdef";
    const struct {
        const void *source;
        size_t count;
        const char *result;
    } cases[] = {{source, 6, "abcdef"},
                 {source, 0, "123456"},
                 {source, 7, "\0\0\0\0\0\0"},
                 {nullptr, 1, "\0\0\0\0\0\0"},
                 {bytes + 2, 3, "\0\0\0\0\0\0"}};
    for (const auto &c : cases) {
        memcpy(bytes, "123456", 6);
        EXPECT_EQ(memcpy_s(bytes, 6, c.source, c.count) == 0, c.result[0] != '\0');
        EXPECT_EQ(memcmp(bytes, c.result, 6), 0);
    }
    EXPECT_EQ(smemzero_s(bytes + 1, 4), 0u);
    EXPECT_EQ(memcmp(bytes, "\0\0\0\0\0\0", 6), 0);
    EXPECT_NE(smemzero_s(nullptr, 4), 0u);
    EXPECT_NE(smemzero_s(bytes, static_cast<size_t>(-4)), 0u);
}

TEST(NodeIds, AreOfOneNode)
{
    uint32_t own = 1;
    uint32_t node = 2;
    EXPECT_EQ(platform_get_my_nodeid(&own), 0u);
    EXPECT_EQ(platform_ifhandle_parse_ifhandle(5, &node), 0u);
    EXPECT_EQ(node, own);
    EXPECT_NE(platform_ifhandle_parse_ifhandle(0, &node), 0u);
    EXPECT_NE(platform_ifhandle_parse_ifhandle(5, nullptr), 0u);
    EXPECT_NE(platform_get_my_nodeid(nullptr), 0u);
}

TEST(Macstring, IsBounded)
{
    uint8_t address[64] = {0x00, 0x1b, 0xff, 0x04, 0xa0, 0x09};
    EXPECT_STREQ(macstring(address, 6), "00:1b:ff:04:a0:09");
    EXPECT_STREQ(macstring(address, 1), "00");
    EXPECT_STREQ(macstring(address, 0), "");
    EXPECT_STREQ(macstring(nullptr, 6), "");
    EXPECT_EQ(strlen(macstring(address, UINT32_MAX)), 32u * 3 - 1);
}

TEST(LockWaits, NameTheThreadUntilTheWaitEnds)
{
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(&lock), 0);
    std::thread waiter([&] {
        set_thread_name("waiter", pthread_self());
        ptd_set_mutex_block(&lock, "take", 42);
        pthread_mutex_lock(&lock);
        ptd_unset_mutex_block();
        EXPECT_THAT(host::lock_waits(), testing::IsEmpty());
        pthread_mutex_unlock(&lock);
        ptd_set_mutex_block(&lock, "left behind by a thread that ends", 1);
    });
    std::vector<host::lock_wait> waits;
    while ((waits = host::lock_waits()).empty()) {
        std::this_thread::yield();
    }
    pthread_mutex_unlock(&lock);
    waiter.join();
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_EQ(waits[0].thread_name, "waiter");
    EXPECT_EQ(waits[0].lock, &lock);
    EXPECT_STREQ(waits[0].function, "take");
    EXPECT_EQ(waits[0].line, 42u);
    EXPECT_THAT(host::lock_waits(), testing::IsEmpty());
}

} // namespace
