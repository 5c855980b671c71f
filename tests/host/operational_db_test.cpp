// SPDX-License-Identifier: Apache-2.0

// Requests in, pages out: with scripted handlers in the place of the module's.

#include "host/database/operational_db_host.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/event/event_host.h"
#include "l2fib_mac_edm.h"
#include "platform/l2fib.h"
#include "tests/support/event_loop.h"
#include "tests/support/requests.h"
#include "tests/support/words.h"

namespace {

using host::operational_page;
using host::request_kind;
using test::query;
using test::words;

constexpr auto list = request_kind::list;
constexpr auto datalist = request_kind::datalist;
constexpr auto get = request_kind::get;
constexpr auto action = request_kind::action;

// ---- Scripted handlers ----

// What the handlers do; replaced only while no request is under way.
struct script {
    std::function<uint32_t(edm_list_req_t &, optree_list_t *)> on_list;
    std::function<uint32_t(edm_get_rsp_t &)> on_get;
    std::string call; // the handler called last, with its keys

    static script &current()
    {
        static script the_script;
        return the_script;
    }
};

std::string text_of(const char *name)
{
    return name == nullptr ? "-" : name;
}

std::string text_of(const uint8_t *mac_addr)
{
    return mac_addr == nullptr ? "-" : test::hex(mac_addr, 6);
}

// An IPv4 address that was handed over as its bytes lie in memory.
std::string address_text(uint32_t in_memory)
{
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &in_memory, text, sizeof(text));
}

uint32_t run_list(std::string call, edm_list_req_t *request, optree_list_t **reply)
{
    script::current().call = std::move(call);
    return script::current().on_list(*request, *reply);
}

uint32_t run_get(std::string call, edm_get_rsp_t *response)
{
    script::current().call = std::move(call);
    return script::current().on_get(*response);
}

template <char Kind>
uint32_t mac_list(uint32_t flags, const char *domain, const uint8_t *mac_addr, uint32_t filter, uint32_t value,
                  edm_list_req_t *request, optree_list_t **reply)
{
    const std::string filtered = filter == EDM_FILTER_VTEP ? address_text(value) : std::to_string(value);
    return run_list(words("mac", Kind, flags, text_of(domain), text_of(mac_addr), filter, filtered), request, reply);
}

template <char Kind>
uint32_t bp_list(uint32_t flags, const char *domain, uint32_t xcid, edm_list_req_t *request, optree_list_t **reply)
{
    return run_list(words("bp", Kind, flags, text_of(domain), xcid), request, reply);
}

template <char Kind>
uint32_t vtep_list(uint32_t seg_info2, uint32_t seg_info1, edm_list_req_t *request, optree_list_t **reply)
{
    return run_list(words("vtep", Kind, seg_info2, seg_info1), request, reply);
}

constexpr l2fib_hw_edm_handler_table_t handlers = {
    mac_list<'d'>,
    mac_list<'l'>,
    [](uint32_t flags, const char *domain, const uint8_t *mac_addr, edm_get_rsp_t *response) {
        return run_get(words("mac g", flags, text_of(domain), text_of(mac_addr)), response);
    },
    [](edm_list_req_t *request, optree_list_t **reply) { return run_list("aging d", request, reply); },
    bp_list<'l'>,
    bp_list<'d'>,
    nullptr,
    [](const char *domain, edm_get_rsp_t *response) { return run_get(words("count", domain), response); },
    [](uint32_t xcid, edm_get_rsp_t *response) { return run_get(words("count", xcid), response); },
    [](edm_get_rsp_t *response) { return run_get("count", response); },
    nullptr,
    vtep_list<'d'>,
    vtep_list<'l'>,
    [](uint64_t, uint32_t xcid, uint32_t seg_info2, uint32_t address, edm_get_rsp_t *response) {
        return run_get(words("vtep g", xcid, seg_info2, address_text(address)), response);
    },
};

uint32_t act(optree_request_t *)
{
    script::current().call = "action";
    return 0;
}

uint32_t hand_back(edm_list_req_t &request, optree_list_t *reply)
{
    request.reply_list = reply;
    return 0;
}

uint32_t answer_nothing(edm_list_req_t &request, optree_list_t *reply)
{
    request.count = 0;
    return hand_back(request, reply);
}

uint32_t answer_record(edm_get_rsp_t &response)
{
    response.data_type = EDM_DATA_TYPE_PARCEL;
    response.data = strdup("record");
    response.length = 6;
    return 0;
}

std::string item_name(uint32_t number)
{
    return "item " + std::to_string(number);
}

// A table of so many items, in pages of 200, as the module's handlers make them.
uint32_t answer_items(edm_list_req_t &request, optree_list_t *reply, uint32_t total)
{
    uint32_t at = 0;
    if ((request.flags & EDM_LIST_KEY_GIVEN) != 0) {
        at = static_cast<uint32_t>(strtoul(request.start_key + strlen("item "), nullptr, 10)) + 1;
    }
    uint32_t added = 0;
    for (; at < total; at++) {
        if (added == 200) {
            EXPECT_EQ(optree_edm_datalist_set_more_flag(reply), 0u);
            break;
        }
        const std::string name = item_name(at);
        EXPECT_EQ(optree_edm_datalist_add(reply, name.c_str(), EDM_DATA_TYPE_PARCEL, 0, &at, sizeof(at)), 0u);
        if (++added == request.count) {
            break;
        }
    }
    return hand_back(request, reply);
}

// ---- Fixture ----

class operational_db : public ::testing::Test {
protected:
    operational_db()
        : manager(new_path().c_str())
    {
        script::current() = {answer_nothing, answer_record, {}};
        l2fib_action_table_t actions{};
        actions.action[L2FIB_ACTION_SLOT_MAC_EDM] = act;
        EXPECT_EQ(l2fib_show_mac_edm_fn_init(&handlers), 0u);
        EXPECT_EQ(l2fib_action_mac_edm_fn_init(&actions), 0u);
        EXPECT_EQ(l2fib_show_mac_edm_optree_init(manager.evm, "mac-"), 0u);
        EXPECT_EQ(l2fib_action_mac_edm_init(manager.evm), 0u);
        before = host::operational_get_statistics();
    }

    // Nothing stays behind a test: every list has ended in one of its ways, every request is gone.
    ~operational_db() override
    {
        manager.stop();
        const host::operational_statistics after = host::operational_get_statistics();
        EXPECT_EQ(after.live_lists, 0u);
        EXPECT_EQ(after.live_requests, 0u);
        EXPECT_EQ(after.lists_created, after.lists_answered + after.lists_freed + after.lists_abandoned);
    }

    // A manager's path is known until it is forgotten, so that each test has its own.
    static std::string new_path()
    {
        static uint32_t number = 0;
        return "/test/operational_db/" + std::to_string(number++);
    }

    test::event_loop manager;
    host::operational_statistics before{};
};

// Holds a handler until it may end, and tells that it has begun.
struct gate {
    std::atomic<bool> begun = false;
    std::atomic<bool> open = false;

    void pass()
    {
        set(begun);
        open.wait(false);
    }
    static void set(std::atomic<bool> &flag)
    {
        flag = true;
        flag.notify_all();
    }
};

// ---- Paths ----

TEST_F(operational_db, every_request_reaches_its_handler_with_its_keys)
{
    const struct {
        request_kind kind;
        const char *path;
        const char *call;
    } cases[] = {
        {list, "mac-table", "mac l 0 - - 0 0"},
        {datalist, "mac-table", "mac d 0 - - 0 0"},
        {list, "mac-table/domain/g:b", "mac l 0 g:b - 0 0"},
        {datalist, "mac-table/flagged/mac/0a:0b:0c:0d:0e:ff", "mac d 32 - 0a0b0c0d0eff 0 0"},
        {list, "mac-table/mac/0a:0b:0c:0d:0e:ff/vtep/192.0.2.7/domain/g:b", "mac l 0 g:b 0a0b0c0d0eff 1 192.0.2.7"},
        {datalist, "mac-table/seg-info2/0xFFFFffff/flagged", "mac d 32 - - 2 4294967295"},
        {datalist, "mac-table/seg-info2/0", "mac d 0 - - 2 0"},
        {get, "mac-table/domain/g:b/mac/01:02:03:04:05:06", "mac g 0 g:b 010203040506"},
        {list, "mac-table/port/7/domain/g:b/resync-all", "bp l 64 g:b 7"},
        {datalist, "mac-table/flagged/resync-all/domain/g/port/0x10", "bp d 96 g 16"},
        {datalist, "mac-aging", "aging d"},
        {get, "mac-count", "count"},
        {get, "mac-count/domain/g:b", "count g:b"},
        {get, "mac-count/port/4294967295", "count 4294967295"},
        {list, "mac-vtep", "vtep l 0 0"},
        {datalist, "mac-vtep/seg-info1/5/seg-info2/6", "vtep d 6 5"},
        {get, "mac-vtep/port/9/seg-info2/6/vtep/10.0.0.1", "vtep g 9 6 10.0.0.1"},
        {action, "mac-action", "action"},
    };
    for (const auto &[kind, path, call] : cases) {
        const operational_page page = query({.path = path, .kind = kind});
        EXPECT_EQ(page.status, 0u) << path << ": " << page.text;
        EXPECT_EQ(script::current().call, call) << path;
    }
}

TEST_F(operational_db, a_wrong_request_names_the_key_and_what_was_expected)
{
    const std::string long_name(64, 'n');
    const std::string wrong_name = "domain: expected a bridge domain's full name of 1 to 63 characters";
    const struct {
        test::asked asked;
        std::string error;
    } cases[] = {
        {{"mac-aging", list}, "mac-aging: it cannot answer a request of the kind list"},
        {{"mac-tables", list}, "unknown: it cannot answer a request of the kind list"},
        {{"mac-table", static_cast<request_kind>(4)}, "mac-table: it cannot answer a request of the kind unknown"},
        {{"mac-table", get}, "mac-table: a key is missing, expected domain or mac"},
        {{"mac-table/port/7", list}, "mac-table port 7: a key is missing, expected domain"},
        {{"mac-table/domain/g:b/flagged", get},
         "mac-table domain g:b flagged: the key flagged does not belong here, expected mac"},
        {{"mac-table/vtep/1.2.3.4/seg-info2/5", list},
         "mac-table vtep 1.2.3.4 seg-info2 5: the key seg-info2 does not belong here, expected domain or mac or "
         "flagged"},
        {{"mac-table/port/7/mac/01:02:03:04:05:06", list},
         "mac-table port 7 mac 01:02:03:04:05:06: the key mac does not belong here, expected domain or flagged or "
         "resync-all"},
        {{"mac-count/port/1/domain/g", get},
         "mac-count domain g port 1: the key port does not belong here, expected nothing else"},
        {{"mac-table/domain/", list}, wrong_name},
        {{"mac-table/domain/" + long_name, list}, wrong_name},
        {{"mac-table/domain/" + std::string("g\0b", 3), list}, wrong_name},
        {{.path = "mac-count", .kind = get, .start_key = "x"}, "only a list or datalist has a start key"},
        {{.path = "mac-table", .start_key = std::string("x\0y", 3)}, "the start key holds a zero byte"},
    };
    for (const auto &[asked, error] : cases) {
        const operational_page page = query(asked);
        EXPECT_EQ(page.status, static_cast<uint32_t>(EINVAL)) << asked.path;
        EXPECT_NE(page.text.find(error), std::string::npos) << asked.path << " gave: " << page.text;
    }
    EXPECT_EQ(script::current().call, "");
}

// ---- Pages ----

TEST_F(operational_db, a_page_holds_what_was_asked_for_and_says_whether_there_is_more)
{
    script::current().on_list = [](edm_list_req_t &request, optree_list_t *reply) {
        return answer_items(request, reply, 450);
    };
    const struct {
        uint32_t count;
        uint32_t first;
        std::optional<std::string> start_key;
        std::vector<size_t> pages;
    } cases[] = {
        {host::all_items, 0, {}, {200, 200, 50}},
        {0, 0, {}, {200, 200, 50}},
        {250, 0, {}, {200, 50}},
        {7, 0, {}, {7}},
        {5, 450, "item 449", {0}},
    };
    for (const auto &[count, first, start_key, pages] : cases) {
        std::vector<size_t> sizes;
        uint32_t next = first;
        const auto visit = [&](const operational_page &page) {
            sizes.push_back(page.items.size());
            for (const host::operational_item &item : page.items) {
                uint32_t data = 0;
                memcpy(&data, item.data.data(), sizeof(data));
                EXPECT_EQ(item.name, item_name(next));
                EXPECT_EQ(data, next++);
                EXPECT_EQ(item.data.size(), sizeof(data));
            }
            return true;
        };
        EXPECT_EQ(test::read_pages({.path = "mac-aging", .count = count, .start_key = start_key}, visit), 0u);
        EXPECT_EQ(sizes, pages) << count;
    }
    script::current().on_list = [](edm_list_req_t &, optree_list_t *reply) -> uint32_t {
        optree_edm_datalist_free(reply);
        return EDM_ERR_NO_ITEM;
    };
    EXPECT_EQ(query({.path = "mac-table"}).text, "mac-table: there is no such item (0x40818600)");
}

// ---- What handlers do wrong ----

TEST_F(operational_db, lists_check_their_arguments_and_their_owner)
{
    optree_list_t *former = nullptr;
    const uint32_t parcel = EDM_DATA_TYPE_PARCEL;
    script::current().on_list = [&](edm_list_req_t &request, optree_list_t *reply) -> uint32_t {
        constexpr uint32_t wrong = EINVAL;
        const std::vector<uint32_t> refused = {
            optree_edm_datalist_add(reply, nullptr, parcel, 0, "d", 1),
            optree_edm_datalist_add(reply, "", parcel, 0, "d", 1),
            optree_edm_datalist_add(reply, "n", 6, 0, "d", 1),
            optree_edm_datalist_add(reply, "n", parcel, 1, "d", 1),
            optree_edm_datalist_add(reply, "n", parcel, 0, nullptr, 1),
            optree_edm_datalist_add(reply, "n", parcel, 0, "d", 0),
            optree_edm_datalist_add(nullptr, "n", parcel, 0, "d", 1),
            optree_edm_list_add(reply, "n", parcel, 0),
            optree_edm_list_set_more_flag(reply),
            optree_edm_list_free(reply),
            optree_edm_datalist_free(nullptr),
        };
        EXPECT_EQ(refused, std::vector<uint32_t>(refused.size(), wrong));
        if (former != nullptr) {
            EXPECT_EQ(optree_edm_datalist_add(former, "n", parcel, 0, "d", 1), wrong);
            EXPECT_EQ(optree_edm_datalist_free(former), wrong);
        }
        std::thread([reply] { EXPECT_EQ(optree_edm_datalist_free(reply), uint32_t{EINVAL}); }).join();
        return hand_back(request, reply);
    };
    const operational_page page = query({.path = "mac-aging"});
    EXPECT_EQ(page.status, 0u);
    EXPECT_TRUE(page.items.empty());
    // A page that is kept keeps its list, which nobody can change any more.
    former = static_cast<optree_list_t *>(const_cast<void *>(page.content.get()));
    EXPECT_EQ(query({.path = "mac-aging"}).status, 0u);
    EXPECT_EQ(optree_edm_datalist_free(former), uint32_t{EINVAL});
}

TEST_F(operational_db, a_list_ends_once_whatever_its_handler_does)
{
    struct ending {
        uint32_t status;
        uint64_t answered, freed, abandoned, refusals;
    };
    const struct {
        uint32_t (*handler)(edm_list_req_t &, optree_list_t *);
        ending expected;
    } cases[] = {
        {[](edm_list_req_t &request, optree_list_t *reply) { return hand_back(request, reply); }, {0, 1, 0, 0, 0}},
        {[](edm_list_req_t &, optree_list_t *reply) -> uint32_t {
             EXPECT_EQ(optree_edm_list_free(reply), 0u);
             EXPECT_EQ(optree_edm_list_free(reply), uint32_t{EINVAL});
             EXPECT_EQ(optree_edm_list_add(reply, "n", EDM_DATA_TYPE_PARCEL, 0), uint32_t{EINVAL});
             return EDM_ERR_RESYNC;
         },
         {EDM_ERR_RESYNC, 0, 1, 0, 2}},
        {[](edm_list_req_t &, optree_list_t *) -> uint32_t { return 12; }, {12, 0, 0, 1, 0}},
        {[](edm_list_req_t &, optree_list_t *) -> uint32_t { return 0; }, {EPROTO, 0, 0, 1, 0}},
        {[](edm_list_req_t &request, optree_list_t *reply) {
             optree_edm_list_free(reply);
             return hand_back(request, reply);
         },
         {EPROTO, 0, 1, 0, 0}},
        {[](edm_list_req_t &request, optree_list_t *reply) {
             optree_edm_list_set_more_flag(reply);
             return hand_back(request, reply);
         },
         {EPROTO, 0, 0, 1, 0}},
    };
    for (const auto &[handler, expected] : cases) {
        const auto start = host::operational_get_statistics();
        script::current().on_list = handler;
        EXPECT_EQ(query({.path = "mac-vtep", .kind = list}).status, expected.status);
        const auto end = host::operational_get_statistics();
        EXPECT_EQ(end.lists_answered - start.lists_answered, expected.answered);
        EXPECT_EQ(end.lists_freed - start.lists_freed, expected.freed);
        EXPECT_EQ(end.lists_abandoned - start.lists_abandoned, expected.abandoned);
        EXPECT_EQ(end.list_refusals - start.list_refusals, expected.refusals);
    }
}

TEST_F(operational_db, a_get_answers_with_one_record_or_an_error)
{
    const struct {
        uint32_t (*handler)(edm_get_rsp_t &);
        uint32_t expected;
    } cases[] = {
        {[](edm_get_rsp_t &) { return EDM_ERR_NO_ITEM; }, EDM_ERR_NO_ITEM},
        {[](edm_get_rsp_t &) { return 0u; }, EPROTO},
        {[](edm_get_rsp_t &response) {
             answer_record(response);
             response.data_type = 6;
             return 0u;
         },
         EPROTO},
        {answer_record, 0},
    };
    operational_page page;
    for (const auto &[handler, expected] : cases) {
        script::current().on_get = handler;
        page = query({.path = "mac-count", .kind = get});
        EXPECT_EQ(page.status, expected);
    }
    manager.stop();
    ASSERT_EQ(page.items.size(), 1u);
    EXPECT_EQ(page.items[0].name, "");
    EXPECT_EQ(std::string(page.items[0].data.begin(), page.items[0].data.end()), "record") << "it outlives the session";
}

TEST_F(operational_db, the_data_managers_thread_cannot_wait_for_itself)
{
    const auto ask = [](void *) { EXPECT_EQ(query({.path = "mac-count", .kind = get}).status, uint32_t{EDEADLK}); };
    script::current().on_get = [ask](edm_get_rsp_t &response) {
        ask(nullptr);
        return answer_record(response);
    };
    EXPECT_EQ(query({.path = "mac-count", .kind = get}).status, 0u);
    EXPECT_EQ(host::event_post(manager.evm, ask, nullptr, nullptr), 0u);
    test::serve_queued(manager.evm);
}

// ---- Time-outs, cancelling and ends ----

TEST_F(operational_db, a_request_that_is_not_answered_in_time_ends_and_its_answer_is_dropped)
{
    gate busy;
    script::current().on_list = [&busy](edm_list_req_t &request, optree_list_t *reply) {
        busy.pass();
        EXPECT_EQ(optree_restart_timeout_edm(request.request, 60), uint32_t{ESRCH});
        return answer_items(request, reply, 3);
    };
    auto session = host::operational_open(test::request_of({.path = "mac-table", .timeout_seconds = 0}));
    auto waiting = host::operational_open(test::request_of({.path = "mac-aging", .timeout_seconds = 600}));
    busy.begun.wait(false);
    // The second one waits in the manager's queue until it is closed there, and never reaches a handler.
    waiting.reset();
    operational_page page;
    page = host::operational_wait(*session);
    EXPECT_EQ(page.status, uint32_t{ETIMEDOUT});
    EXPECT_EQ(page.text, "mac-table: no answer in time");
    EXPECT_EQ(host::operational_wait(*session).status, uint32_t{ECANCELED}) << "the page is taken";
    gate::set(busy.open);
    script::current().call.clear();
    EXPECT_EQ(query({.path = "mac-action", .kind = action}).status, 0u);
    EXPECT_EQ(script::current().call, "action");
    EXPECT_EQ(host::operational_get_statistics().answers_dropped - before.answers_dropped, 1u);
}

TEST_F(operational_db, a_handler_moves_the_deadline_of_its_request)
{
    using std::chrono::seconds;
    const auto start = std::chrono::steady_clock::now();
    optree_request_t *finished = nullptr;
    script::current().on_get = [&](edm_get_rsp_t &response) {
        EXPECT_EQ(optree_restart_timeout_edm(nullptr, 60), uint32_t{EINVAL});
        EXPECT_EQ(optree_restart_timeout_edm(response.request, 60), 0u);
        std::this_thread::sleep_until(start + std::chrono::milliseconds(1100)); // past the ordinary time-out
        finished = response.request;
        return answer_record(response);
    };
    EXPECT_EQ(query({.path = "mac-count", .kind = get, .timeout_seconds = 1}).status, 0u);
    EXPECT_EQ(optree_restart_timeout_edm(finished, 60), uint32_t{ESRCH});

    gate busy;
    script::current().on_get = [&busy](edm_get_rsp_t &response) {
        EXPECT_EQ(optree_restart_timeout_edm(response.request, 600), 0u);
        EXPECT_EQ(optree_restart_timeout_edm(response.request, 0), 0u); // one second again
        busy.pass();
        return answer_record(response);
    };
    const operational_page page = query({.path = "mac-count", .kind = get, .timeout_seconds = 1});
    EXPECT_EQ(page.status, uint32_t{ETIMEDOUT});
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(300));
    gate::set(busy.open);
    manager.stop();
}

TEST_F(operational_db, a_session_is_cancelled_before_during_and_after_its_request)
{
    gate busy;
    script::current().on_list = [&busy](edm_list_req_t &request, optree_list_t *reply) {
        busy.pass();
        return answer_items(request, reply, 450);
    };
    auto session = host::operational_open(test::request_of({.path = "mac-table"}));
    auto answer = std::async(std::launch::async, [&session] { return host::operational_wait(*session).status; });
    busy.begun.wait(false);
    host::operational_cancel(*session);
    EXPECT_EQ(answer.get(), uint32_t{ECANCELED});
    gate::set(busy.open);

    session = host::operational_open(test::request_of({.path = "mac-table"}));
    const operational_page page = host::operational_wait(*session);
    host::operational_cancel(*session);
    EXPECT_EQ(page.items.size(), 200u) << "a cancellation that comes too late changes nothing";
}

TEST_F(operational_db, a_request_waits_for_a_data_manager_to_register)
{
    EXPECT_EQ(l2fib_show_mac_edm_optree_init(nullptr, "mac-"), uint32_t{EINVAL});
    EXPECT_EQ(l2fib_show_mac_edm_optree_init(manager.evm, nullptr), uint32_t{EINVAL});
    EXPECT_EQ(l2fib_show_mac_edm_optree_init(manager.evm, ""), uint32_t{EINVAL});
    EXPECT_EQ(l2fib_action_mac_edm_init(nullptr), uint32_t{EINVAL});
    EXPECT_EQ(l2fib_show_mac_edm_optree_init(manager.evm, "other-"), 0u);
    const operational_page refused = query({.path = "mac-table", .timeout_seconds = 0});
    EXPECT_EQ(refused.status, uint32_t{ETIMEDOUT});
    EXPECT_EQ(refused.text, "mac-table: no data manager registered in time");
    auto closed = host::operational_open(test::request_of({.path = "mac-table"}));
    auto waiting = host::operational_open(test::request_of({.path = "mac-aging"}));
    closed.reset();
    EXPECT_EQ(host::operational_get_statistics().live_requests, 1u);
    EXPECT_EQ(l2fib_show_mac_edm_optree_init(manager.evm, "mac-"), 0u);
    operational_page page;
    page = host::operational_wait(*waiting);
    EXPECT_EQ(page.status, 0u) << page.text;
    EXPECT_EQ(script::current().call, "aging d");
}

TEST_F(operational_db, the_end_of_the_managers_thread_ends_what_it_has_not_begun)
{
    gate busy;
    script::current().on_get = [&busy](edm_get_rsp_t &response) {
        busy.pass();
        return answer_record(response);
    };
    auto served = host::operational_open(test::request_of({.path = "mac-count", .kind = get}));
    auto queued = host::operational_open(test::request_of({.path = "mac-count", .kind = get}));
    busy.begun.wait(false);
    host::event_manager_stop(manager.evm);
    operational_page page;
    page = host::operational_wait(*queued);
    EXPECT_EQ(page.status, uint32_t{ESHUTDOWN});
    EXPECT_EQ(page.text, "mac-count: the data manager's thread has ended");
    gate::set(busy.open);
    page = host::operational_wait(*served);
    EXPECT_EQ(page.status, 0u);
    EXPECT_EQ(query({.path = "mac-action", .kind = action}).status, uint32_t{ESHUTDOWN});
}

TEST_F(operational_db, many_requesters_read_and_cancel_at_once)
{
    script::current().on_list = [](edm_list_req_t &request, optree_list_t *reply) {
        optree_restart_timeout_edm(request.request, 60); // whether the requester still waits or not
        return answer_items(request, reply, 450);
    };
    std::vector<std::thread> requesters;
    for (uint32_t number = 0; number < 8; number++) {
        requesters.emplace_back([number] {
            for (uint32_t round = 0; round < 20; round++) {
                const auto session = host::operational_open(test::request_of({.path = "mac-table"}));
                std::thread canceller;
                if ((number + round) % 3 == 0) {
                    canceller = std::thread([&session] { host::operational_cancel(*session); });
                }
                const size_t items = host::operational_wait(*session).items.size();
                if (canceller.joinable()) {
                    canceller.join();
                } else {
                    EXPECT_EQ(items, 200u);
                }
            }
        });
    }
    for (std::thread &requester : requesters) {
        requester.join();
    }
}

} // namespace
