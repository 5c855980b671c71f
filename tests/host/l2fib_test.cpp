// SPDX-License-Identifier: Apache-2.0

// The sibling library apart from its objects: address words, handler tables, debug messages, the hardware question.

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "host/objects/l2fib_host.h"
#include "host/trace/trace_reader.h"

namespace {

TEST(address_words, read_as_the_address_is_written)
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
    EXPECT_EQ(memcmp(back, address, sizeof(back)), 0) << "what is above 16 bits is cut";
}

TEST(handler_table, is_taken_when_exactly_its_slots_are_filled)
{
    void *slots[14];
    l2fib_hw_edm_handler_table_t table;
    const auto registered = [&](size_t slot, void *value) {
        for (size_t i = 0; i < 14; i++) {
            slots[i] = i == 6 || i == 10 ? nullptr : reinterpret_cast<void *>(i + 1);
        }
        slots[slot] = value;
        memcpy(&table, slots, sizeof(table));
        return l2fib_show_mac_edm_fn_init(&table) == 0;
    };
    EXPECT_EQ(host::edm_handlers().mac_get, nullptr);
    EXPECT_FALSE(registered(0, nullptr));
    EXPECT_FALSE(registered(13, nullptr));
    EXPECT_FALSE(registered(6, slots));
    EXPECT_NE(l2fib_show_mac_edm_fn_init(nullptr), 0u);
    EXPECT_EQ(host::edm_handlers().mac_get, nullptr) << "a refused table leaves nothing";
    EXPECT_TRUE(registered(10, nullptr));
    table = {};
    const auto kept = host::edm_handlers();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(kept.vtep_get), 14u) << "a copy is kept";
}

TEST(action_table, needs_the_module_s_action)
{
    l2fib_action_table_t table = {};
    EXPECT_NE(l2fib_action_mac_edm_fn_init(nullptr), 0u);
    EXPECT_NE(l2fib_action_mac_edm_fn_init(&table), 0u);
    table.action[L2FIB_ACTION_SLOT_MAC_EDM] = [](optree_request_t *) { return 5u; };
    EXPECT_EQ(l2fib_action_mac_edm_fn_init(&table), 0u);
    EXPECT_EQ(host::edm_actions().action[L2FIB_ACTION_SLOT_MAC_EDM](nullptr), 5u);
}

TEST(debugging, messages_go_where_they_are_sent)
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

TEST(hardware_question, reaches_who_answers)
{
    l2fib_mac_query_request_t request = {};
    l2fib_mac_query_t query = {};
    void *cell = &request;
    const auto ask = [&](uint32_t operation, uint32_t size, void *argument, void *answer) {
        return l2fib_platform_ctl_wrapper(operation, size, argument, answer);
    };
    request.bridge_id = 7;
    query.mac_addr[5] = 9;
    query.state = 0xff;
    EXPECT_EQ(ask(11, 8, &cell, &query), 0u);
    EXPECT_EQ(query.state, 0u);

    uint32_t status = 0;
    host::mac_query_set(
        [](void *cookie, uint32_t bridge_id, const uint8_t *mac_addr, uint8_t *state) {
            EXPECT_EQ(bridge_id, 7u);
            EXPECT_EQ(mac_addr[5], 9u);
            *state = L2FIB_MAC_QUERY_F2;
            return *static_cast<uint32_t *>(cookie);
        },
        &status);
    EXPECT_EQ(ask(11, 8, &cell, &query), 0u);
    EXPECT_EQ(query.state, L2FIB_MAC_QUERY_F2);
    status = 3;
    EXPECT_EQ(ask(11, 8, &cell, &query), 3u);
    host::mac_query_set(nullptr, nullptr);

    void *null_cell = nullptr;
    EXPECT_NE(ask(12, 8, &cell, &query), 0u);
    EXPECT_NE(ask(11, 4, &cell, &query), 0u);
    EXPECT_NE(ask(11, 8, nullptr, &query), 0u);
    EXPECT_NE(ask(11, 8, &null_cell, &query), 0u);
    EXPECT_NE(ask(11, 8, &cell, nullptr), 0u);
}

} // namespace
