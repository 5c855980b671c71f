// SPDX-License-Identifier: Apache-2.0

// The module's two threads: what each sets up, and the event loop that both run.
//
//   Mac-Edm-Cache-Thread  creates the table and calls the platform's slot 7. Then it serves removals, resync requests,
//                         and the events that the platform attaches to `l2fib_mac_cache_evm`.
//   Mac-Edm-Thread        registers the handlers with the operational database, then serves its requests.
//
// The threads start independently. If the set-up of one fails, it writes a trace point, keeps what it has set up so far
// and ends. The other one gets no sign of it, but `conn` or `resync_ready` stays unset. While either is unset, the
// module refuses every resync.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <pthread.h>

#include "frame/module.h"
#include "l2fib_mac_edm.h"
#include "l2fm_edm_table.h"
#include "platform/event.h"
#include "platform/l2fib.h"
#include "platform/message.h"
#include "platform/utility.h"
#include "table/scoped_lock.h"
#include "table/shared_cell.h"
#include "table/trace_point.h"
#include "threads/lock.h"
#include "threads/resync.h"

namespace edm {
namespace {

constexpr const char *cache_thread_name = "Mac-Edm-Cache-Thread";
constexpr const char *request_thread_name = "Mac-Edm-Thread";

// Room for a received message, in bytes. The longest message of the module is a resync request.
constexpr uint32_t receive_buffer_size = 128;
static_assert(receive_buffer_size >= sizeof(l2fib_mac_edm_resync_msg_t));

// Requests with this prefix are for the module.
constexpr const char *database_path_prefix = "mac-";

// Signals that the module's threads must not receive, as offsets from SIGRTMIN.
constexpr int blocked_signals[] = {6, 10};

// Names the calling thread and serves its manager until the manager serves no more events.
void serve_events(event_manager_t *evm, const char *thread_name)
{
    set_thread_name(thread_name, pthread_self());
    alignas(8) uint8_t buffer[receive_buffer_size];
    event_record_t record{};
    record.evm = evm;
    record.buffer = buffer;
    record.buffer_length = sizeof(buffer);
    for (;;) {
        if (event_block(&record) != -1) {
            nos_event_dispatch(&record, 0);
        } else if (errno != EINTR && errno != EAGAIN) {
            return;
        }
    }
}

// Creates the calling thread's manager and publishes it in `cell`.
event_manager_t *create_event_manager(const char *path, event_manager_t *&cell)
{
    event_manager_t *evm = event_manager_create(0, path, EVENT_MANAGER_DEPTH, 0);
    publish(cell, evm);
    return evm;
}

// ---- Mac-Edm-Cache-Thread ----

uint32_t l2fib_mac_cache_evt_cb(void *, void *)
{
    return EVENT_CALLBACK_DONE;
}

// Mac-Edm-Thread may already serve requests, so this takes the lock.
uint32_t create_table()
{
    const scoped_lock lock;
    return l2fm_edm_table_init();
}

uint32_t attach_to_cache_thread(event_manager_t *evm)
{
    // Static, because the event library keeps the record's address.
    static event_callback_record_t callbacks;
    callbacks = {};
    callbacks.tag = EVENT_CALLBACK_TAG;
    callbacks.callback = l2fib_mac_cache_evt_cb;
    if (const uint32_t status = event_callback_attach(evm, &callbacks); status != 0) {
        return status;
    }
    const event_message_filter_t filter = {EDM_MSG_FILTER_TYPE, EDM_MSG_CLASS};
    return event_message_attach(evm, &filter, l2fib_mac_cache_thread_hdlr, 0);
}

uint32_t set_up_cache_thread(event_manager_t *evm)
{
    if (const uint32_t status = l2fib_mac_edm_bdxc_register(); status != 0) {
        return status;
    }
    if (const uint32_t status = create_table(); status != 0) {
        return status;
    }
    if (hw_edm_pd_cb.cache_evm_cb != nullptr) {
        hw_edm_pd_cb.cache_evm_cb(evm);
    }
    return attach_to_cache_thread(evm);
}

// Publishes `conn` after the connection is open, because the other thread reads it at any time.
uint32_t connect_to_cache_thread(event_manager_t *evm)
{
    uint32_t connection = 0;
    const uint32_t status = msg_chan_attach(evm_get_chan(evm), 0, &connection);
    if (status == 0) {
        publish(conn, connection);
    }
    return status;
}

void *l2fib_mac_cache_thread_init(void *)
{
    event_manager_t *evm = create_event_manager(EDM_CACHE_THREAD_PATH, l2fib_mac_cache_evm);
    if (evm == nullptr || hw_edm_evm == nullptr) {
        return nullptr;
    }
    if (const uint32_t status = set_up_cache_thread(evm); status != 0) {
        EDM_TRACE(EDM_TRACE_CACHE_THREAD_ENDED, status);
        return nullptr;
    }
    if (const uint32_t status = connect_to_cache_thread(evm); status != 0) {
        EDM_TRACE(EDM_TRACE_CACHE_CHANNEL_FAILED, status);
        return nullptr;
    }
    EDM_TRACE(EDM_TRACE_CACHE_THREAD_READY, 0);
    serve_events(evm, cache_thread_name);
    return nullptr;
}

// ---- Mac-Edm-Thread ----

constexpr l2fib_action_table_t make_action_table()
{
    l2fib_action_table_t table{};
    table.action[L2FIB_ACTION_SLOT_MAC_EDM] = l2fib_mac_edm_action_cb;
    return table;
}

constexpr l2fib_action_table_t l2fib_mac_edm_action_fns = make_action_table();

uint32_t register_services(event_manager_t *evm)
{
    // The two results are ignored: if a registration fails, the database itself answers that there is no handler.
    l2fib_hw_mac_addr_edm_fn_init();
    l2fib_action_mac_edm_fn_init(&l2fib_mac_edm_action_fns);
    if (const uint32_t status = l2fib_show_mac_edm_optree_init(evm, database_path_prefix); status != 0) {
        return status;
    }
    return l2fib_action_mac_edm_init(evm);
}

void *l2fib_mac_edm_thread_init(void *)
{
    event_manager_t *evm = create_event_manager(EDM_REQUEST_THREAD_PATH, l2fib_mac_edm_evm);
    if (evm == nullptr || hw_edm_evm == nullptr || edm_handle == nullptr) {
        return nullptr;
    }
    if (const uint32_t status = register_services(evm); status != 0) {
        EDM_TRACE(EDM_TRACE_REQUEST_THREAD_ENDED, status);
        return nullptr;
    }
    publish(resync_ready, edm_handle);
    EDM_TRACE(EDM_TRACE_REQUEST_THREAD_READY, 0);
    serve_events(evm, request_thread_name);
    return nullptr;
}

// ---- Creation of both ----

// Blocks the signals in the calling thread. The threads that it creates inherit that.
void block_signals()
{
    sigset_t signals;
    bool is_done = sigemptyset(&signals) == 0;
    for (const int offset : blocked_signals) {
        is_done = is_done && sigaddset(&signals, SIGRTMIN + offset) == 0;
    }
    if (!is_done || pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) {
        std::abort();
    }
}

// Starts a thread that lives as long as the process: no other thread waits for its end.
uint32_t start_thread(void *(*body)(void *))
{
    block_signals();
    pthread_t thread;
    return static_cast<uint32_t>(pthread_create(&thread, nullptr, body, nullptr));
}

uint32_t create_lock_and_threads()
{
    if (const uint32_t status = table_lock_create(); status != 0) {
        return status;
    }
    if (const uint32_t status = start_thread(l2fib_mac_cache_thread_init); status != 0) {
        return status;
    }
    return start_thread(l2fib_mac_edm_thread_init);
}

} // namespace
} // namespace edm

uint32_t l2fib_mac_edm_lwm_init(event_manager_t *evm, msg_chan_t *lwm_chan, void *edm_handle)
{
    if (evm == nullptr || lwm_chan == nullptr || edm_handle == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    hw_edm_evm = evm;
    edm::edm_handle = edm_handle;
    hw_edm_lwm_chan = lwm_chan;
    const uint32_t status = edm::create_lock_and_threads();
    if (status != 0) {
        EDM_TRACE(EDM_TRACE_START_FAILED, status);
    }
    return status;
}
