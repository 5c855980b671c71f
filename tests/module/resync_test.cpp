// SPDX-License-Identifier: Apache-2.0

// The resync exchange and the removal notifications, with the module running on the host's services.
#include "tests/support/module/module_scenario.h"

#include <algorithm>
#include <cstring>

#include "host/event/notification_host.h"
#include "host/objects/l2fib_host.h"
#include "host/objects/l2fib_objects.h"

using namespace scenario;

static event_message_fn handler; // of the cache thread's messages
static std::string deadlines;    // what the requester does to its time-outs

INTERPOSE(int, msg_send, (uint32_t connection, const void *request, uint64_t length, void *reply, uint64_t room),
          (connection, request, length, reply, room), (errno = EPIPE, -1))
INTERPOSE(uint32_t, msg_clinfo_hold, (uint32_t client), (client), refusal)
INTERPOSE(uint32_t, msg_clinfo_unhold, (uint32_t client), (client), refusal)
INTERPOSE(uint32_t, msg_get_clinfo_m_msglen, (uint32_t client, uint64_t *length), (client, length), refusal)
INTERPOSE(uint32_t, msg_get_clinfo_m_srcmsglen, (uint32_t client, uint64_t *length), (client, length), refusal)
INTERPOSE(uint32_t, msg_reply, (uint32_t client, uint32_t zero, const void *reply, uint64_t length),
          (client, zero, reply, length), refusal)

extern "C" {

uint32_t event_message_attach(event_manager_t *evm, const event_message_filter_t *filter, event_message_fn attached,
                              uint32_t zero)
{
    handler = attached;
    return INTERPOSE_HIDDEN(event_message_attach)(evm, filter, attached, zero);
}

uint32_t msg_set_send_timeout(uint32_t connection, uint32_t seconds)
{
    deadlines += words("send", seconds, "");
    return INTERPOSE_HIDDEN(msg_set_send_timeout)(connection, seconds);
}

uint32_t optree_restart_timeout_edm(optree_request_t *, uint32_t seconds)
{
    deadlines += words("request", seconds, "");
    return 0;
}

} // extern "C"

namespace {

constexpr uint32_t reset_status = EDM_RESYNC_SEND_ERROR | ECONNRESET;
auto *const some_request = handle_of<optree_request_t>(0x40);

// ---- A platform that completes each resync as planned ----

enum completion { inside, posted, other_thread, never };

struct plan {
    completion how;
    uint32_t status;
    std::thread completer;
    std::string called; // the callback
    uint32_t completed; // what the completion returned
};

plan the_plan{};

void complete()
{
    the_plan.completed = l2fib_mac_edm_resync_complete(the_plan.status);
}

void resync(const std::string &callback)
{
    the_plan.called += callback;
    if (the_plan.how == inside) {
        complete();
    } else if (the_plan.how == posted) {
        host::event_post(
            l2fib_mac_cache_evm, [](void *) { complete(); }, nullptr, nullptr);
    } else if (the_plan.how == other_thread) {
        the_plan.completer = std::thread(complete);
    }
}

// Starts the module and waits until both threads serve.
void start(l2fib_mac_edm_pd_cb_t callbacks = silent_callbacks())
{
    callbacks.resync_all_cb = [] { resync("all"); };
    callbacks.resync_bd_cb = [](uint16_t bridge_id) { resync(words("domain", bridge_id)); };
    callbacks.resync_bp_cb = [](uint32_t xcid) { resync(words("port", xcid)); };
    callbacks.action_cb = [] { the_plan.called += "action"; };
    ASSERT_EQ(start_module(callbacks), 0u);
    for (const char *path : {EDM_CACHE_THREAD_PATH, EDM_REQUEST_THREAD_PATH}) {
        ASSERT_EQ(host::event_manager_wait(path, 30), host::event_manager_state::serving);
    }
    take_all_traces();
}

// Waits until the cache thread has done all that was requested before.
void settle()
{
    test::serve_queued(l2fib_mac_cache_evm);
    if (the_plan.completer.joinable()) {
        the_plan.completer.join();
    }
}

// Makes a request and waits until it is settled. Expects that the cache thread released all that it held.
uint32_t request(uint32_t type, uint32_t arg, optree_request_t *handle)
{
    deadlines.clear();
    the_plan.called.clear();
    interpose::msg_clinfo_hold.calls = interpose::msg_clinfo_unhold.calls = 0;
    const uint32_t result = l2fib_mac_edm_thread_send_resync(type, arg, handle);
    if (the_plan.how != never) {
        settle();
        EXPECT_EQ(interpose::msg_clinfo_unhold.calls, interpose::msg_clinfo_hold.calls) << "a hold stays";
    }
    return result;
}

// ---- Requests that go through ----

TEST(Resync, GivesTheRequesterWhatThePlatformCompletesWith)
{
    in_own_process([] {
        start();
        const uint32_t counters[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
        std::memcpy(l2fm_edm_table_mac_get_pool(), counters, sizeof(counters));
        const std::string by = " l2fib_mac_edm_thread_send_resync";
        const struct {
            uint32_t status, result;
            std::string traces;
        } rows[] = {
            {0, 0, "1957" + by + " 1 2 3 4 7 8; "},
            {1, 0, "1956" + by + " 1 2 3 4 7 8; "},
            {2, EDM_ERR_RESYNC, "1973" + by},
            {3, 0, ""},
            {9, EDM_ERR_INVALID_ARGS, "1929" + by + " INVALID_ARGS"},
        };
        for (const auto &row : rows) {
            for (const completion how : {inside, posted, other_thread}) {
                SCOPED_TRACE(words(row.status, how));
                the_plan.how = how;
                the_plan.status = row.status;
                EXPECT_EQ(request(EDM_RESYNC_BD, 7, some_request), row.result);
                EXPECT_EQ(the_plan.called, "domain 7");
                EXPECT_EQ(the_plan.completed, 0u);
                EXPECT_EQ(deadlines, "send 120 request 125 request 0 ");
                EXPECT_EQ(take_all_traces(), row.traces);
            }
        }
        stop_module();
    });
}

TEST(Resync, CallsTheSlotOfEachType)
{
    in_own_process([] {
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, some_request), EDM_ERR_INVALID_ARGS);
        start();
        the_plan.status = 3;
        const std::pair<uint32_t, const char *> rows[] = {
            {EDM_RESYNC_ALL, "all"}, {EDM_RESYNC_BD, "domain 9029"}, {EDM_RESYNC_BP, "port 74565"}};
        for (const auto &[type, callback] : rows) {
            EXPECT_EQ(request(type, 0x12345, nullptr), 0u);
            EXPECT_EQ(the_plan.called, callback);
            EXPECT_EQ(deadlines, "send 120 ");
        }
        the_plan.called.clear();
        EXPECT_EQ(host::edm_actions().action[L2FIB_ACTION_SLOT_MAC_EDM](some_request), 0u);
        settle();
        EXPECT_EQ(the_plan.called, "action");
        EXPECT_EQ(take_all_traces(), "");
        for (const uint32_t unknown : {0u, 5u}) {
            EXPECT_EQ(request(unknown, 0, some_request), EDM_ERR_INVALID_ARGS);
            EXPECT_EQ(deadlines, "") << "it sends nothing";
            EXPECT_EQ(take_all_traces(), "1928 l2fib_mac_edm_thread_send_resync INVALID_ARGS");
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
        const std::string not_sent = words("; 1928 l2fib_mac_edm_thread_send_resync", reset_status);
        const std::pair<interpose::operation &, std::string> rows[] = {
            {interpose::msg_clinfo_hold, "1930 l2fib_mac_cache_thread_hdlr 5; 1935 l2fib_mac_edm_resync_complete 22"},
            {interpose::msg_get_clinfo_m_msglen, "1930 l2fib_mac_cache_thread_hdlr INVALID_ARGS" + not_sent},
            {interpose::msg_get_clinfo_m_srcmsglen, "1930 l2fib_mac_cache_thread_hdlr 5" + not_sent},
            {interpose::msg_reply, "1930 l2fib_mac_edm_resync_complete 5" + not_sent},
            {interpose::msg_clinfo_unhold, "1935 l2fib_mac_edm_resync_complete 5"},
            {interpose::msg_send, words("1928 l2fib_mac_edm_thread_send_resync", EDM_RESYNC_SEND_ERROR | EPIPE)},
        };
        for (const auto &[operation, traces] : rows) {
            SCOPED_TRACE(traces);
            operation.refuse(1);
            const uint32_t result = request(EDM_RESYNC_ALL, 0, some_request);
            operation.refuse(0);
            EXPECT_EQ(result, traces.ends_with(not_sent)           ? reset_status
                              : &operation == &interpose::msg_send ? EDM_RESYNC_SEND_ERROR | EPIPE
                                                                   : 0);
            EXPECT_EQ(take_all_traces(), traces);
        }
        stop_module();
    });
}

TEST(Resync, SurvivesCompletionsThatNobodyWaitsFor)
{
    in_own_process([] {
        l2fib_mac_edm_pd_cb_t callbacks = silent_callbacks();
        callbacks.capabilities_cb = [](uint16_t *wait_time) { return *wait_time = 1, 0u; };
        start(callbacks);
        // Returns the ids of the trace points that a completion leaves.
        const auto ids_of_completion = [](bool succeeds) {
            take_all_traces();
            EXPECT_EQ(l2fib_mac_edm_resync_complete(0) == 0, succeeds);
            std::vector<uint32_t> ids;
            for (const host::trace_point &point : test::new_traces(host::trace_ring::error)) {
                ids.push_back(point.id);
            }
            return ids;
        };
        const std::vector<uint32_t> unanswered = {1930}, unanswered_and_unreleased = {1930, 1935};
        EXPECT_EQ(ids_of_completion(false), unanswered_and_unreleased) << "no resync was ever requested";

        the_plan.how = never;
        EXPECT_EQ(request(EDM_RESYNC_ALL, 0, some_request), EDM_RESYNC_SEND_ERROR | ETIMEDOUT);
        EXPECT_EQ(deadlines, "send 1 request 6 ") << "the request keeps its longer time-out";
        EXPECT_EQ(ids_of_completion(true), unanswered) << "late: the requester gave up, its hold stays";

        // A late completion answers the request that is held then; the completion of that one finds nobody.
        EXPECT_EQ(request(EDM_RESYNC_ALL, 0, nullptr), EDM_RESYNC_SEND_ERROR | ETIMEDOUT);
        l2fib_mac_edm_capabilities = 60;
        the_plan.how = other_thread;
        the_plan.status = 2;
        EXPECT_EQ(request(EDM_RESYNC_BD, 7, nullptr), EDM_ERR_RESYNC);
        EXPECT_EQ(ids_of_completion(false), unanswered_and_unreleased);
        stop_module();
    });
}

TEST(Resync, TakesEveryMessageOfTheChannel)
{
    in_own_process([] {
        start();
        the_plan.status = 3;
        handler(nullptr);
        const struct {
            uint64_t length;
            uint16_t type;
            const char *called, *traces;
        } rows[] = {
            {24, 0x8007, "", "1930 l2fib_mac_cache_thread_hdlr INVALID_ARGS"},
            {4, 0x8002, "domain 0", ""},
            {128, 0x8002, "domain 0", ""},
            {129, 0x8002, "", "1930 l2fib_mac_cache_thread_hdlr INVALID_ARGS"},
        };
        for (const auto &row : rows) {
            the_plan.called.clear();
            const uint16_t message[100] = {row.type, EDM_MSG_CLASS};
            uint8_t reply[24];
            EXPECT_EQ(msg_send(conn, message, row.length, reply, sizeof(reply)), row.length > 128 ? -1 : 0);
            settle();
            EXPECT_EQ(the_plan.called, row.called);
            EXPECT_EQ(take_all_traces(), row.traces);
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
