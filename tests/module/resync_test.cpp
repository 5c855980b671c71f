// SPDX-License-Identifier: Apache-2.0

// The resync exchange and the removal notifications, with the module running on the host's services.
#include "tests/support/module_scenario.h"

#include <cstring>

#include "host/event/notification_host.h"
#include "host/objects/l2fib_host.h"
#include "host/objects/l2fib_objects.h"
#include "tests/support/small_table.h"

using namespace scenario;

SCENARIO_FORWARD(uint32_t, event_message_attach,
                 (event_manager_t * evm, const event_message_filter_t *filter, event_message_fn handler, uint32_t zero),
                 (evm, filter, handler, zero), (the.handler = handler, "event_message_attach"))
SCENARIO_FORWARD(uint32_t, msg_set_send_timeout, (uint32_t connection, uint32_t seconds), (connection, seconds),
                 words("msg_set_send_timeout", connection == conn, seconds))
SCENARIO_FORWARD(int, msg_send, (uint32_t connection, const void *request, uint64_t length, void *reply, uint64_t room),
                 (connection, request, length, reply, room), words("msg_send", hex(request, length), room))
SCENARIO_FORWARD(uint32_t, msg_clinfo_hold, (uint32_t client), (client), "msg_clinfo_hold")
SCENARIO_FORWARD(uint32_t, msg_clinfo_unhold, (uint32_t client), (client), "msg_clinfo_unhold")
SCENARIO_FORWARD(uint32_t, msg_get_clinfo_m_msglen, (uint32_t client, uint64_t *length), (client, length),
                 "msg_get_clinfo_m_msglen")
SCENARIO_FORWARD(uint32_t, msg_get_clinfo_m_srcmsglen, (uint32_t client, uint64_t *length), (client, length),
                 "msg_get_clinfo_m_srcmsglen")
SCENARIO_FORWARD(uint32_t, msg_reply, (uint32_t client, uint32_t zero, const void *reply, uint64_t length),
                 (client, zero, reply, length), words("msg_reply", zero, hex(reply, length)))

extern "C" uint32_t optree_restart_timeout_edm(optree_request_t *, uint32_t seconds)
{
    note(words("optree_restart_timeout_edm", seconds));
    return 0;
}

namespace {

constexpr uint32_t reset_status = EDM_RESYNC_SEND_ERROR | ECONNRESET;
auto *const some_request = handle_of<optree_request_t>(0x40);

// ---- A platform that completes as it is told ----

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
    switch (the_plan.how) {
    case inside: complete(); break;
    case posted:
        host::event_post(
            l2fib_mac_cache_evm, [](void *) { complete(); }, nullptr, nullptr);
        break;
    case other_thread:
        the_plan.completer = std::thread([] {
            self = platform;
            complete();
        });
        break;
    case never: break;
    }
}

// Starts the module and waits until both threads serve.
void start(l2fib_mac_edm_pd_cb_t callbacks = silent_callbacks())
{
    callbacks.resync_all_cb = [] { resync("resync_all_cb"); };
    callbacks.resync_bd_cb = [](uint16_t bridge_id) { resync(words("resync_bd_cb", bridge_id)); };
    callbacks.resync_bp_cb = [](uint32_t xcid) { resync(words("resync_bp_cb", xcid)); };
    callbacks.action_cb = [] { note("action_cb"); };
    ASSERT_EQ(start_module(callbacks), 0u);
    for (const char *path : {EDM_CACHE_THREAD_PATH, EDM_REQUEST_THREAD_PATH}) {
        ASSERT_EQ(host::event_manager_wait(path, 30), host::event_manager_state::serving);
    }
    the.journals.clear();
}

// Waits until the cache thread has done what it was asked before.
void settle()
{
    test::serve_queued(l2fib_mac_cache_evm);
    if (the_plan.completer.joinable()) {
        the_plan.completer.join();
    }
}

journal operator+(journal first, const journal &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string message(uint32_t low_type, const char *arg = "00000000")
{
    return words("0" + std::to_string(low_type) + "80270a" + std::string(32, '0') + arg);
}

const journal delivered = {"msg_clinfo_hold", "msg_get_clinfo_m_msglen", "msg_get_clinfo_m_srcmsglen"};

journal answered(uint32_t code)
{
    return {"msg_reply 0 " + message(code), "msg_clinfo_unhold"};
}

// The requester's entries; the trace point is the last one, when there is any.
journal asked(const std::string &request, const std::string &trace = "")
{
    journal entries = {"msg_set_send_timeout 1 120", "optree_restart_timeout_edm 125", words("msg_send", request, 24),
                       "optree_restart_timeout_edm 0"};
    return trace.empty() ? entries : entries + journal{"trace " + trace};
}

void expect(role who, const journal &expected)
{
    EXPECT_EQ(take_journal(who, expected.size()), expected);
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
            uint32_t code;
            uint32_t result;
            std::string trace;
        } rows[] = {
            {0, 5, 0, "1957 " + by + " 1 2 3 4 7 8"},
            {1, 6, 0, "1956 " + by + " 1 2 3 4 7 8"},
            {2, 7, EDM_ERR_RESYNC, "1973 " + by},
            {3, 8, 0, ""},
            {9, 9, EDM_ERR_INVALID_ARGS, words("1929", by, EDM_ERR_INVALID_ARGS)},
        };
        for (const auto &row : rows) {
            for (const completion how : {inside, posted, other_thread}) {
                SCOPED_TRACE(words(row.status, how));
                the_plan.how = how;
                the_plan.status = row.status;
                EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_BD, 7, some_request), row.result);
                settle();
                expect(caller, asked(message(2, "07000000"), row.trace));
                const journal called = delivered + journal{"resync_bd_cb 7"};
                const journal completed = answered(row.code) + journal{"completed 0"};
                expect(cache, how == other_thread ? called : called + completed);
                expect(platform, how == other_thread ? completed : journal());
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
        the_plan.status = 3;
        const struct {
            uint32_t type;
            uint32_t arg;
            const char *sent_arg;
            const char *callback;
        } rows[] = {
            {EDM_RESYNC_ALL, 0x12345, "00000000", "resync_all_cb"},
            {EDM_RESYNC_BD, 0x12345, "45230100", "resync_bd_cb 9029"},
            {EDM_RESYNC_BP, 0x12345, "45230100", "resync_bp_cb 74565"},
        };
        for (const auto &row : rows) {
            EXPECT_EQ(l2fib_mac_edm_thread_send_resync(row.type, row.arg, nullptr), 0u);
            expect(caller, {"msg_set_send_timeout 1 120", words("msg_send", message(row.type, row.sent_arg), 24)});
            expect(cache, delivered + journal{row.callback} + answered(8) + journal{"completed 0"});
        }
        EXPECT_EQ(host::edm_actions().action[L2FIB_ACTION_SLOT_MAC_EDM](some_request), 0u);
        expect(caller, asked(message(4)));
        settle();
        expect(cache, delivered + journal{"action_cb"} + answered(8));
        for (const uint32_t unknown : {0u, 5u}) {
            EXPECT_EQ(l2fib_mac_edm_thread_send_resync(unknown, 0, some_request), EDM_ERR_INVALID_ARGS);
            expect(caller, {words("trace 1928 l2fib_mac_edm_thread_send_resync", EDM_ERR_INVALID_ARGS)});
        }
        stop_module();
    });
}

// ---- Requests that something happens to ----

TEST(Resync, ReportsEachFailureAndContinues)
{
    in_own_process([] {
        start();
        the_plan.status = 3;
        const std::string refused = words("trace 1930 l2fib_mac_cache_thread_hdlr", EDM_ERR_INVALID_ARGS);
        const char *const invalid_message = refused.c_str();
        const struct {
            fault step;
            uint32_t result;
            const char *trace; // of the cache thread
        } rows[] = {
            {{cache, "msg_clinfo_hold", 5}, 0, "trace 1930 l2fib_mac_cache_thread_hdlr 5"},
            {{cache, "msg_get_clinfo_m_msglen", 6}, reset_status, invalid_message},
            {{cache, "msg_get_clinfo_m_srcmsglen", 7}, reset_status, "trace 1930 l2fib_mac_cache_thread_hdlr 7"},
            {{cache, "msg_reply", 8}, reset_status, "trace 1930 l2fib_mac_edm_resync_complete 8"},
            {{cache, "msg_clinfo_unhold", 9}, 0, "trace 1935 l2fib_mac_edm_resync_complete 9"},
        };
        for (const auto &row : rows) {
            SCOPED_TRACE(row.step.function);
            the.faults = {row.step};
            EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, some_request), row.result);
            settle();
            const journal entries = take_journal(cache);
            EXPECT_THAT(entries, testing::Contains(row.trace));
            EXPECT_THAT(entries, testing::Contains("msg_clinfo_unhold")) << "a hold stays";
            const std::string sent = words("trace 1928 l2fib_mac_edm_thread_send_resync", row.result);
            EXPECT_EQ(take_journal(caller).back() == sent, row.result != 0);
        }
        the.faults = {{caller, "msg_send", UINT64_MAX, EPIPE}};
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, some_request), EDM_RESYNC_SEND_ERROR | EPIPE);
        stop_module();
    });
}

TEST(Resync, SurvivesCompletionsThatNobodyWaitsFor)
{
    in_own_process([] {
        l2fib_mac_edm_pd_cb_t callbacks = silent_callbacks();
        callbacks.capabilities_cb = [](uint16_t *wait_time) { return *wait_time = 1, 0u; };
        start(callbacks);
        const auto traces = [](const journal &entries) {
            journal found;
            for (const std::string &entry : entries) {
                if (entry.starts_with("trace")) {
                    found.push_back(entry.substr(0, entry.rfind(' ')));
                }
            }
            return found;
        };
        const std::string reply_failed = "trace 1930 l2fib_mac_edm_resync_complete";
        const std::string release_failed = "trace 1935 l2fib_mac_edm_resync_complete";
        EXPECT_NE(l2fib_mac_edm_resync_complete(0), 0u) << "nothing was ever asked for";
        EXPECT_EQ(traces(take_journal(caller)), (journal{reply_failed, release_failed}));

        the_plan.how = never;
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, some_request), EDM_RESYNC_SEND_ERROR | ETIMEDOUT);
        const journal entries = take_journal(caller);
        EXPECT_EQ(entries[1], "optree_restart_timeout_edm 6");
        EXPECT_EQ(entries.size(), 4u) << "the request keeps its longer time-out";
        EXPECT_EQ(l2fib_mac_edm_resync_complete(0), 0u) << "late: the requester has gone, its hold has not";
        EXPECT_EQ(traces(take_journal(caller)), journal{reply_failed});

        // A late completion answers the request that is held then; the completion of that one finds nobody.
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, nullptr), EDM_RESYNC_SEND_ERROR | ETIMEDOUT);
        l2fib_mac_edm_capabilities = 60;
        the_plan.how = other_thread;
        the_plan.status = 2;
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_BD, 7, nullptr), EDM_ERR_RESYNC);
        settle();
        take_journal(caller);
        EXPECT_NE(l2fib_mac_edm_resync_complete(0), 0u);
        EXPECT_EQ(traces(take_journal(caller)), (journal{reply_failed, release_failed}));
        the_plan.how = inside;
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_BD, 7, nullptr), EDM_ERR_RESYNC);
        stop_module();
    });
}

TEST(Resync, TakesWhateverIsSentToTheChannel)
{
    in_own_process([] {
        start();
        the_plan.status = 3;
        the.handler(nullptr);
        expect(caller, {});
        struct {
            uint16_t start[2];
            uint8_t rest[196];
        } request{};
        const struct {
            uint64_t length;
            journal entries;
            uint16_t type;
        } rows[] = {
            {24, answered(9) + journal{words("trace 1930 l2fib_mac_cache_thread_hdlr", EDM_ERR_INVALID_ARGS)}, 0x8007},
            {4, journal{"resync_bd_cb 0"} + answered(8) + journal{"completed 0"}, 0x8002},
            {128, journal{"resync_bd_cb 0"} + answered(8) + journal{"completed 0"}, 0x8002},
            {129, {words("trace 1930 l2fib_mac_cache_thread_hdlr", EDM_ERR_INVALID_ARGS), "msg_clinfo_unhold"}, 0x8002},
        };
        for (const auto &row : rows) {
            request.start[0] = row.type;
            request.start[1] = EDM_MSG_CLASS;
            uint8_t reply[24];
            EXPECT_EQ(msg_send(conn, &request, row.length, reply, sizeof(reply)), row.length > 128 ? -1 : 0);
            settle();
            expect(cache, delivered + row.entries);
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

uint32_t publish_efp(uint32_t slot, uint32_t kind, uint32_t port, uint32_t bridge_id, uint32_t validity, uint32_t event)
{
    efp_notification_t notification{};
    notification.object_kind = kind;
    notification.port_id = port;
    notification.bridge_id = bridge_id;
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
        const std::pair<uint32_t (*)(), std::string> rows[] = {
            {[] { return host::bdxc_publish_bridge_domain_removed(1); }, without_domain},
            {[] { return publish_bdxc(0, 1, 1, 1); }, all},
            {[] { return publish_bdxc(1, 1, 1, 2); }, all},
            {[] { return host::bdxc_publish_cross_connect_removed(0x2001); }, "1: 10(1) | 2: 20(3) | list 1 3"},
            {[] { return publish_bdxc(0, 3, 1, 2); }, all},
            {[] { return publish_bdxc(0, 1, 99, 2); }, all},
            {[] { return publish_efp(0, 1, 20, 1, 1, 2); }, without_domain},
            {[] { return publish_efp(0, 2, 10, 2, 1, 2); }, without_port},
            {[] { return publish_efp(0, 3, 10, 2, 1, 2); }, without_port},
            {[] { return publish_efp(0, 6, 10, 2, 1, 2); }, without_port},
            {[] { return publish_efp(1, 3, 10, 2, 1, 2); }, without_port},
            {[] { return publish_efp(2, 3, 10, 2, 1, 2); }, all},
            {[] { return publish_efp(0, 4, 10, 1, 1, 2); }, all},
            {[] { return publish_efp(0, 5, 10, 1, 1, 2); }, all},
            {[] { return publish_efp(0, 3, 10, 1, 0, 2); }, all},
            {[] { return publish_efp(0, 3, 10, 1, 1, 1); }, all},
        };
        int row = 0;
        for (const auto &[publish, left] : rows) {
            SCOPED_TRACE(++row);
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
