// SPDX-License-Identifier: Apache-2.0

// The start of the module: what it asks of the platform in which order, and what is left when a step fails.
#include "tests/support/module_scenario.h"

#include <cstring>

using namespace scenario;

SCENARIO_FORWARD(uint32_t, l2fib_debug_init, (void *evm, void *handle, void *channel, const void *pd_cb),
                 (evm, handle, channel, pd_cb), words("l2fib_debug_init", evm, handle, channel))
SCENARIO_FORWARD(event_manager_t *, event_manager_create, (uint32_t a, const char *path, uint32_t depth, uint32_t b),
                 (a, path, depth, b), words("event_manager_create", a, path, depth, b))
SCENARIO_FORWARD(uint32_t, event_callback_attach, (event_manager_t * evm, const event_callback_record_t *record),
                 (evm, record), "event_callback_attach")
SCENARIO_FORWARD(uint32_t, event_message_attach,
                 (event_manager_t * evm, const event_message_filter_t *filter, event_message_fn handler, uint32_t zero),
                 (evm, filter, handler, zero), "event_message_attach")
SCENARIO_FORWARD(int, event_block, (event_record_t * record), (record), "event_block")
SCENARIO_FORWARD(uint32_t, msg_chan_attach, (msg_chan_t * channel, uint32_t zero, uint32_t *connection),
                 (channel, zero, connection), words("msg_chan_attach", channel == evm_get_chan(l2fib_mac_cache_evm)))
SCENARIO_FORWARD(uint32_t, set_thread_name, (const char *name, pthread_t thread), (name, thread),
                 words("set_thread_name", name, pthread_equal(thread, pthread_self()) != 0))
SCENARIO_FORWARD(uint32_t, l2fib_hw_mac_addr_edm_fn_init, (void), (), "l2fib_hw_mac_addr_edm_fn_init")
SCENARIO_FORWARD(uint32_t, l2fib_action_mac_edm_fn_init, (const l2fib_action_table_t *table), (table),
                 "l2fib_action_mac_edm_fn_init")
SCENARIO_FORWARD(uint32_t, l2fib_show_mac_edm_optree_init, (event_manager_t * evm, const char *prefix), (evm, prefix),
                 words("l2fib_show_mac_edm_optree_init", prefix))
SCENARIO_FORWARD(uint32_t, l2fib_action_mac_edm_init, (event_manager_t * evm), (evm), "l2fib_action_mac_edm_init")
SCENARIO_FORWARD(uint32_t, l2fm_edm_table_init, (void), (), words("l2fm_edm_table_init", lock_state()))
SCENARIO_FORWARD(uint32_t, bdxc_process_connect, (event_manager_t * evm, uint32_t zero, bdxc_connection_t **connection),
                 (evm, zero, connection), "bdxc_process_connect")
SCENARIO_FORWARD(uint32_t, bdxc_process_disconnect, (bdxc_connection_t * connection), (connection),
                 "bdxc_process_disconnect")
SCENARIO_FORWARD(uint32_t, bdxc_register_bdxc_notifications,
                 (bdxc_connection_t * connection, uint32_t zero, const bdxc_subscription_t *record),
                 (connection, zero, record), "bdxc_register_bdxc_notifications")
SCENARIO_FORWARD(uint32_t, bdxc_register_efp_notifications,
                 (bdxc_connection_t * connection, uint32_t zero, const bdxc_subscription_t *record),
                 (connection, zero, record), "bdxc_register_efp_notifications")

namespace {

// What each thread does when nothing fails, up to its first wait.
const std::map<role, journal> undisturbed = {
    {caller,
     {"l2fib_debug_init 0x10 0x20 0x30", "pthread_mutex_init recursive", "pthread_create default",
      "pthread_create default"}},
    {cache,
     {"begin 1 1", "event_manager_create 0 /dev/l2fib_mac_cache 12 0", "bdxc_process_connect",
      "bdxc_register_bdxc_notifications", "bdxc_register_efp_notifications", "l2fm_edm_table_init locked",
      "cache_evm_cb 1", "event_callback_attach", "event_message_attach", "msg_chan_attach 1",
      "trace 1945 l2fib_mac_cache_thread_init 0", "set_thread_name Mac-Edm-Cache-Thread 1", "event_block"}},
    {edm,
     {"begin 1 1", "event_manager_create 0 /dev/l2fib_mac_edm 12 0", "l2fib_hw_mac_addr_edm_fn_init",
      "l2fib_action_mac_edm_fn_init", "l2fib_show_mac_edm_optree_init mac-", "l2fib_action_mac_edm_init",
      "trace 1944 l2fib_mac_edm_thread_init 0", "set_thread_name Mac-Edm-Thread 1", "event_block"}}};

struct failing_step {
    fault step;
    journal consequences; // what the thread still does; empty: it goes on as if nothing had failed
    uint32_t status = 0;  // of the start
    uint32_t threads = 2; // how many begin
};

bool ends(const journal &entries)
{
    return !entries.empty() && entries.back() == "end";
}

// The thread's undisturbed entries up to the failing step, then the consequences.
journal expected_of(const failing_step &row, role who)
{
    journal entries = undisturbed.at(who);
    if (row.step.who == who && !row.consequences.empty()) {
        int nth = row.step.nth;
        const auto failed = std::find_if(entries.begin(), entries.end(), [&](const std::string &entry) {
            return entry.starts_with(row.step.function) && --nth == 0;
        });
        EXPECT_NE(failed, entries.end()) << row.step.function;
        entries.erase(failed + 1, entries.end());
        entries.insert(entries.end(), row.consequences.begin(), row.consequences.end());
    }
    return entries;
}

void check_failing_step(const failing_step &row)
{
    SCOPED_TRACE(row.step.function);
    the.faults = {row.step};
    EXPECT_EQ(start_module(silent_callbacks()), row.status);
    EXPECT_EQ(take_journal(caller), expected_of(row, caller));
    ASSERT_EQ(the.threads.size(), row.threads);
    EXPECT_TRUE(row.threads == 0 || (is_blocked(SIGRTMIN + 6) && is_blocked(SIGRTMIN + 10)));
    for (uint32_t who = cache; who < row.threads; who++) {
        const journal expected = expected_of(row, role(who));
        EXPECT_EQ(take_journal(role(who), expected.size()), expected);
    }
    const bool failed_before_serving = ends(row.consequences) && row.step.function != std::string("event_block");
    EXPECT_EQ(conn != 0, row.threads != 0 && !(failed_before_serving && row.step.who == cache));
    if (row.status != 0 || failed_before_serving) {
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, nullptr), EDM_ERR_INVALID_ARGS);
        EXPECT_EQ(take_journal(caller), journal());
    }
    stop_module();
}

journal init_traces(int status)
{
    return {words("trace 1951 l2fib_mac_edm_lwm_init", status), words("trace 1951 l2fib_mac_edm_init", status)};
}

journal last_trace(int id, role who, int status)
{
    return {words("trace", id, who == cache ? "l2fib_mac_cache_thread_init" : "l2fib_mac_edm_thread_init", status),
            "end"};
}

journal unsubscribed(int status)
{
    return {words("trace 1923 l2fib_mac_edm_bdxc_register", status), "bdxc_process_disconnect",
            words("trace 1931 l2fib_mac_cache_thread_init", status), "end"};
}

TEST(Startup, RunsItsStepsAndLeavesWhatItDidBeforeAFailure)
{
    constexpr uint64_t failed = UINT64_MAX;
    const std::string waiting = undisturbed.at(edm).back();
    const failing_step rows[] = {
        {{}, {}},
        {{caller, "l2fib_debug_init", 7}, {"trace 1951 l2fib_mac_edm_init 7"}, 7, 0},
        {{caller, "pthread_mutex_init", 11}, init_traces(11), 11, 0},
        {{caller, "pthread_create", 11}, init_traces(11), 11, 0},
        {{caller, "pthread_create", 12, 0, 2}, init_traces(12), 12, 1},
        {{cache, "event_manager_create"}, {"end"}},
        {{cache, "bdxc_process_connect", 3},
         {"trace 1924 l2fib_mac_edm_bdxc_register 3", last_trace(1931, cache, 3)[0], "end"}},
        {{cache, "bdxc_register_bdxc_notifications", 4}, unsubscribed(4)},
        {{cache, "bdxc_register_efp_notifications", 5}, unsubscribed(5)},
        {{cache, "l2fm_edm_table_init", 6}, last_trace(1931, cache, 6)},
        {{cache, "event_callback_attach", 7}, last_trace(1931, cache, 7)},
        {{cache, "event_message_attach", 8}, last_trace(1931, cache, 8)},
        {{cache, "msg_chan_attach", 9}, last_trace(1932, cache, 9)},
        {{cache, "event_block", failed, EINTR}, {waiting}},
        {{cache, "event_block", failed, EIO}, {"end"}},
        {{edm, "event_manager_create"}, {"end"}},
        {{edm, "l2fib_hw_mac_addr_edm_fn_init", 1}, {}},
        {{edm, "l2fib_action_mac_edm_fn_init", 2}, {}},
        {{edm, "l2fib_show_mac_edm_optree_init", 3}, last_trace(1925, edm, 3)},
        {{edm, "l2fib_action_mac_edm_init", 4}, last_trace(1925, edm, 4)},
        {{edm, "event_block", failed, EAGAIN}, {waiting}},
        {{edm, "event_block", failed, EBADF}, {"end"}},
    };
    for (const failing_step &row : rows) {
        in_own_process([&row] { check_failing_step(row); });
    }
}

// ---- Arguments and callbacks ----

TEST(Startup, RefusesMissingArgumentsAndCallbacks)
{
    in_own_process([] {
        const l2fib_mac_edm_pd_cb_t good = silent_callbacks();
        auto *const evm = handle_of<event_manager_t>(1);
        auto *const channel = handle_of<msg_chan_t>(2);
        auto *const handle = handle_of<void>(3);
        const journal trace = {words("trace 1951 l2fib_mac_edm_init", EDM_ERR_INVALID_ARGS)};
        const auto refused = [](uint32_t status, const journal &expected) {
            EXPECT_EQ(status, EDM_ERR_INVALID_ARGS);
            EXPECT_EQ(take_journal(caller), expected);
        };
        refused(l2fib_mac_edm_init(nullptr, handle, channel, &good), trace);
        refused(l2fib_mac_edm_init(evm, nullptr, channel, &good), trace);
        refused(l2fib_mac_edm_init(evm, handle, nullptr, &good), trace);
        refused(l2fib_mac_edm_init(evm, handle, channel, nullptr), trace);
        refused(l2fib_mac_edm_lwm_init(nullptr, channel, handle), {});
        refused(l2fib_mac_edm_lwm_init(evm, nullptr, handle), {});
        refused(l2fib_mac_edm_lwm_init(evm, channel, nullptr), {});
        refused(l2fib_mac_edm_init_pd_cb(nullptr), {});

        l2fib_mac_edm_pd_cb_t stored = good;
        stored.none9 = good.cb4;
        ASSERT_EQ(l2fib_mac_edm_init_pd_cb(&stored), 0u);
        for (size_t slot = 0; slot < EDM_PD_CB_REQUIRED_SLOTS; slot++) {
            l2fib_mac_edm_pd_cb_t lacking = good;
            std::memset(reinterpret_cast<char *>(&lacking) + slot * sizeof(void *), 0, sizeof(void *));
            refused(start_module(lacking), {undisturbed.at(caller)[0]});
        }
        EXPECT_EQ(std::memcmp(&hw_edm_pd_cb, &good, sizeof(good)), 0) << "slot 9 is never stored";
    });
}

TEST(Startup, TakesTheWaitTimeFromThePlatform)
{
    struct row {
        uint32_t (*capabilities_cb)(uint16_t *);
        uint32_t status;
        uint16_t wait_time;
    };
    const row rows[] = {
        {nullptr, 0, 120},
        {[](uint16_t *wait_time) { return *wait_time == 120 ? (*wait_time = 30, 0u) : 1u; }, 0, 30},
        {[](uint16_t *) { return 5u; }, 5, 120},
    };
    for (const row &each : rows) {
        in_own_process([&each] {
            l2fib_mac_edm_pd_cb_t callbacks = silent_callbacks();
            callbacks.capabilities_cb = each.capabilities_cb;
            EXPECT_EQ(start_module(callbacks), each.status);
            EXPECT_EQ(l2fib_mac_edm_capabilities, each.wait_time);
            EXPECT_EQ(the.threads.size(), each.status == 0 ? 2u : 0u);
            if (each.status != 0) {
                EXPECT_EQ(take_journal(caller).back(), "trace 1951 l2fib_mac_edm_init 5");
            }
            for (uint32_t who = cache; who < the.threads.size(); who++) {
                take_journal(role(who), undisturbed.at(role(who)).size());
            }
            stop_module();
        });
    }
}

TEST(Startup, KeepsTheLimitCellOfThePlatform)
{
    uint32_t cell = 0;
    EXPECT_EQ(l2fib_mac_edm_defn_init(&cell, 77), 0u);
    EXPECT_EQ(l2fib_mac_edm_defn_init(nullptr, 78), EDM_ERR_INVALID_ARGS);
    EXPECT_EQ(hw_edm_pool, &cell);
    EXPECT_EQ(cell, 77u);
}

} // namespace
