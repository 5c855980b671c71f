// SPDX-License-Identifier: Apache-2.0

// The forwarding manager's objects: what is read of them, names, and contexts that outlive what they name.

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "host/objects/l2fib_objects.h"
#include "platform/l2fib.h"

namespace {

constexpr uint32_t untouched = 0xdeadbeef;

class objects : public testing::Test {
protected:
    void TearDown() override { host::objects_clear(); }
};

l2fib_ctx_t by_id(uint32_t object_class, uint32_t id)
{
    l2fib_ctx_t ctx = nullptr;
    EXPECT_EQ(l2fib_get_plat_ctx_by_id(object_class, id, &ctx), 0u);
    EXPECT_NE(ctx, nullptr);
    return ctx;
}

std::string name_of(l2fib_ctx_t ctx)
{
    char name[L2FIB_NAME_BUFFER_SIZE];
    memset(name, 'x', sizeof(name));
    return l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, &ctx, L2FIB_FIELD_BD_NAME, name) == 0 ? name : "";
}

// The bridge id behind a name, read as the module does; untouched when there is none.
uint32_t id_by_name(const char *name)
{
    l2fib_ctx_t ctx = nullptr;
    uint32_t id = untouched;
    if (l2fib_get_plat_ctx_by_name(L2FIB_CLASS_BRIDGE_DOMAIN, name, &ctx) == 0) {
        EXPECT_EQ(l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, &ctx, L2FIB_FIELD_BD_ID, &id), 0u);
    }
    return id;
}

l2fib_ctx_t segment_of(l2fib_ctx_t owner, uint32_t expected_type)
{
    l2fib_ctx_t ctx = nullptr;
    uint32_t type = 0;
    EXPECT_EQ(l2fib_get_seg1_by_seg2(L2FIB_CLASS_CROSS_CONNECT, &owner, &type, &ctx), 0u);
    EXPECT_EQ(type, expected_type);
    return ctx;
}

TEST_F(objects, bridge_domain_names_are_unique_and_bounded)
{
    const std::string longest(63, 'n');
    const struct {
        uint32_t id;
        bool taken;
        std::string name;
    } steps[] = {
        {1, true, "g1:bd1"},
        {1, true, "g1:bd1"},
        {2, false, "g1:bd1"},
        {2, false, ""},
        {2, false, std::string("a\0b", 3)},
        {2, false, std::string(64, 'n')},
        {2, true, longest},
        {1, false, longest},
        {1, true, "g1:new"},
        {3, true, "g1:bd1"}, // free again
    };
    for (const auto &step : steps) {
        EXPECT_EQ(host::bridge_domain_set(step.id, step.name) == 0, step.taken) << step.id << " " << step.name;
    }
    EXPECT_EQ(name_of(by_id(L2FIB_CLASS_BRIDGE_DOMAIN, 1)), "g1:new");
    EXPECT_EQ(name_of(by_id(L2FIB_CLASS_BRIDGE_DOMAIN, 2)), longest);
    EXPECT_EQ(id_by_name("g1:new"), 1u);
    EXPECT_EQ(id_by_name("g1:bd1"), 3u);
    EXPECT_EQ(id_by_name("g1:bd"), untouched);
    EXPECT_EQ(host::bridge_domain_remove(3), 0u);
    EXPECT_NE(host::bridge_domain_remove(3), 0u);
    EXPECT_EQ(id_by_name("g1:bd1"), untouched);
}

TEST_F(objects, a_segment_has_the_fields_of_its_class)
{
    host::cross_connect values{.field_126 = 126, .first = {}};
    values.first.interface_handle = 2;
    values.first.interface_3 = 3;
    values.first.interface_sub_kind = L2FIB_INTERFACE_SUB_KIND_23;
    values.first.interface_sub_value = 23;
    values.first.pseudowire_44 = 44;
    values.first.vxlan_54 = {541, 0, 0, 544};
    const struct {
        uint32_t type;
        uint32_t field;
        uint32_t value; // untouched: there is none
    } cases[] = {{2, 2, 2},           {2, 3, 3},          {2, 5, 23},          {2, 44, untouched},
                 {3, 44, 44},         {3, 2, untouched},  {5, 54, 541},        {5, 5, untouched},
                 {4, 2, untouched},   {33, 2, untouched}, {11, 94, untouched}, {13, 126, untouched},
                 {99, 99, untouched}, {0, 0, untouched}};
    for (const auto &c : cases) {
        values.first.type = c.type;
        ASSERT_EQ(host::cross_connect_set(7, values), 0u);
        auto *const ctx = segment_of(by_id(L2FIB_CLASS_CROSS_CONNECT, 7), c.type);
        uint32_t buffer[L2FIB_VXLAN_54_WORDS] = {untouched};
        EXPECT_EQ(l2fib_access_field(c.type, &ctx, c.field, buffer) == 0, c.value != untouched);
        EXPECT_EQ(buffer[0], c.value) << c.type << " " << c.field;
        EXPECT_EQ(buffer[3], c.field == 54 ? 544u : 0u);
    }
    auto *const owner = by_id(L2FIB_CLASS_CROSS_CONNECT, 7);
    uint32_t field_126 = 0;
    EXPECT_EQ(l2fib_access_field(L2FIB_CLASS_CROSS_CONNECT, &owner, L2FIB_FIELD_XC_126, &field_126), 0u);
    EXPECT_EQ(field_126, 126u);
}

TEST_F(objects, an_interface_has_a_sub_value_with_its_sub_kind_only)
{
    host::cross_connect values;
    values.first.type = L2FIB_SEGMENT_INTERFACE;
    values.first.interface_sub_kind = L2FIB_INTERFACE_SUB_KIND_23;
    values.first.interface_sub_value = 4094;
    host::cross_connect_set(7, values);
    auto *const ctx = segment_of(by_id(L2FIB_CLASS_CROSS_CONNECT, 7), L2FIB_SEGMENT_INTERFACE);
    uint16_t value[2] = {0, 77};
    EXPECT_EQ(l2fib_access_field(L2FIB_SEGMENT_INTERFACE, &ctx, L2FIB_FIELD_INTERFACE_SUB_VALUE, value), 0u);
    EXPECT_EQ(value[0], 4094u);
    EXPECT_EQ(value[1], 77u) << "two bytes only";
    values.first.interface_sub_kind = 22;
    host::cross_connect_set(7, values);
    EXPECT_NE(l2fib_access_field(L2FIB_SEGMENT_INTERFACE, &ctx, L2FIB_FIELD_INTERFACE_SUB_VALUE, value), 0u);
}

TEST_F(objects, contexts_do_not_outlive_their_object)
{
    const host::cross_connect values{.field_126 = 1, .first = {.type = L2FIB_SEGMENT_PSEUDOWIRE}};
    host::bridge_domain_set(7, "g:a");
    host::cross_connect_set(7, values);
    auto *const domain = by_id(L2FIB_CLASS_BRIDGE_DOMAIN, 7);
    auto *const owner = by_id(L2FIB_CLASS_CROSS_CONNECT, 7);
    auto *const segment = segment_of(owner, L2FIB_SEGMENT_PSEUDOWIRE);
    host::bridge_domain_set(7, "g:renamed");
    host::cross_connect_set(7, values);
    uint32_t value = 0;
    l2fib_ctx_t ctx = nullptr;
    EXPECT_EQ(name_of(domain), "g:renamed") << "a change leaves the context good";
    EXPECT_EQ(l2fib_access_field(L2FIB_SEGMENT_PSEUDOWIRE, &segment, L2FIB_FIELD_PSEUDOWIRE_44, &value), 0u);

    // Each kind of context where another is meant.
    value = untouched;
    EXPECT_NE(l2fib_access_field(L2FIB_CLASS_CROSS_CONNECT, &domain, L2FIB_FIELD_XC_126, &value), 0u);
    EXPECT_NE(l2fib_access_field(L2FIB_SEGMENT_PSEUDOWIRE, &owner, L2FIB_FIELD_PSEUDOWIRE_44, &value), 0u);
    EXPECT_NE(l2fib_access_field(L2FIB_CLASS_CROSS_CONNECT, &segment, L2FIB_FIELD_XC_126, &value), 0u);
    EXPECT_NE(l2fib_get_seg1_by_seg2(L2FIB_CLASS_CROSS_CONNECT, &domain, &value, &ctx), 0u);
    EXPECT_NE(l2fib_get_seg1_by_seg2(L2FIB_CLASS_CROSS_CONNECT, &segment, &value, &ctx), 0u);
    EXPECT_NE(l2fib_get_seg1_by_seg2(L2FIB_CLASS_BRIDGE_DOMAIN, &owner, &value, &ctx), 0u);

    // Gone and come back: the old contexts mean what is gone.
    host::objects_clear();
    host::bridge_domain_set(7, "g:a");
    host::cross_connect_set(7, values);
    EXPECT_EQ(name_of(domain), "");
    EXPECT_NE(l2fib_access_field(L2FIB_CLASS_CROSS_CONNECT, &owner, L2FIB_FIELD_XC_126, &value), 0u);
    EXPECT_NE(l2fib_access_field(L2FIB_SEGMENT_PSEUDOWIRE, &segment, L2FIB_FIELD_PSEUDOWIRE_44, &value), 0u);
    EXPECT_NE(l2fib_get_seg1_by_seg2(L2FIB_CLASS_CROSS_CONNECT, &owner, &value, &ctx), 0u);
    EXPECT_EQ(value, untouched);
    EXPECT_EQ(ctx, nullptr);
}

TEST_F(objects, garbage_is_a_status)
{
    host::bridge_domain_set(7, "g:a");
    uint64_t garbage = 1;
    for (int i = 0; i < 10000; i++) {
        garbage = garbage * 6364136223846793005u + 1442695040888963407u;
        auto *const ctx = reinterpret_cast<l2fib_ctx_t>(i == 0 ? 0 : garbage);
        uint64_t value[8];
        uint32_t type = 0;
        l2fib_ctx_t segment = nullptr;
        ASSERT_NE(l2fib_access_field(static_cast<uint32_t>(garbage % 40), &ctx, 94, value), 0u);
        ASSERT_NE(l2fib_get_seg1_by_seg2(L2FIB_CLASS_CROSS_CONNECT, &ctx, &type, &segment), 0u);
    }
    l2fib_ctx_t ctx = by_id(L2FIB_CLASS_BRIDGE_DOMAIN, 7);
    uint32_t value = 0;
    EXPECT_NE(l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, &ctx, 95, &value), 0u);
    EXPECT_NE(l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, &ctx, L2FIB_FIELD_BD_ID, nullptr), 0u);
    EXPECT_NE(l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, nullptr, L2FIB_FIELD_BD_ID, &value), 0u);
    EXPECT_NE(l2fib_get_plat_ctx_by_id(L2FIB_CLASS_BRIDGE_DOMAIN, 8, &ctx), 0u);
    EXPECT_NE(l2fib_get_plat_ctx_by_id(12, 7, &ctx), 0u);
    EXPECT_NE(l2fib_get_plat_ctx_by_id(L2FIB_CLASS_BRIDGE_DOMAIN, 7, nullptr), 0u);
    EXPECT_NE(l2fib_get_plat_ctx_by_name(L2FIB_CLASS_CROSS_CONNECT, "g:a", &ctx), 0u);
    EXPECT_NE(l2fib_get_plat_ctx_by_name(L2FIB_CLASS_BRIDGE_DOMAIN, nullptr, &ctx), 0u);
}

// Under the library's lock a reader sees one state; without it every answer is still a whole one.
TEST_F(objects, readers_and_changes_on_several_threads)
{
    std::atomic<bool> done{false};
    std::thread changer([&] {
        for (int i = 0; i < 5000; i++) {
            l2fib_lock();
            host::bridge_domain_remove(1);
            host::bridge_domain_set(1, i % 2 == 0 ? "g:even" : "g:odd");
            host::cross_connect_set(1, {.field_126 = 0, .first = {.type = i % 2 == 0 ? 2u : 5u}});
            l2fib_unlock();
        }
        done = true;
    });
    while (!done) {
        l2fib_ctx_t ctx = nullptr;
        l2fib_get_plat_ctx_by_name(L2FIB_CLASS_BRIDGE_DOMAIN, "g:even", &ctx);
        const std::string name = name_of(ctx);
        EXPECT_TRUE(name.empty() || name == "g:even" || name == "g:odd");
        l2fib_lock();
        if (l2fib_get_plat_ctx_by_id(L2FIB_CLASS_CROSS_CONNECT, 1, &ctx) == 0) {
            uint32_t type = 0;
            uint32_t words[L2FIB_VXLAN_54_WORDS];
            l2fib_ctx_t segment = nullptr;
            EXPECT_EQ(l2fib_get_seg1_by_seg2(L2FIB_CLASS_CROSS_CONNECT, &ctx, &type, &segment), 0u);
            EXPECT_EQ(l2fib_access_field(type, &segment, type == 2 ? 2u : 54u, words), 0u);
        }
        l2fib_unlock();
    }
    changer.join();
}

} // namespace
