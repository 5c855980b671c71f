// SPDX-License-Identifier: Apache-2.0

// The forwarding manager's objects: their names, and contexts that outlive them. Their fields are tested with the
// records that the module makes of them, in tests/module/feed_test.cpp.

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

TEST_F(objects, HaveUniqueNamesOf1To63Characters)
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

TEST_F(objects, HaveOnlyTheFieldsOfTheirSegment)
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
    EXPECT_NE(l2fib_access_field(L2FIB_SEGMENT_INTERFACE, &ctx, L2FIB_FIELD_PSEUDOWIRE_44, value), 0u);
    values.first.interface_sub_kind = 22;
    host::cross_connect_set(7, values);
    EXPECT_NE(l2fib_access_field(L2FIB_SEGMENT_INTERFACE, &ctx, L2FIB_FIELD_INTERFACE_SUB_VALUE, value), 0u);
    values.first.type = L2FIB_SEGMENT_VXLAN;
    host::cross_connect_set(7, values);
    EXPECT_NE(l2fib_access_field(L2FIB_SEGMENT_INTERFACE, &ctx, L2FIB_FIELD_INTERFACE_3, value), 0u);
}

TEST_F(objects, EndWithTheirContexts)
{
    const host::cross_connect values{.field_126 = 1, .first = {.type = L2FIB_SEGMENT_PSEUDOWIRE}};
    uint32_t value = untouched;
    l2fib_ctx_t ctx = nullptr;
    const auto reads_connect = [&value](l2fib_ctx_t from) {
        return l2fib_access_field(L2FIB_CLASS_CROSS_CONNECT, &from, L2FIB_FIELD_XC_126, &value) == 0;
    };
    const auto reads_segment = [&value](l2fib_ctx_t from) {
        return l2fib_access_field(L2FIB_SEGMENT_PSEUDOWIRE, &from, L2FIB_FIELD_PSEUDOWIRE_44, &value) == 0;
    };
    const auto leads_to_segment = [&](uint32_t object_class, l2fib_ctx_t from) {
        return l2fib_get_seg1_by_seg2(object_class, &from, &value, &ctx) == 0;
    };
    host::bridge_domain_set(7, "g:a");
    host::cross_connect_set(7, values);
    auto *const domain = by_id(L2FIB_CLASS_BRIDGE_DOMAIN, 7);
    auto *const owner = by_id(L2FIB_CLASS_CROSS_CONNECT, 7);
    auto *const segment = segment_of(owner, L2FIB_SEGMENT_PSEUDOWIRE);
    // Each kind of context where another one is due.
    EXPECT_FALSE(reads_connect(domain) || reads_connect(segment) || reads_segment(owner));
    EXPECT_FALSE(leads_to_segment(L2FIB_CLASS_CROSS_CONNECT, domain)
                 || leads_to_segment(L2FIB_CLASS_CROSS_CONNECT, segment)
                 || leads_to_segment(L2FIB_CLASS_BRIDGE_DOMAIN, owner));
    // An object that ended and came back has other contexts.
    for (const bool has_ended : {false, true}) {
        if (has_ended) {
            host::objects_clear();
        }
        host::bridge_domain_set(7, "g:renamed");
        host::cross_connect_set(7, values);
        EXPECT_EQ(name_of(domain), has_ended ? "" : "g:renamed");
        EXPECT_TRUE(reads_connect(owner) != has_ended && reads_segment(segment) != has_ended);
        EXPECT_NE(leads_to_segment(L2FIB_CLASS_CROSS_CONNECT, owner), has_ended);
    }
}

TEST_F(objects, RefuseGarbage)
{
    host::bridge_domain_set(7, "g:a");
    uint64_t garbage = 0, value[8];
    uint32_t type = 0;
    l2fib_ctx_t ctx = nullptr;
    for (int i = 0; i < 10000; i++, garbage = garbage * 6364136223846793005u + 1442695040888963407u) {
        auto *const wild = reinterpret_cast<l2fib_ctx_t>(garbage);
        ASSERT_NE(l2fib_access_field(static_cast<uint32_t>(garbage % 40), &wild, 94, value), 0u);
        ASSERT_NE(l2fib_get_seg1_by_seg2(L2FIB_CLASS_CROSS_CONNECT, &wild, &type, &ctx), 0u);
    }
    ctx = by_id(L2FIB_CLASS_BRIDGE_DOMAIN, 7);
    EXPECT_NE(l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, &ctx, 95, value), 0u);
    EXPECT_NE(l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, &ctx, L2FIB_FIELD_BD_ID, nullptr), 0u);
    EXPECT_NE(l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, nullptr, L2FIB_FIELD_BD_ID, value), 0u);
    EXPECT_NE(l2fib_get_plat_ctx_by_id(L2FIB_CLASS_BRIDGE_DOMAIN, 8, &ctx), 0u);
    EXPECT_NE(l2fib_get_plat_ctx_by_id(12, 7, &ctx), 0u);
    EXPECT_NE(l2fib_get_plat_ctx_by_name(L2FIB_CLASS_CROSS_CONNECT, "g:a", &ctx), 0u);
    EXPECT_NE(l2fib_get_plat_ctx_by_name(L2FIB_CLASS_BRIDGE_DOMAIN, nullptr, &ctx), 0u);
}

// Under the library's lock a reader sees one state. Without it each single answer is still whole.
TEST_F(objects, CanBeReadWhileTheyChange)
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
            uint32_t type = 0, value[L2FIB_VXLAN_54_WORDS];
            l2fib_ctx_t segment = nullptr;
            EXPECT_EQ(l2fib_get_seg1_by_seg2(L2FIB_CLASS_CROSS_CONNECT, &ctx, &type, &segment), 0u);
            EXPECT_EQ(l2fib_access_field(type, &segment, type == 2 ? 2u : 54u, value), 0u);
        }
        l2fib_unlock();
    }
    changer.join();
}

} // namespace
