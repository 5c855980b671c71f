// SPDX-License-Identifier: Apache-2.0

// The resync exchange and the removal notifications, with the module running on the host's services.
#include "tests/support/module_scenario.h"

#include <cstring>

#include "host/event/notification_host.h"
#include "host/objects/l2fib_host.h"
#include "host/objects/l2fib_objects.h"
#include "tests/support/small_table.h"

using namespace scenario;

static event_message_fn handler; // of the cache thread's messages

SCENARIO_FORWARD(uint32_t, event_message_attach,
                 (event_manager_t * evm, const event_message_filter_t *filter, event_message_fn of_cache_thread,
                  uint32_t zero),
                 (evm, filter, of_cache_thread, zero), (handler = of_cache_thread, ""))
SCENARIO_FORWARD(uint32_t, msg_set_send_timeout, (uint32_t connection, uint32_t seconds), (connection, seconds),
                 words("wait", seconds))
SCENARIO_FORWARD(int, msg_send, (uint32_t connection, const void *request, uint64_t length, void *reply, uint64_t room),
                 (connection, request, length, reply, room), "")
SCENARIO_FORWARD(uint32_t, msg_clinfo_hold, (uint32_t client), (client), "")
SCENARIO_FORWARD(uint32_t, msg_clinfo_unhold, (uint32_t client), (client), "released")
SCENARIO_FORWARD(uint32_t, msg_get_clinfo_m_msglen, (uint32_t client, uint64_t *length), (client, length), "")
SCENARIO_FORWARD(uint32_t, msg_get_clinfo_m_srcmsglen, (uint32_t client, uint64_t *length), (client, length), "")
SCENARIO_FORWARD(uint32_t, msg_reply, (uint32_t client, uint32_t zero, const void *reply, uint64_t length),
                 (client, zero, reply, length), "")

extern "C" uint32_t optree_restart_timeout_edm(optree_request_t *, uint32_t seconds)
{
    note(words("deadline", seconds));
    return 0;
}

namespace {

constexpr uint32_t reset_status = EDM_RESYNC_SEND_ERROR | ECONNRESET;
auto *const some_request = handle_of<optree_request_t>(0x40);

// ---- A platform that completes each resync as planned ----

enum completion { inside, posted, other_thread, never };

struct plan {
    completion how;
    uint32_t status;
    std::thread completer;
};

plan the_plan{};

void complete()
{
    const uint32_t status = the_plan.status;
    note(words("completed", l2fib_mac_edm_resync_complete(status)));
}

void resync(const std::string &callback)
{
    note(callback);
    if (the_plan.how == inside) {
        complete();
    } else if (the_plan.how == posted) {
        host::event_post(
            l2fib_mac_cache_evm, [](void *) { complete(); }, nullptr, nullptr);
    } else if (the_plan.how == other_thread) {
        the_plan.completer = std::thread([] {
            self = platform;
            complete();
        });
    }
}

// Starts the module and waits until both threads serve.
void start(l2fib_mac_edm_pd_cb_t callbacks = noted_callbacks())
{
    callbacks.resync_all_cb = [] { resync("all"); };
    callbacks.resync_bd_cb = [](uint16_t bridge_id) { resync(words("domain", bridge_id)); };
    callbacks.resync_bp_cb = [](uint32_t xcid) { resync(words("port", xcid)); };
    callbacks.action_cb = [] { note("action"); };
    ASSERT_EQ(start_module(callbacks), 0u);
    for (const char *path : {EDM_CACHE_THREAD_PATH, EDM_REQUEST_THREAD_PATH}) {
        ASSERT_EQ(host::event_manager_wait(path, 30), host::event_manager_state::serving);
    }
    the.journals.clear();
}

// Waits until the cache thread has done all that was requested before.
void settle()
{
    test::serve_queued(l2fib_mac_cache_evm);
    if (the_plan.completer.joinable()) {
        the_plan.completer.join();
    }
}

// ---- Requests that go through ----

TEST(Resync, GivesTheRequesterWhatThePlatformCompletesWith)
{
    in_own_process([] {
        start();
        const uint32_t counters[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
        std::memcpy(l2fm_edm_table_mac_get_pool(), counters, sizeof(counters));
        const std::string by = "l2fib_mac_edm_thread_send_resync";
        const struct {
            uint32_t status;
            uint32_t result;
            journal trace;
        } rows[] = {
            {0, 0, {"trace 1957 " + by + " 1 2 3 4 7 8"}},
            {1, 0, {"trace 1956 " + by + " 1 2 3 4 7 8"}},
            {2, EDM_ERR_RESYNC, {"trace 1973 " + by}},
            {3, 0, {}},
            {9, EDM_ERR_INVALID_ARGS, {words("trace 1929", by, EDM_ERR_INVALID_ARGS)}},
        };
        for (const auto &row : rows) {
            for (const completion how : {inside, posted, other_thread}) {
                SCOPED_TRACE(words(row.status, how));
                the_plan.how = how;
                the_plan.status = row.status;
                EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_BD, 7, some_request), row.result);
                settle();
                journal requested = {"wait 120", "deadline 125", "deadline 0"};
                requested.insert(requested.end(), row.trace.begin(), row.trace.end());
                expect(caller, requested);
                const bool elsewhere = how == other_thread;
                expect(cache, elsewhere ? journal{"domain 7"} : journal{"domain 7", "released", "completed 0"});
                expect(platform, elsewhere ? journal{"released", "completed 0"} : journal{});
            }
        }
        stop_module();
    });
}

TEST(Resync, CallsTheSlotOfEachType)
{
    in_own_process([] {
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, some_request), EDM_ERR_INVALID_ARGS);
        expect(caller, {});
        start();
        const std::pair<uint32_t, const char *> rows[] = {
            {EDM_RESYNC_ALL, "all"}, {EDM_RESYNC_BD, "domain 9029"}, {EDM_RESYNC_BP, "port 74565"}};
        the_plan.status = 3;
        for (const auto &[type, callback] : rows) {
            EXPECT_EQ(l2fib_mac_edm_thread_send_resync(type, 0x12345, nullptr), 0u);
            expect(caller, {"wait 120"});
            expect(cache, {callback, "released", "completed 0"});
        }
        EXPECT_EQ(host::edm_actions().action[L2FIB_ACTION_SLOT_MAC_EDM](some_request), 0u);
        expect(caller, {"wait 120", "deadline 125", "deadline 0"});
        expect(cache, {"action", "released"});
        for (const uint32_t unknown : {0u, 5u}) {
            EXPECT_EQ(l2fib_mac_edm_thread_send_resync(unknown, 0, some_request), EDM_ERR_INVALID_ARGS);
            expect(caller, {words("trace 1928 l2fib_mac_edm_thread_send_resync", EDM_ERR_INVALID_ARGS)});
        }
        stop_module();
    });
}

// ---- Requests that fail ----

TEST(Resync, ReportsEachFailureAndContinues)
{
    in_own_process([] {
        start();
        the_plan.status = 3;
        const std::string refused = words("trace 1930 l2fib_mac_cache_thread_hdlr", EDM_ERR_INVALID_ARGS);
        const struct {
            fault step;
            uint32_t result;
            std::string trace; // of the cache thread
        } rows[] = {
            {{cache, "msg_clinfo_hold", 5}, 0, "trace 1930 l2fib_mac_cache_thread_hdlr 5"},
            {{cache, "msg_get_clinfo_m_msglen", 6}, reset_status, refused},
            {{cache, "msg_get_clinfo_m_srcmsglen", 7}, reset_status, "trace 1930 l2fib_mac_cache_thread_hdlr 7"},
            {{cache, "msg_reply", 8}, reset_status, "trace 1930 l2fib_mac_edm_resync_complete 8"},
            {{cache, "msg_clinfo_unhold", 9}, 0, "trace 1935 l2fib_mac_edm_resync_complete 9"},
            {{caller, "msg_send", UINT64_MAX, EPIPE}, EDM_RESYNC_SEND_ERROR | EPIPE, ""},
        };
        for (const auto &row : rows) {
            SCOPED_TRACE(row.step.function);
            the.failing = row.step;
            EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, some_request), row.result);
            settle();
            const journal entries = take_journal(cache);
            EXPECT_EQ(testing::Matches(testing::Contains(row.trace))(entries), !row.trace.empty());
            EXPECT_EQ(testing::Matches(testing::Contains("released"))(entries), !row.trace.empty()) << "a hold stays";
            const std::string sent = words("trace 1928 l2fib_mac_edm_thread_send_resync", row.result);
            EXPECT_EQ(take_journal(caller).back() == sent, row.result != 0);
        }
        stop_module();
    });
}

TEST(Resync, SurvivesCompletionsThatNobodyWaitsFor)
{
    in_own_process([] {
        l2fib_mac_edm_pd_cb_t callbacks = noted_callbacks();
        callbacks.capabilities_cb = [](uint16_t *wait_time) { return *wait_time = 1, 0u; };
        start(callbacks);
        const auto expect_traces = [](std::initializer_list<int> ids) {
            journal found = take_journal(caller);
            std::erase_if(found, [](const std::string &entry) { return !entry.starts_with("trace"); });
            ASSERT_EQ(found.size(), ids.size());
            for (size_t i = 0; i < found.size(); i++) {
                EXPECT_TRUE(found[i].starts_with(words("trace", ids.begin()[i], "l2fib_mac_edm_resync_complete")));
            }
        };
        EXPECT_NE(l2fib_mac_edm_resync_complete(0), 0u) << "no resync was ever requested";
        expect_traces({1930, 1935});

        the_plan.how = never;
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, some_request), EDM_RESYNC_SEND_ERROR | ETIMEDOUT);
        const journal entries = take_journal(caller);
        EXPECT_EQ(entries.at(1), "deadline 6");
        EXPECT_THAT(entries, testing::Not(testing::Contains("deadline 0"))) << "the request keeps its longer time-out";
        EXPECT_EQ(l2fib_mac_edm_resync_complete(0), 0u) << "late: the requester gave up, its hold stays";
        expect_traces({1930});

        // A late completion answers the request that is held then; the completion of that one finds nobody.
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, nullptr), EDM_RESYNC_SEND_ERROR | ETIMEDOUT);
        l2fib_mac_edm_capabilities = 60;
        the_plan.how = other_thread;
        the_plan.status = 2;
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_BD, 7, nullptr), EDM_ERR_RESYNC);
        settle();
        take_journal(caller);
        EXPECT_NE(l2fib_mac_edm_resync_complete(0), 0u);
        expect_traces({1930, 1935});
        stop_module();
    });
}

TEST(Resync, TakesEveryMessageOfTheChannel)
{
    in_own_process([] {
        start();
        the_plan.status = 3;
        handler(nullptr);
        expect(caller, {});
        struct {
            uint16_t start[2];
            uint8_t rest[196];
        } request{};
        const std::string refused = words("trace 1930 l2fib_mac_cache_thread_hdlr", EDM_ERR_INVALID_ARGS);
        const struct {
            uint64_t length;
            uint16_t type;
            journal entries;
        } rows[] = {
            {24, 0x8007, {"released", refused}},
            {4, 0x8002, {"domain 0", "released", "completed 0"}},
            {128, 0x8002, {"domain 0", "released", "completed 0"}},
            {129, 0x8002, {refused, "released"}},
        };
        for (const auto &row : rows) {
            request.start[0] = row.type;
            request.start[1] = EDM_MSG_CLASS;
            uint8_t reply[24];
            EXPECT_EQ(msg_send(conn, &request, row.length, reply, sizeof(reply)), row.length > 128 ? -1 : 0);
            settle();
            take_journal(caller);
            expect(cache, row.entries);
        }
        stop_module();
    });
}

// ---- Removals ----

uint32_t publish_bdxc(uint32_t slot, uint32_t kind, uint32_t id, uint32_t event)
{
    bdxc_notification_t notification{};
    notification.object_kind = kind;
    notification.object_id = id;
    notification.event_code = event;
    return host::bdxc_publish(&notification, slot);
}

// About port 10 and bridge domain 1.
uint32_t publish_efp(uint32_t slot, uint32_t kind, uint32_t validity = 1, uint32_t event = BDXC_EVENT_REMOVED)
{
    efp_notification_t notification{};
    notification.object_kind = kind;
    notification.port_id = 10;
    notification.bridge_id = 1;
    notification.validity = validity;
    notification.event_code = event;
    return host::efp_publish(&notification, slot);
}

TEST(Removal, DestroysWhatTheNotificationNames)
{
    in_own_process([] {
        start();
        small_table::make_objects();
        small_table::set_port(0x2001, L2FIB_SEGMENT_INTERFACE);
        l2fib_mac_edm_defn_init(&small_table::limit, 100);
        const std::string all = "1: 10(1) 8193(2) | 2: 20(3) | list 1 2 3";
        const std::string without_domain = "2: 20(3) | list 3";
        const std::string without_port = "1: 8193(2) | 2: 20(3) | list 2 3";
        const std::pair<std::function<uint32_t()>, std::string> rows[] = {
            {[] { return host::bdxc_publish_bridge_domain_removed(1); }, without_domain},
            {[] { return publish_bdxc(0, 1, 1, 1); }, all},
            {[] { return publish_bdxc(1, 1, 1, 2); }, all},
            {[] { return host::bdxc_publish_cross_connect_removed(0x2001); }, "1: 10(1) | 2: 20(3) | list 1 3"},
            {[] { return publish_bdxc(0, 3, 1, 2); }, all},
            {[] { return publish_bdxc(0, 1, 99, 2); }, all},
            {[] { return publish_efp(0, 1); }, without_domain},
            {[] { return publish_efp(0, 2); }, without_port},
            {[] { return publish_efp(0, 3); }, without_port},
            {[] { return publish_efp(0, 6); }, without_port},
            {[] { return publish_efp(1, 3); }, without_port},
            {[] { return publish_efp(2, 3); }, all},
            {[] { return publish_efp(0, 4); }, all},
            {[] { return publish_efp(0, 5); }, all},
            {[] { return publish_efp(0, 3, 0); }, all},
            {[] { return publish_efp(0, 3, 1, 1); }, all},
        };
        for (const auto &[publish, left] : rows) {
            SCOPED_TRACE(words("row", &left - &rows[0].second));
            l2fm_edm_table_bd_destroy(1);
            l2fm_edm_table_bd_destroy(2);
            ASSERT_EQ(small_table::run("1 10 1; 2 0x2001 1; 3 20 2"), 0u);
            EXPECT_EQ(publish(), 0u);
            settle();
            EXPECT_EQ(small_table::table_text(), left);
        }
        stop_module();
    });
}

} // namespace
