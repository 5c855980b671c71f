// SPDX-License-Identifier: Apache-2.0

// The start of the module: what runs afterwards, and what is left when a step fails.
#include "table/shared_cell.h"
#include "tests/support/module/module_scenario.h"

#include <cstring>

#include "platform/notification.h"

using namespace scenario;

static int block_error = 0; // of a refused wait

static uint32_t refuse_table()
{
    EXPECT_TRUE(is_table_locked());
    return refusal;
}

INTERPOSE(uint32_t, l2fib_debug_init, (void *evm, void *handle, void *channel, const void *callbacks),
          (evm, handle, channel, callbacks), refusal)
INTERPOSE(uint32_t, event_callback_attach, (event_manager_t * evm, const event_callback_record_t *record),
          (evm, record), refusal)
INTERPOSE(uint32_t, event_message_attach,
          (event_manager_t * evm, const event_message_filter_t *filter, event_message_fn handler, uint32_t zero),
          (evm, filter, handler, zero), refusal)
INTERPOSE(uint32_t, msg_chan_attach, (msg_chan_t * channel, uint32_t zero, uint32_t *connection),
          (channel, zero, connection), refusal)
INTERPOSE(uint32_t, l2fib_hw_mac_addr_edm_fn_init, (void), (), refusal)
INTERPOSE(uint32_t, l2fib_action_mac_edm_fn_init, (const l2fib_action_table_t *table), (table), refusal)
INTERPOSE(uint32_t, l2fib_show_mac_edm_optree_init, (event_manager_t * evm, const char *prefix), (evm, prefix), refusal)
INTERPOSE(uint32_t, l2fib_action_mac_edm_init, (event_manager_t * evm), (evm), refusal)
INTERPOSE(uint32_t, l2fm_edm_table_init, (void), (), refuse_table())
INTERPOSE(uint32_t, bdxc_process_connect, (event_manager_t * evm, uint32_t zero, bdxc_connection_t **connection),
          (evm, zero, connection), refusal)
INTERPOSE(uint32_t, bdxc_process_disconnect, (bdxc_connection_t * connection), (connection), refusal)
INTERPOSE(uint32_t, bdxc_register_bdxc_notifications,
          (bdxc_connection_t * connection, uint32_t zero, const bdxc_subscription_t *record),
          (connection, zero, record), refusal)
INTERPOSE(uint32_t, bdxc_register_efp_notifications,
          (bdxc_connection_t * connection, uint32_t zero, const bdxc_subscription_t *record),
          (connection, zero, record), refusal)
INTERPOSE_OPERATION(cache_create)
INTERPOSE_OPERATION(edm_create)
INTERPOSE_OPERATION(cache_block)
INTERPOSE_OPERATION(edm_block)

extern "C" event_manager_t *event_manager_create(uint32_t a, const char *path, uint32_t depth, uint32_t b)
{
    auto &operation = path == std::string(EDM_CACHE_THREAD_PATH) ? interpose::cache_create : interpose::edm_create;
    return operation.meet() ? nullptr : INTERPOSE_HIDDEN(event_manager_create)(a, path, depth, b);
}

extern "C" int event_block(event_record_t *record)
{
    auto &operation = record->evm == edm::acquire(l2fib_mac_cache_evm) ? interpose::cache_block : interpose::edm_block;
    if (operation.meet()) {
        errno = block_error;
        return -1;
    }
    return INTERPOSE_HIDDEN(event_block)(record);
}

namespace {

using state = host::event_manager_state;
constexpr state serving = state::serving, ended = state::ended;
constexpr state missing = state::timed_out; // the thread has no manager, or there is no thread

struct failing_step {
    interpose::operation &operation;
    uint64_t nth;
    uint32_t status; // of the start
    uint32_t threads;
    state cache, edm;
    const char *traces;
    int error = 0; // of a refused wait
};

void check_failing_step(const failing_step &row)
{
    block_error = row.error;
    row.operation.refuse(row.nth);
    EXPECT_EQ(start_module(silent_callbacks()), row.status);
    EXPECT_EQ(threads.size(), row.threads);
    EXPECT_TRUE(threads.empty() || are_signals_blocked());
    for (const auto &[path, expected] :
         {std::pair(EDM_CACHE_THREAD_PATH, row.cache), {EDM_REQUEST_THREAD_PATH, row.edm}}) {
        EXPECT_TRUE(expected == missing || host::event_manager_wait(path, 30) == expected) << path;
    }
    if (row.error == 0 && (row.cache != serving || row.edm != serving)) {
        EXPECT_EQ(l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ALL, 0, nullptr), EDM_ERR_INVALID_ARGS);
    }
    stop_module();
    EXPECT_EQ(small_table::take_traces(), row.traces);
    const bool is_half_subscribed = &row.operation == &interpose::bdxc_register_bdxc_notifications
                                    || &row.operation == &interpose::bdxc_register_efp_notifications;
    EXPECT_EQ(interpose::bdxc_process_disconnect.calls, is_half_subscribed ? 1u : 0u);
}

TEST(Startup, LeavesWhatItDidBeforeAFailure)
{
    const char *const start_failed = "1951 l2fib_mac_edm_lwm_init 5; 1951 l2fib_mac_edm_init 5";
    const char *const not_subscribed = "1923 l2fib_mac_edm_bdxc_register 5; 1931 l2fib_mac_cache_thread_init 5";
    const char *const cache_ended = "1931 l2fib_mac_cache_thread_init 5";
    const char *const edm_ended = "1925 l2fib_mac_edm_thread_init 5";
    const failing_step rows[] = {
        {interpose::l2fib_debug_init, 1, 5, 0, missing, missing, "1951 l2fib_mac_edm_init 5"},
        {interpose::pthread_mutex_init, 1, 5, 0, missing, missing, start_failed},
        {interpose::pthread_create, 1, 5, 0, missing, missing, start_failed},
        {interpose::pthread_create, 2, 5, 1, serving, missing, start_failed},
        {interpose::cache_create, 1, 0, 2, missing, serving, ""},
        {interpose::bdxc_process_connect, 1, 0, 2, ended, serving,
         "1924 l2fib_mac_edm_bdxc_register 5; 1931 l2fib_mac_cache_thread_init 5"},
        {interpose::bdxc_register_bdxc_notifications, 1, 0, 2, ended, serving, not_subscribed},
        {interpose::bdxc_register_efp_notifications, 1, 0, 2, ended, serving, not_subscribed},
        {interpose::l2fm_edm_table_init, 1, 0, 2, ended, serving, cache_ended},
        {interpose::event_callback_attach, 1, 0, 2, ended, serving, cache_ended},
        {interpose::event_message_attach, 1, 0, 2, ended, serving, cache_ended},
        {interpose::msg_chan_attach, 1, 0, 2, ended, serving, "1932 l2fib_mac_cache_thread_init 5"},
        {interpose::cache_block, 1, 0, 2, serving, serving, "", EINTR},
        {interpose::cache_block, 1, 0, 2, ended, serving, "", EIO},
        {interpose::edm_create, 1, 0, 2, serving, missing, ""},
        {interpose::l2fib_hw_mac_addr_edm_fn_init, 1, 0, 2, serving, serving, ""},
        {interpose::l2fib_action_mac_edm_fn_init, 1, 0, 2, serving, serving, ""},
        {interpose::l2fib_show_mac_edm_optree_init, 1, 0, 2, serving, ended, edm_ended},
        {interpose::l2fib_action_mac_edm_init, 1, 0, 2, serving, ended, edm_ended},
        {interpose::edm_block, 1, 0, 2, serving, serving, "", EAGAIN},
        {interpose::edm_block, 1, 0, 2, serving, ended, "", EBADF},
    };
    for (const failing_step &row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - rows);
        in_own_process([&row] { check_failing_step(row); });
    }
}

TEST(Startup, RunsTwoNamedThreads)
{
    in_own_process([] {
        ASSERT_EQ(start_module(silent_callbacks()), 0u);
        for (const char *path : {EDM_CACHE_THREAD_PATH, EDM_REQUEST_THREAD_PATH}) {
            ASSERT_EQ(host::event_manager_wait(path, 30), serving);
            static std::string name;
            name.resize(16);
            const auto look = [](void *) {
                pthread_getname_np(pthread_self(), name.data(), name.size());
                EXPECT_TRUE(are_signals_blocked());
            };
            host::event_post(host::event_manager_find(path), look, nullptr, nullptr);
            test::serve_queued(host::event_manager_find(path));
            EXPECT_STREQ(name.c_str(),
                         path == std::string(EDM_CACHE_THREAD_PATH) ? "Mac-Edm-Cache-T" : "Mac-Edm-Thread");
        }
        const std::string traces = take_all_traces();
        EXPECT_NE(traces.find("1945 l2fib_mac_cache_thread_init 0; "), std::string::npos) << traces;
        EXPECT_NE(traces.find("1944 l2fib_mac_edm_thread_init 0; "), std::string::npos) << traces;
        stop_module();
    });
}

TEST(Startup, RefusesMissingArgumentsAndCallbacks)
{
    in_own_process([] {
        const l2fib_mac_edm_pd_cb_t good = silent_callbacks();
        const auto refused = [](uint32_t status, const char *traces) {
            EXPECT_EQ(status, EDM_ERR_INVALID_ARGS);
            EXPECT_EQ(small_table::take_traces(), traces);
        };
        for (int null = 0; null < 4; null++) {
            auto *const evm = handle_of<event_manager_t>(null == 0 ? 0 : 1);
            auto *const handle = handle_of<void>(null == 1 ? 0 : 2);
            auto *const channel = handle_of<msg_chan_t>(null == 2 ? 0 : 3);
            refused(l2fib_mac_edm_init(evm, handle, channel, null == 3 ? nullptr : &good),
                    "1951 l2fib_mac_edm_init INVALID_ARGS");
            if (null != 3) {
                refused(l2fib_mac_edm_lwm_init(evm, channel, handle), "");
            }
        }
        EXPECT_EQ(interpose::l2fib_debug_init.calls, 0u);
        refused(l2fib_mac_edm_init_pd_cb(nullptr), "");

        l2fib_mac_edm_pd_cb_t stored = good;
        stored.none9 = good.cb4;
        ASSERT_EQ(l2fib_mac_edm_init_pd_cb(&stored), 0u);
        for (size_t slot = 0; slot < EDM_PD_CB_REQUIRED_SLOTS; slot++) {
            l2fib_mac_edm_pd_cb_t lacking = good;
            std::memset(reinterpret_cast<char *>(&lacking) + slot * sizeof(void *), 0, sizeof(void *));
            refused(start_module(lacking), "");
        }
        EXPECT_EQ(std::memcmp(&hw_edm_pd_cb, &good, sizeof(good)), 0) << "slot 9 is never stored";
        EXPECT_TRUE(threads.empty());
    });
}

TEST(Startup, TakesTheWaitTimeFromThePlatform)
{
    const struct {
        uint32_t (*capabilities_cb)(uint16_t *);
        uint32_t status;
        uint16_t wait_time;
    } rows[] = {
        {nullptr, 0, 120},
        {[](uint16_t *wait_time) { return *wait_time == 120 ? (*wait_time = 30, 0u) : 1u; }, 0, 30},
        {[](uint16_t *) { return 5u; }, 5, 120},
    };
    for (const auto &row : rows) {
        in_own_process([&row] {
            l2fib_mac_edm_pd_cb_t callbacks = silent_callbacks();
            callbacks.capabilities_cb = row.capabilities_cb;
            EXPECT_EQ(start_module(callbacks), row.status);
            EXPECT_EQ(l2fib_mac_edm_capabilities, row.wait_time);
            EXPECT_EQ(threads.size(), row.status == 0 ? 2u : 0u);
            for (const char *path : {EDM_CACHE_THREAD_PATH, EDM_REQUEST_THREAD_PATH}) {
                host::event_manager_wait(path, row.status == 0 ? 30 : 0);
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
