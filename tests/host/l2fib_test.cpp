// SPDX-License-Identifier: Apache-2.0

// The sibling library without its objects: address words, handler tables, debug messages, queries to the hardware.

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "host/objects/l2fib_host.h"
#include "host/trace/trace_reader.h"

namespace {

TEST(AddressWords, FollowTheByteOrderOfTheAddress)
{
    const uint8_t address[] = {0x00, 0x1b, 0xff, 0x04, 0xa0, 0x09};
    uint16_t words[3];
    l2fib_macaddr_to_swords(address, words);
    EXPECT_EQ(words[0], 0x001b);
    EXPECT_EQ(words[1], 0xff04);
    EXPECT_EQ(words[2], 0xa009);
    const uint32_t wide[] = {words[0] | 0x10000u, words[1] | 0xabcd0000u, words[2]};
    uint8_t back[6];
    macaddr_lwordston(wide, back);
    EXPECT_EQ(memcmp(back, address, sizeof(back)), 0) << "bits above the 16th are cut";
}

TEST(HandlerTable, IsTakenOnlyWithExactlyItsSlots)
{
    void *slots[14];
    l2fib_hw_edm_handler_table_t table;
    const auto is_taken = [&](size_t slot, void *value) {
        for (size_t i = 0; i < std::size(slots); i++) {
            slots[i] = i == 6 || i == 10 ? nullptr : reinterpret_cast<void *>(i + 1);
        }
        slots[slot] = value;
        memcpy(&table, slots, sizeof(table));
        return l2fib_show_mac_edm_fn_init(&table) == 0;
    };
    l2fib_action_table_t no_action = {};
    EXPECT_FALSE(is_taken(0, nullptr) || is_taken(13, nullptr) || is_taken(6, slots));
    EXPECT_NE(l2fib_show_mac_edm_fn_init(nullptr), 0u);
    EXPECT_NE(l2fib_action_mac_edm_fn_init(nullptr), 0u);
    EXPECT_NE(l2fib_action_mac_edm_fn_init(&no_action), 0u);
    EXPECT_EQ(host::edm_handlers().mac_get, nullptr) << "a refused table leaves nothing";
    EXPECT_TRUE(is_taken(10, nullptr));
    table = {};
    EXPECT_EQ(reinterpret_cast<uintptr_t>(host::edm_handlers().vtep_get), 14u) << "the library keeps a copy";
}

TEST(Debugging, SendsMessagesToTheSink)
{
    int some = 0;
    EXPECT_EQ(l2fib_debug_init(&some, &some, &some, &some), 0u);
    EXPECT_NE(l2fib_debug_init(&some, &some, nullptr, &some), 0u);
    EXPECT_EQ(l2fib_debug_get_enabled_bitset(), 0u);
    host::debug_bits_set(0x101);
    EXPECT_EQ(l2fib_debug_get_enabled_bitset(), 0x101u);

    std::string seen;
    host::debug_sink_set(
        [](void *cookie, uint32_t level, const char *function, const char *text) {
            *static_cast<std::string *>(cookie) += std::to_string(level) + function + ":" + text;
        },
        &seen);
    l2vpn_vdbgf(nullptr, 1, "dropped", "no context");
    l2vpn_vdbgf(l2fib_debug_get_ctx(), 257, "f", "failed %d of %s", 3, "g:bd");
    EXPECT_EQ(seen, "257f:failed 3 of g:bd");
    seen.clear();
    l2vpn_vdbgf(l2fib_debug_get_ctx(), 0, "", "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(seen.size(), 1023u + 2) << "cut";
    host::debug_sink_set(nullptr, nullptr);
    testing::internal::CaptureStderr();
    l2vpn_vdbgf(l2fib_debug_get_ctx(), 1, "f", "text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "f: text\n");
    host::debug_bits_set(0);
}

TEST(HardwareQuery, ReachesThePlatform)
{
    l2fib_mac_query_request_t request = {};
    l2fib_mac_query_t query = {};
    void *cell = &request;
    void *null_cell = nullptr;
    request.bridge_id = 7;
    query.mac_addr[5] = 9;
    query.state = 0xff;
    EXPECT_EQ(l2fib_platform_ctl_wrapper(11, 8, &cell, &query), 0u);
    EXPECT_EQ(query.state, 0u) << "without a platform, no state is known";
    host::mac_query_set(
        [](void *, uint32_t bridge_id, const uint8_t *mac_addr, uint8_t *state) {
            *state = L2FIB_MAC_QUERY_F2;
            return bridge_id * mac_addr[5];
        },
        nullptr);
    EXPECT_EQ(l2fib_platform_ctl_wrapper(11, 8, &cell, &query), 63u);
    EXPECT_EQ(query.state, L2FIB_MAC_QUERY_F2);
    host::mac_query_set(nullptr, nullptr);
    EXPECT_NE(l2fib_platform_ctl_wrapper(12, 8, &cell, &query), 0u);
    EXPECT_NE(l2fib_platform_ctl_wrapper(11, 4, &cell, &query), 0u);
    EXPECT_NE(l2fib_platform_ctl_wrapper(11, 8, nullptr, &query), 0u);
    EXPECT_NE(l2fib_platform_ctl_wrapper(11, 8, &null_cell, &query), 0u);
    EXPECT_NE(l2fib_platform_ctl_wrapper(11, 8, &cell, nullptr), 0u);
}

} // namespace
