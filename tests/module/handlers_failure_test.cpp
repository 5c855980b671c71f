// SPDX-License-Identifier: Apache-2.0

// What the handlers answer when a call of the platform fails. Functions that are defined here win over those of the
// libraries and forward to them. The address sanitizer checks that nothing leaks.
#include "tests/support/faults/interpose.h"
#include "tests/support/module/served_module.h"

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <pthread.h>

// The sanitizers have a calloc of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define REFUSES_MEMORY
#endif

namespace {

using namespace served;
using testing::ElementsAre;

const auto *const environment = testing::AddGlobalTestEnvironment(new running_module);

constexpr uint32_t refused = 77;
constexpr time_t inconvertible = 4'000'000'000;

l2fib_hw_edm_handler_table_t handlers;
edm_list_req_t last_request; // of the aging handler, as it left it

} // namespace

INTERPOSE_OPERATION(calloc)
INTERPOSE(uint32_t, parcel_encode,
          (void **encoded, uint32_t *length, const void *record, const parcel_schema_t *schema),
          (encoded, length, record, schema), refused)
INTERPOSE(uint32_t, optree_edm_list_add, (optree_list_t * list, const char *name, uint32_t type, uint32_t zero),
          (list, name, type, zero), refused)
INTERPOSE(uint32_t, optree_edm_datalist_add,
          (optree_list_t * list, const char *name, uint32_t type, uint32_t zero, const void *bytes, uint32_t length),
          (list, name, type, zero, bytes, length), refused)
INTERPOSE(uint32_t, optree_edm_list_set_more_flag, (optree_list_t * list), (list), refused)
INTERPOSE(uint32_t, optree_edm_datalist_set_more_flag, (optree_list_t * list), (list), refused)

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name, bugprone-reserved-identifier)
extern "C" {

uint32_t l2fib_show_mac_edm_fn_init(const l2fib_hw_edm_handler_table_t *table)
{
    handlers = *table;
    l2fib_hw_edm_handler_table_t watched = handlers;
    watched.mac_aging_datalist = [](edm_list_req_t *request, optree_list_t **list) {
        const uint32_t status = handlers.mac_aging_datalist(request, list);
        last_request = *request;
        EXPECT_EQ(request->reply_list, status == 0 ? *list : nullptr);
        return status;
    };
    return INTERPOSE_HIDDEN(l2fib_show_mac_edm_fn_init)(&watched);
}

tm *localtime_r(const time_t *time, tm *result) noexcept
{
    return *time == inconvertible ? nullptr : INTERPOSE_HIDDEN(localtime_r)(time, result);
}

#ifdef REFUSES_MEMORY
static bool is_request_thread()
{
    thread_local const bool known = [] {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        return std::string_view(name) == "Mac-Edm-Thread";
    }();
    return known;
}

void *__libc_calloc(size_t count, size_t bytes);

void *calloc(size_t count, size_t bytes)
{
    const bool fails = interpose::calloc.refused_call != 0 && is_request_thread() && interpose::calloc.meet();
    return fails ? nullptr : __libc_calloc(count, bytes);
}
#endif

} // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name, bugprone-reserved-identifier)

namespace {

// Items behind three VTEPs of one port, `count` of them.
void hold(uint32_t count)
{
    domain(1, "g:a");
    vxlan_port(11, 7);
    for (uint32_t i = 0; i < count; i++) {
        holds(1, 11, i, EDM_MAC_VNI, static_cast<uint16_t>(i % 3));
    }
}

struct outcome {
    uint32_t status;
    size_t items;
    bool more;
    std::vector<trace> points;
};

// Makes a request while calls fail. Expects that its list ended once.
outcome request(const char *path, request_kind kind, interpose::operation &failing, uint64_t nth)
{
    failing.refuse(nth);
    test::skip_traces();
    const auto before = host::operational_get_statistics();
    const auto page = test::query({.path = path, .kind = kind});
    const uint32_t id = std::string_view(path).starts_with("mac-vtep") ? 1972 : 1918;
    const outcome result = {page.status, page.items.size(), page.more, traced(id)};
    if (std::string_view(path) == "mac-aging") {
        EXPECT_EQ(last_request.count, result.items);
    }
    const auto after = host::operational_get_statistics();
    EXPECT_EQ(after.lists_freed - before.lists_freed, kind != get && result.status != 0 ? 1 : 0);
    EXPECT_EQ(after.list_refusals + after.lists_abandoned, before.list_refusals + before.lists_abandoned);
    failing.refuse(0);
    return result;
}

TEST_F(served_module, LosesAnItemOrTheRequestToAFailingCall)
{
    using interpose::every;
    interpose::operation &encode = interpose::parcel_encode;
    interpose::operation &add = interpose::optree_edm_datalist_add;
    interpose::operation &add_name = interpose::optree_edm_list_add;
    const struct {
        const char *path;
        interpose::operation &failing;
        std::vector<uint64_t> nth;
        size_t items;
        uint32_t status;
        uint32_t traced; // 0: not at all
        request_kind kind;
    } cases[] = {
        {"mac-table", add_name, {1, 2, 3}, 2, 0, 86, names},
        {"mac-table", add, {1, 2, 3}, 2, 0, 86, data},
        {"mac-table", encode, {1, 2, 3}, 2, 0, 86, data},
        {"mac-table", encode, {every}, 0, EDM_ERR_NO_ITEM, 86, data},
        {"mac-table/port/11/domain/g:a", add_name, {1, 2, 3}, 2, 0, 86, names},
        {"mac-table/port/11/domain/g:a", add, {1, 2, 3}, 2, 0, 86, data},
        {"mac-table/port/11/domain/g:a", encode, {1, 2, 3}, 2, 0, 86, data},
        {"mac-table/port/11/domain/g:a", add_name, {every}, 0, EDM_ERR_NO_ITEM, 86, names},
        {"mac-aging", add, {1, 2, 3}, 0, refused, 86, data},
        {"mac-aging", encode, {1, 2, 3}, 0, refused, 86, data},
        {"mac-vtep", add_name, {1, 2, 3}, 0, refused, 87, names},
        {"mac-vtep", add, {1, 2, 3}, 0, refused, 86, data},
        {"mac-vtep", encode, {1, 2, 3}, 0, refused, 86, data},
        {"mac-table/domain/g:a/mac/02:00:00:00:00:01", encode, {1}, 0, refused, 88, get},
        {"mac-count", encode, {1}, 0, refused, 88, get},
        {"mac-count/port/11", encode, {1}, 0, refused, 88, get},
        {"mac-count/domain/g:a", encode, {1}, 0, refused, 88, get},
        {"mac-vtep/port/11/seg-info2/7/vtep/10.0.0.1", encode, {1}, 0, refused, 0, get},
    };
    hold(3);
    for (const auto &c : cases) {
        for (const uint64_t nth : c.nth) {
            SCOPED_TRACE(testing::Message() << "row " << &c - cases << " " << c.path << " " << nth);
            const outcome got = request(c.path, c.kind, c.failing, nth);
            EXPECT_EQ(got.status, c.status);
            EXPECT_EQ(got.items, c.items);
            // If each item fails, the empty answer is one more failure, except by port.
            EXPECT_EQ(got.points.size(), c.traced == 0 ? 0u : nth != every ? 1u : c.kind == data ? 4u : 3u);
            if (!got.points.empty()) {
                EXPECT_THAT(got.points[0].values, ElementsAre(c.traced, refused));
            }
        }
    }
}

#ifdef REFUSES_MEMORY
TEST_F(served_module, DoesNotAskTheHardwareWithoutMemory)
{
    hold(1);
    for (const uint32_t nth : {1u, 2u}) {
        const outcome got = request("mac-table/domain/g:a/mac/02:00:00:00:00:00", get, interpose::calloc, nth);
        EXPECT_EQ(got.status, 12u);
        EXPECT_EQ(got.points, (std::vector<trace>{{"l2fib_hw_mac_addr_edm_get", {88, 12}}}));
    }
}
#endif

TEST_F(served_module, FailsOrEndsAPageThatCannotBeMarkedPartial)
{
    hold(201);
    interpose::operation &of_names = interpose::optree_edm_list_set_more_flag;
    interpose::operation &of_data = interpose::optree_edm_datalist_set_more_flag;
    const struct {
        const char *path;
        request_kind kind;
        uint32_t status;
        size_t items;
        std::vector<trace> points;
    } cases[] = {
        {"mac-table", names, refused, 0, {{"l2fib_hw_mac_addr_edm_list", {87, refused}}}},
        {"mac-table", data, refused, 0, {{"l2fib_hw_mac_addr_edm_datalist", {86, refused}}}},
        {"mac-table/port/11/domain/g:a", names, refused, 0, {}},
        {"mac-table/port/11/domain/g:a", data, refused, 0, {}},
        {"mac-aging", data, 0, 200, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        const outcome got = request(c.path, c.kind, c.kind == names ? of_names : of_data, 1);
        EXPECT_EQ(got.status, c.status);
        EXPECT_EQ(got.items, c.items);
        EXPECT_FALSE(got.more);
        EXPECT_EQ(got.points, c.points);
    }
}

TEST_F(served_module, ShowsAnInconvertibleTimeAsUnknown)
{
    hold(1);
    the.entries[0].flags = EDM_MAC_VNI | EDM_MAC_TIMESTAMP_VALID;
    the.entries[0].hw_timestamp = inconvertible;
    const auto page = test::query({.path = "mac-aging"});
    ASSERT_EQ(page.items.size(), 1u);
    EXPECT_EQ(test::value_of(test::record_text(page.items[0].data), "time_str"), "'unknown_time'");
}

TEST_F(served_module, WritesDebugMessagesOfAging)
{
    static std::string messages;
    domain(1, "g:b:c");
    interface_port(10);
    holds(1, 10, 0x1f);
    host::debug_sink_set(
        [](void *, uint32_t level, const char *, const char *text) { messages += std::to_string(level) + text + "\n"; },
        nullptr);
    for (const uint32_t bits : {0x100u, 0xfeu}) {
        host::debug_bits_set(bits);
        request("mac-aging", data, interpose::optree_edm_datalist_add, 1);
    }
    host::debug_sink_set(nullptr, nullptr);
    host::debug_bits_set(0);
    EXPECT_EQ(messages, "257Setting item_name 200,0,1f,g,b:c with mac 200,0,1f bg_name g bd_name b:c for bridge "
                        "bridge_name g:b:c\n257optree_edm_datalist_add failed 77\n");
}

} // namespace
