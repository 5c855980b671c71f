// SPDX-License-Identifier: Apache-2.0

// The operational database with scripted handlers in place of the module's: wrong keys, the life of lists and requests,
// deadlines and ends. Right keys and pages are tested with the module's handlers in tests/module/.

#include "host/database/operational_db_host.h"

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
#include "tests/support/host/event_loop.h"
#include "tests/support/host/requests.h"

namespace {

using host::operational_page;
using host::request_kind;
using test::query;

constexpr auto list = request_kind::list;
constexpr auto get = request_kind::get;
constexpr auto action = request_kind::action;

// ---- Scripted handlers ----

// What the handlers do. A test replaces it only while no request is running.
struct script {
    std::function<uint32_t(edm_list_req_t &, optree_list_t *)> on_list;
    std::function<uint32_t(edm_get_rsp_t &)> on_get;
    std::string call; // the handler called last
};

script the;

// The handlers with keys are tested with the module's, in tests/module/handlers_model_test.cpp.
template <typename... Arguments>
uint32_t on_list(Arguments... arguments)
{
    const auto all = std::make_tuple(arguments...);
    constexpr size_t count = sizeof...(arguments);
    the.call = std::to_string(count - 2) + " keys";
    return the.on_list(*std::get<count - 2>(all), *std::get<count - 1>(all));
}

template <typename... Arguments>
uint32_t on_get(Arguments... arguments)
{
    the.call = std::to_string(sizeof...(arguments) - 1) + " keys";
    return the.on_get(*std::get<sizeof...(arguments) - 1>(std::make_tuple(arguments...)));
}

constexpr l2fib_hw_edm_handler_table_t handlers = {on_list, on_list, on_get, on_list, on_list, on_list, nullptr,
                                                   on_get,  on_get,  on_get, nullptr, on_list, on_list, on_get};

uint32_t act(optree_request_t *)
{
    the.call = "action";
    return 0;
}

uint32_t hand_back(edm_list_req_t &request, optree_list_t *reply)
{
    request.reply_list = reply;
    return 0;
}

uint32_t answer_record(edm_get_rsp_t &response)
{
    response.data_type = EDM_DATA_TYPE_PARCEL;
    response.data = strdup("record");
    response.length = 6;
    return 0;
}

// ---- Fixture ----

struct operational_db : ::testing::Test {
    operational_db()
        : manager(new_path().c_str())
    {
        the = {hand_back, answer_record, {}};
        l2fib_action_table_t actions{};
        actions.action[L2FIB_ACTION_SLOT_MAC_EDM] = act;
        EXPECT_EQ(l2fib_show_mac_edm_fn_init(&handlers), 0u);
        EXPECT_EQ(l2fib_action_mac_edm_fn_init(&actions), 0u);
        EXPECT_EQ(l2fib_show_mac_edm_optree_init(manager.evm, "mac-"), 0u);
        EXPECT_EQ(l2fib_action_mac_edm_init(manager.evm), 0u);
    }

    // Each test leaves nothing: every list has ended in one of its ways, every request is gone.
    ~operational_db() override
    {
        manager.stop();
        const host::operational_statistics after = host::operational_get_statistics();
        EXPECT_EQ(after.live_lists, 0u);
        EXPECT_EQ(after.live_requests, 0u);
        EXPECT_EQ(after.lists_created, after.lists_answered + after.lists_freed + after.lists_abandoned);
    }

    // A manager keeps its path until it is forgotten, so each test has its own.
    static std::string new_path()
    {
        static uint32_t number = 0;
        return "/test/operational_db/" + std::to_string(number++);
    }

    test::event_loop manager;
};

// Makes a handler wait until the test opens the gate, and lets the test wait until the handler has begun.
struct gate {
    std::atomic<bool> begun = false;
    std::atomic<bool> is_open = false;

    void pass()
    {
        begun = true;
        begun.notify_all();
        is_open.wait(false);
    }
    void open()
    {
        is_open = true;
        is_open.notify_all();
    }
};

// ---- Keys ----

TEST_F(operational_db, NamesTheWrongKeyAndWhatIsExpected)
{
    const std::string wrong_name = "domain: expected a bridge domain's full name of 1 to 63 characters";
    const struct {
        test::asked asked;
        std::string error;
    } cases[] = {
        {{"mac-aging", list}, "mac-aging: it cannot answer a request of the kind list"},
        {{"mac-tables", list}, "unknown: it cannot answer a request of the kind list"},
        {{"mac-table", static_cast<request_kind>(4)}, "mac-table: it cannot answer a request of the kind unknown"},
        {{"mac-table", get}, "mac-table: a key is missing, expected domain or mac"},
        {{"mac-table/vtep/1.2.3.4/seg-info2/5", list},
         "the key seg-info2 does not belong here, expected domain or mac"},
        {{"mac-count/port/1/domain/g", get},
         "mac-count domain g port 1: the key port does not belong here, expected nothing else"},
        {{"mac-table/domain/", list}, wrong_name},
        {{"mac-table/domain/" + std::string(64, 'n'), list}, wrong_name},
        {{"mac-table/domain/" + std::string("g\0b", 3), list}, wrong_name},
        {{.path = "mac-count", .kind = get, .start_key = "x"}, "only a list or datalist has a start key"},
        {{.path = "mac-table", .start_key = std::string("x\0y", 3)}, "the start key holds a zero byte"},
    };
    for (const auto &[asked, error] : cases) {
        const operational_page page = query(asked);
        EXPECT_EQ(page.status, static_cast<uint32_t>(EINVAL)) << asked.path;
        EXPECT_NE(page.text.find(error), std::string::npos) << asked.path << " gave: " << page.text;
    }
    EXPECT_EQ(the.call, "");
}

// ---- Mistakes of handlers ----

TEST_F(operational_db, ChecksArgumentsAndOwnersOfLists)
{
    const uint32_t parcel = EDM_DATA_TYPE_PARCEL;
    the.on_list = [&](edm_list_req_t &request, optree_list_t *reply) -> uint32_t {
        const uint32_t refused[] = {
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
        EXPECT_EQ(std::count(std::begin(refused), std::end(refused), EINVAL), std::ssize(refused));
        std::thread([reply] { EXPECT_EQ(optree_edm_datalist_free(reply), uint32_t{EINVAL}); }).join();
        return hand_back(request, reply);
    };
    const operational_page page = query({.path = "mac-aging"});
    EXPECT_EQ(page.status, 0u);
    EXPECT_TRUE(page.items.empty());
    // The page keeps its list, which nobody can change any more.
    auto *const answered = static_cast<optree_list_t *>(const_cast<void *>(page.content.get()));
    EXPECT_EQ(optree_edm_datalist_add(answered, "n", parcel, 0, "d", 1), uint32_t{EINVAL});
    EXPECT_EQ(optree_edm_datalist_free(answered), uint32_t{EINVAL});
}

TEST_F(operational_db, EndsEachListOnce)
{
    const struct {
        uint32_t (*handler)(edm_list_req_t &, optree_list_t *);
        uint32_t status;
        std::vector<uint64_t> ends; // lists answered, freed and abandoned, and refused operations
    } cases[] = {
        {hand_back, 0, {1, 0, 0, 0}},
        {[](edm_list_req_t &, optree_list_t *reply) -> uint32_t {
             EXPECT_EQ(optree_edm_list_free(reply), 0u);
             EXPECT_EQ(optree_edm_list_free(reply), uint32_t{EINVAL});
             EXPECT_EQ(optree_edm_list_add(reply, "n", EDM_DATA_TYPE_PARCEL, 0), uint32_t{EINVAL});
             return EDM_ERR_RESYNC;
         },
         EDM_ERR_RESYNC,
         {0, 1, 0, 2}},
        {[](edm_list_req_t &, optree_list_t *) -> uint32_t { return 12; }, 12, {0, 0, 1, 0}},
        {[](edm_list_req_t &, optree_list_t *) -> uint32_t { return 0; }, EPROTO, {0, 0, 1, 0}},
        {[](edm_list_req_t &request, optree_list_t *reply) {
             optree_edm_list_free(reply);
             return hand_back(request, reply);
         },
         EPROTO,
         {0, 1, 0, 0}},
        {[](edm_list_req_t &request, optree_list_t *reply) {
             optree_edm_list_set_more_flag(reply); // a page without items cannot be continued
             return hand_back(request, reply);
         },
         EPROTO,
         {0, 0, 1, 0}},
    };
    for (const auto &[handler, status, ends] : cases) {
        const auto start = host::operational_get_statistics();
        the.on_list = handler;
        EXPECT_EQ(query({.path = "mac-vtep", .kind = list}).status, status);
        const auto end = host::operational_get_statistics();
        EXPECT_EQ(ends,
                  (std::vector{end.lists_answered - start.lists_answered, end.lists_freed - start.lists_freed,
                               end.lists_abandoned - start.lists_abandoned, end.list_refusals - start.list_refusals}));
    }
}

TEST_F(operational_db, AnswersAGetWithOneRecordOrAnError)
{
    const std::pair<uint32_t (*)(edm_get_rsp_t &), uint32_t> cases[] = {
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
        the.on_get = handler;
        page = query({.path = "mac-count", .kind = get});
        EXPECT_EQ(page.status, expected);
    }
    manager.stop();
    ASSERT_EQ(page.items.size(), 1u);
    EXPECT_EQ(page.items[0].name, "");
    EXPECT_EQ(std::string(page.items[0].data.begin(), page.items[0].data.end()), "record") << "it outlives the session";
}

TEST_F(operational_db, RefusesARequestOfTheThreadThatAnswersIt)
{
    const auto ask = [](void *) { EXPECT_EQ(query({.path = "mac-count", .kind = get}).status, uint32_t{EDEADLK}); };
    the.on_get = [ask](edm_get_rsp_t &response) {
        ask(nullptr);
        return answer_record(response);
    };
    EXPECT_EQ(query({.path = "mac-count", .kind = get}).status, 0u);
    EXPECT_EQ(host::event_post(manager.evm, ask, nullptr, nullptr), 0u);
    test::serve_queued(manager.evm);
}

// ---- Deadlines, cancelling and ends ----

TEST_F(operational_db, DropsAnAnswerAfterTheDeadline)
{
    gate busy;
    the.on_list = [&busy](edm_list_req_t &request, optree_list_t *reply) {
        busy.pass();
        EXPECT_EQ(optree_restart_timeout_edm(request.request, 60), uint32_t{ESRCH});
        return hand_back(request, reply);
    };
    const uint64_t dropped = host::operational_get_statistics().answers_dropped;
    auto session = host::operational_open(test::request_of({.path = "mac-table", .timeout_seconds = 0}));
    auto waiting = host::operational_open(test::request_of({.path = "mac-aging", .timeout_seconds = 600}));
    busy.begun.wait(false);
    waiting.reset(); // closed in the manager's queue, so it never reaches a handler
    const operational_page page = host::operational_wait(*session);
    EXPECT_EQ(page.status, uint32_t{ETIMEDOUT});
    EXPECT_EQ(page.text, "mac-table: no answer in time");
    EXPECT_EQ(host::operational_wait(*session).status, uint32_t{ECANCELED}) << "the page is taken";
    busy.open();
    EXPECT_EQ(query({.path = "mac-action", .kind = action}).status, 0u);
    EXPECT_EQ(host::operational_get_statistics().answers_dropped, dropped + 1);
}

TEST_F(operational_db, LetsAHandlerMoveItsDeadline)
{
    const auto start = std::chrono::steady_clock::now();
    optree_request_t *finished = nullptr;
    the.on_get = [&](edm_get_rsp_t &response) {
        EXPECT_EQ(optree_restart_timeout_edm(nullptr, 60), uint32_t{EINVAL});
        EXPECT_EQ(optree_restart_timeout_edm(response.request, 60), 0u);
        std::this_thread::sleep_until(start + std::chrono::milliseconds(1100)); // past the first deadline
        finished = response.request;
        return answer_record(response);
    };
    EXPECT_EQ(query({.path = "mac-count", .kind = get, .timeout_seconds = 1}).status, 0u);
    EXPECT_EQ(optree_restart_timeout_edm(finished, 60), uint32_t{ESRCH});

    gate busy;
    the.on_get = [&busy](edm_get_rsp_t &response) {
        EXPECT_EQ(optree_restart_timeout_edm(response.request, 600), 0u);
        EXPECT_EQ(optree_restart_timeout_edm(response.request, 0), 0u); // one second again
        busy.pass();
        return answer_record(response);
    };
    EXPECT_EQ(query({.path = "mac-count", .kind = get, .timeout_seconds = 1}).status, uint32_t{ETIMEDOUT});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(300));
    busy.open();
    manager.stop();
}

TEST_F(operational_db, CancelsARequestUntilItsAnswerHasCome)
{
    gate busy;
    the.on_list = [&busy](edm_list_req_t &request, optree_list_t *reply) {
        busy.pass();
        return hand_back(request, reply);
    };
    auto session = host::operational_open(test::request_of({.path = "mac-table"}));
    auto answer = std::async(std::launch::async, [&session] { return host::operational_wait(*session).status; });
    busy.begun.wait(false);
    host::operational_cancel(*session);
    EXPECT_EQ(answer.get(), uint32_t{ECANCELED});
    busy.open();

    session = host::operational_open(test::request_of({.path = "mac-table"}));
    const operational_page page = host::operational_wait(*session);
    host::operational_cancel(*session);
    EXPECT_EQ(page.status, 0u) << "a late cancellation changes nothing";
}

TEST_F(operational_db, WaitsForADataManagerToRegister)
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
    EXPECT_EQ(host::operational_wait(*waiting).status, 0u);
    EXPECT_EQ(the.call, "0 keys");
}

TEST_F(operational_db, EndsQueuedRequestsWithTheThread)
{
    gate busy;
    the.on_get = [&busy](edm_get_rsp_t &response) {
        busy.pass();
        return answer_record(response);
    };
    auto served = host::operational_open(test::request_of({.path = "mac-count", .kind = get}));
    auto queued = host::operational_open(test::request_of({.path = "mac-count", .kind = get}));
    busy.begun.wait(false);
    host::event_manager_stop(manager.evm);
    const operational_page page = host::operational_wait(*queued);
    EXPECT_EQ(page.status, uint32_t{ESHUTDOWN});
    EXPECT_EQ(page.text, "mac-count: the data manager's thread has ended");
    busy.open();
    EXPECT_EQ(host::operational_wait(*served).status, 0u);
    EXPECT_EQ(query({.path = "mac-action", .kind = action}).status, uint32_t{ESHUTDOWN});
}

TEST_F(operational_db, ServesManyRequestersThatReadAndCancel)
{
    the.on_list = [](edm_list_req_t &request, optree_list_t *reply) {
        optree_restart_timeout_edm(request.request, 60); // whether the requester still waits or not
        EXPECT_EQ(optree_edm_datalist_add(reply, "item", EDM_DATA_TYPE_PARCEL, 0, "data", 4), 0u);
        return hand_back(request, reply);
    };
    std::vector<std::thread> requesters;
    for (uint32_t number = 0; number < 8; number++) {
        requesters.emplace_back([number] {
            for (uint32_t round = 0; round < 50; round++) {
                const auto session = host::operational_open(test::request_of({.path = "mac-table"}));
                std::thread canceller;
                if ((number + round) % 3 == 0) {
                    canceller = std::thread([&session] { host::operational_cancel(*session); });
                }
                const size_t items = host::operational_wait(*session).items.size();
                if (canceller.joinable()) {
                    canceller.join();
                } else {
                    EXPECT_EQ(items, 1u);
                }
            }
        });
    }
    for (std::thread &requester : requesters) {
        requester.join();
    }
}

} // namespace
