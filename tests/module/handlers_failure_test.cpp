// SPDX-License-Identifier: Apache-2.0

// What the handlers do when a call of the platform fails, and what is left behind: nothing. Functions that are defined
// here win over those of the libraries, watch, and forward to them.
#include "tests/support/interpose.h"
#include "tests/support/served_module.h"

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <pthread.h>

// The sanitizers have a `free` of their own, and look for leaks themselves.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define WATCHES_MEMORY 0
#else
#define WATCHES_MEMORY 1
#endif

namespace {

using namespace served;
using testing::ElementsAre;

const auto *const environment = testing::AddGlobalTestEnvironment(new running_module);

constexpr uint32_t refused = 77;
constexpr time_t inconvertible = 4'000'000'000;

// Copies of texts that were not released yet, and the encoded buffer that was not: a handler has one at a time.
std::atomic<int> live_texts;
std::atomic<void *> live_buffer;

l2fib_hw_edm_handler_table_t handlers;
edm_list_req_t last_request; // of the aging handler, as it left it

bool is_request_thread()
{
    thread_local const bool known = [] {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        return std::string_view(name) == "Mac-Edm-Thread";
    }();
    return known;
}

} // namespace

INTERPOSE_OPERATION(calloc)
INTERPOSE_OPERATION(parcel_encode)
INTERPOSE(uint32_t, optree_edm_list_add, (optree_list_t * list, const char *name, uint32_t type, uint32_t zero),
          (list, name, type, zero), refused)
INTERPOSE(uint32_t, optree_edm_datalist_add,
          (optree_list_t * list, const char *name, uint32_t type, uint32_t zero, const void *bytes, uint32_t length),
          (list, name, type, zero, bytes, length), refused)
INTERPOSE(uint32_t, optree_edm_list_set_more_flag, (optree_list_t * list), (list), refused)
INTERPOSE(uint32_t, optree_edm_datalist_set_more_flag, (optree_list_t * list), (list), refused)

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name, bugprone-reserved-identifier)
extern "C" {

uint32_t parcel_encode(void **encoded, uint32_t *length, const void *record, const parcel_schema_t *schema)
{
    static const auto real = INTERPOSE_HIDDEN(parcel_encode);
    const uint32_t status = interpose::parcel_encode.meet() ? refused : real(encoded, length, record, schema);
    void *before = nullptr;
    EXPECT_TRUE(status != 0 || WATCHES_MEMORY == 0 || live_buffer.compare_exchange_strong(before, *encoded));
    return status;
}

uint32_t parcel_free_indirections(void *record, const parcel_schema_t *schema)
{
    if (is_request_thread() && schema == &l2fib_bridge_mac_info_parcel) {
        const auto *info = static_cast<const l2fib_mac_info_t *>(record);
        for (const char *text : {info->time_str, info->bd_name, info->prev_mac, info->next_mac}) {
            live_texts -= text != nullptr ? 1 : 0;
        }
    }
    return INTERPOSE_HIDDEN(parcel_free_indirections)(record, schema);
}

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

char *strdup(const char *text) noexcept
{
    live_texts += is_request_thread() ? 1 : 0;
    const size_t size = std::strlen(text) + 1;
    return static_cast<char *>(std::memcpy(std::malloc(size), text, size));
}

tm *localtime_r(const time_t *time, tm *result) noexcept
{
    return *time == inconvertible ? nullptr : INTERPOSE_HIDDEN(localtime_r)(time, result);
}

#if WATCHES_MEMORY
void __libc_free(void *memory);
void *__libc_calloc(size_t count, size_t bytes);

void *calloc(size_t count, size_t bytes)
{
    const bool fails = interpose::calloc.refused_call != 0 && is_request_thread() && interpose::calloc.meet();
    return fails ? nullptr : __libc_calloc(count, bytes);
}

void free(void *memory)
{
    void *expected = memory;
    if (memory != nullptr) {
        live_buffer.compare_exchange_strong(expected, nullptr);
    }
    __libc_free(memory);
}
#endif

} // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name, bugprone-reserved-identifier)

namespace {

constexpr auto names = request_kind::list;
constexpr auto data = request_kind::datalist;
constexpr auto get = request_kind::get;

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

// Makes a request while calls fail, and sees to it that nothing is left of it.
outcome request(const char *path, request_kind kind, interpose::operation &failing, uint64_t nth)
{
    failing.refuse(nth);
    test::skip_traces();
    const auto before = host::operational_get_statistics();
    outcome result = {};
    {
        const auto page = test::query({.path = path, .kind = kind});
        const uint32_t id = std::string_view(path).starts_with("mac-vtep") ? 1972 : 1918;
        result = {page.status, page.items.size(), page.more, traced(id)};
    }
    if (std::string_view(path) == "mac-aging") {
        EXPECT_EQ(last_request.count, result.items);
    }
    const auto after = host::operational_get_statistics();
    EXPECT_EQ(after.lists_freed - before.lists_freed, kind != get && result.status != 0 ? 1 : 0);
    EXPECT_EQ(after.list_refusals + after.lists_abandoned, before.list_refusals + before.lists_abandoned);
    EXPECT_EQ(live_texts, 0);
    EXPECT_EQ(live_buffer, nullptr);
    failing.refuse(0);
    return result;
}

TEST_F(served_module, a_failing_call_costs_an_item_or_the_request)
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
            // Where each item fails, that nothing is left is one more failure, but not by port.
            EXPECT_EQ(got.points.size(), c.traced == 0 ? 0u : nth != every ? 1u : c.kind == data ? 4u : 3u);
            if (!got.points.empty()) {
                EXPECT_THAT(got.points[0].values, ElementsAre(c.traced, refused));
            }
        }
    }
}

#if WATCHES_MEMORY
TEST_F(served_module, the_hardware_is_not_asked_without_memory)
{
    hold(1);
    for (const uint32_t nth : {1u, 2u}) {
        const outcome got = request("mac-table/domain/g:a/mac/02:00:00:00:00:00", get, interpose::calloc, nth);
        EXPECT_EQ(got.status, 12u);
        EXPECT_EQ(got.points, (std::vector<trace>{{"l2fib_hw_mac_addr_edm_get", {88, 12}}}));
    }
}
#endif

TEST_F(served_module, a_page_that_cannot_be_marked_as_partial_fails_or_ends_the_list)
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

TEST_F(served_module, a_time_that_cannot_be_told_is_unknown)
{
    hold(1);
    the.entries[0].flags = EDM_MAC_VNI | EDM_MAC_TIMESTAMP_VALID;
    the.entries[0].hw_timestamp = inconvertible;
    const auto page = test::query({.path = "mac-aging"});
    ASSERT_EQ(page.items.size(), 1u);
    decoded<l2fib_mac_info_t> got(page.items[0].data, &l2fib_bridge_mac_info_parcel);
    EXPECT_STREQ(got.time_str, "unknown_time");
}

TEST_F(served_module, aging_says_what_it_does_when_asked_to)
{
    static std::vector<std::string> messages;
    domain(1, "g:b:c");
    interface_port(10);
    holds(1, 10, 0x1f);
    host::debug_bits_set(0x100);
    host::debug_sink_set(
        [](void *, uint32_t level, const char *function, const char *text) {
            messages.push_back(std::to_string(level) + " " + function + " " + text);
        },
        nullptr);
    request("mac-aging", data, interpose::optree_edm_datalist_add, 1);
    host::debug_bits_set(0xfe);
    request("mac-aging", data, interpose::optree_edm_datalist_add, 0);
    host::debug_sink_set(nullptr, nullptr);
    host::debug_bits_set(0);
    EXPECT_THAT(
        messages,
        ElementsAre("257 l2fib_hw_mac_aging_edm_datalist Setting item_name 200,0,1f,g,b:c with mac 200,0,1f bg_name "
                    "g bd_name b:c for bridge bridge_name g:b:c",
                    "257 l2fib_hw_mac_aging_edm_datalist optree_edm_datalist_add failed 77"));
}

} // namespace
