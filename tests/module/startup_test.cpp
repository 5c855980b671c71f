// SPDX-License-Identifier: Apache-2.0

// The start of the module: what runs afterwards, and what is left when a step fails.
#include "tests/support/module_scenario.h"

#include <cstring>

using namespace scenario;

SCENARIO_FORWARD(uint32_t, l2fib_debug_init, (void *evm, void *handle, void *channel, const void *pd_cb),
                 (evm, handle, channel, pd_cb), words("l2fib_debug_init", evm, handle, channel))
SCENARIO_FORWARD(event_manager_t *, event_manager_create, (uint32_t a, const char *path, uint32_t depth, uint32_t b),
                 (a, path, depth, b), "")
SCENARIO_FORWARD(uint32_t, event_callback_attach, (event_manager_t * evm, const event_callback_record_t *record),
                 (evm, record), "")
SCENARIO_FORWARD(uint32_t, event_message_attach,
                 (event_manager_t * evm, const event_message_filter_t *filter, event_message_fn handler, uint32_t zero),
                 (evm, filter, handler, zero), "")
SCENARIO_FORWARD(int, event_block, (event_record_t * record), (record), "serves")
SCENARIO_FORWARD(uint32_t, msg_chan_attach, (msg_chan_t * channel, uint32_t zero, uint32_t *connection),
                 (channel, zero, connection), "")
SCENARIO_FORWARD(uint32_t, l2fib_hw_mac_addr_edm_fn_init, (void), (), "")
SCENARIO_FORWARD(uint32_t, l2fib_action_mac_edm_fn_init, (const l2fib_action_table_t *table), (table), "")
SCENARIO_FORWARD(uint32_t, l2fib_show_mac_edm_optree_init, (event_manager_t * evm, const char *prefix), (evm, prefix),
                 words("paths", prefix))
SCENARIO_FORWARD(uint32_t, l2fib_action_mac_edm_init, (event_manager_t * evm), (evm), "")
SCENARIO_FORWARD(uint32_t, l2fm_edm_table_init, (void), (), words("table created", lock_state()))
SCENARIO_FORWARD(uint32_t, bdxc_process_connect, (event_manager_t * evm, uint32_t zero, bdxc_connection_t **connection),
                 (evm, zero, connection), "")
SCENARIO_FORWARD(uint32_t, bdxc_process_disconnect, (bdxc_connection_t * connection), (connection), "disconnected")
SCENARIO_FORWARD(uint32_t, bdxc_register_bdxc_notifications,
                 (bdxc_connection_t * connection, uint32_t zero, const bdxc_subscription_t *record),
                 (connection, zero, record), "")
SCENARIO_FORWARD(uint32_t, bdxc_register_efp_notifications,
                 (bdxc_connection_t * connection, uint32_t zero, const bdxc_subscription_t *record),
                 (connection, zero, record), "")

namespace {

const std::string created = "table created locked";
const std::string paths = "paths mac-";
const std::string cache_ready = "trace 1945 l2fib_mac_cache_thread_init 0";
const std::string edm_ready = "trace 1944 l2fib_mac_edm_thread_init 0";
const std::string begins = "l2fib_debug_init 0x10 0x20 0x30";

// What each thread does if nothing fails.
const std::map<role, journal> undisturbed = {
    {caller, {begins}}, {cache, {created, cache_ready, "serves"}}, {edm, {paths, edm_ready, "serves"}}};

struct failing_step {
    fault step;
    journal entries;      // of the failing thread; empty: those of an undisturbed one
    uint32_t status = 0;  // of the start
    uint32_t threads = 2; // how many begin
};

void check_failing_step(const failing_step &row)
{
    SCOPED_TRACE(row.step.function);
    the.failing = row.step;
    EXPECT_EQ(start_module(noted_callbacks()), row.status);
    ASSERT_EQ(the.threads.size(), row.threads);
    const auto entries_of = [&](role who) {
        return row.step.who == who && !row.entries.empty() ? row.entries : undisturbed.at(who);
    };
    expect(caller, entries_of(caller));
    bool serve = row.status == 0;
    for (uint32_t who = cache; who < row.threads; who++) {
        const journal entries = entries_of(role(who));
        expect(role(who), entries);
        serve = serve && std::count(entries.begin(), entries.end(), "serves") != 0;
    }
    if (!serve) {
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, nullptr), EDM_ERR_INVALID_ARGS);
        expect(caller, {});
    }
    EXPECT_TRUE(row.threads == 0 || (is_blocked(SIGRTMIN + 6) && is_blocked(SIGRTMIN + 10)));
    stop_module();
}

// A failure of the start, of either thread, and of a subscription. Each traces the status.
journal start_failed(int status)
{
    return {begins, words("trace 1951 l2fib_mac_edm_lwm_init", status), words("trace 1951 l2fib_mac_edm_init", status)};
}

journal cache_ended(int status, journal before = {created}, int id = 1931)
{
    before.push_back(words("trace", id, "l2fib_mac_cache_thread_init", status));
    before.emplace_back("end");
    return before;
}

journal edm_ended(int status)
{
    return {paths, words("trace 1925 l2fib_mac_edm_thread_init", status), "end"};
}

journal unsubscribed(int status)
{
    return cache_ended(status, {words("trace 1923 l2fib_mac_edm_bdxc_register", status), "disconnected"});
}

TEST(Startup, LeavesWhatItDidBeforeAFailure)
{
    constexpr uint64_t failed = UINT64_MAX;
    const failing_step rows[] = {
        {{}, {}},
        {{caller, "l2fib_debug_init", 7}, {begins, "trace 1951 l2fib_mac_edm_init 7"}, 7, 0},
        {{caller, "pthread_mutex_init", 11}, start_failed(11), 11, 0},
        {{caller, "pthread_create", 11}, start_failed(11), 11, 0},
        {{caller, "pthread_create", 12, 0, 2}, start_failed(12), 12, 1},
        {{cache, "event_manager_create"}, {"end"}},
        {{cache, "bdxc_process_connect", 3}, cache_ended(3, {"trace 1924 l2fib_mac_edm_bdxc_register 3"})},
        {{cache, "bdxc_register_bdxc_notifications", 4}, unsubscribed(4)},
        {{cache, "bdxc_register_efp_notifications", 5}, unsubscribed(5)},
        {{cache, "l2fm_edm_table_init", 6}, cache_ended(6)},
        {{cache, "event_callback_attach", 7}, cache_ended(7)},
        {{cache, "event_message_attach", 8}, cache_ended(8)},
        {{cache, "msg_chan_attach", 9}, cache_ended(9, {created}, 1932)},
        {{cache, "event_block", failed, EINTR}, {created, cache_ready, "serves", "serves"}},
        {{cache, "event_block", failed, EIO}, {created, cache_ready, "serves", "end"}},
        {{edm, "event_manager_create"}, {"end"}},
        {{edm, "l2fib_hw_mac_addr_edm_fn_init", 1}, {}},
        {{edm, "l2fib_action_mac_edm_fn_init", 2}, {}},
        {{edm, "l2fib_show_mac_edm_optree_init", 3}, edm_ended(3)},
        {{edm, "l2fib_action_mac_edm_init", 4}, edm_ended(4)},
        {{edm, "event_block", failed, EAGAIN}, {paths, edm_ready, "serves", "serves"}},
        {{edm, "event_block", failed, EBADF}, {paths, edm_ready, "serves", "end"}},
    };
    for (const failing_step &row : rows) {
        in_own_process([&row] { check_failing_step(row); });
    }
}

TEST(Startup, NamesItsThreads)
{
    in_own_process([] {
        ASSERT_EQ(start_module(noted_callbacks()), 0u);
        expect(cache, undisturbed.at(cache));
        expect(edm, undisturbed.at(edm));
        for (const auto &[who, expected] : {std::pair(cache, "Mac-Edm-Cache-T"), std::pair(edm, "Mac-Edm-Thread")}) {
            char name[16];
            pthread_getname_np(the.threads.at(who), name, sizeof(name));
            EXPECT_STREQ(name, expected);
        }
        stop_module();
    });
}

TEST(Startup, RefusesMissingArgumentsAndCallbacks)
{
    in_own_process([] {
        const l2fib_mac_edm_pd_cb_t good = noted_callbacks();
        const auto refused = [](uint32_t status, const journal &expected) {
            EXPECT_EQ(status, EDM_ERR_INVALID_ARGS);
            expect(caller, expected);
        };
        for (int missing = 0; missing < 4; missing++) {
            auto *const evm = handle_of<event_manager_t>(missing == 0 ? 0 : 1);
            auto *const handle = handle_of<void>(missing == 1 ? 0 : 2);
            auto *const channel = handle_of<msg_chan_t>(missing == 2 ? 0 : 3);
            refused(l2fib_mac_edm_init(evm, handle, channel, missing == 3 ? nullptr : &good),
                    {words("trace 1951 l2fib_mac_edm_init", EDM_ERR_INVALID_ARGS)});
            if (missing != 3) {
                refused(l2fib_mac_edm_lwm_init(evm, channel, handle), {});
            }
        }
        refused(l2fib_mac_edm_init_pd_cb(nullptr), {});

        l2fib_mac_edm_pd_cb_t stored = good;
        stored.none9 = good.cb4;
        ASSERT_EQ(l2fib_mac_edm_init_pd_cb(&stored), 0u);
        for (size_t slot = 0; slot < EDM_PD_CB_REQUIRED_SLOTS; slot++) {
            l2fib_mac_edm_pd_cb_t lacking = good;
            std::memset(reinterpret_cast<char *>(&lacking) + slot * sizeof(void *), 0, sizeof(void *));
            refused(start_module(lacking), {begins});
        }
        EXPECT_EQ(std::memcmp(&hw_edm_pd_cb, &good, sizeof(good)), 0) << "slot 9 is never stored";
        EXPECT_TRUE(the.threads.empty());
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
            l2fib_mac_edm_pd_cb_t callbacks = noted_callbacks();
            callbacks.capabilities_cb = each.capabilities_cb;
            EXPECT_EQ(start_module(callbacks), each.status);
            EXPECT_EQ(l2fib_mac_edm_capabilities, each.wait_time);
            EXPECT_EQ(the.threads.size(), each.status == 0 ? 2u : 0u);
            for (uint32_t who = cache; who < the.threads.size(); who++) {
                expect(role(who), undisturbed.at(role(who)));
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
