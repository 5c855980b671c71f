// SPDX-License-Identifier: Apache-2.0

// The module's two threads: what each sets up, and the event loop that both run.
//
//   Mac-Edm-Cache-Thread  creates the table, tells the platform so, and then serves removals, resync requests and
//                         whatever the platform attaches to `l2fib_mac_cache_evm`.
//   Mac-Edm-Thread        registers the handlers with the operational database and then serves its requests.
//
// They start independently of each other. A thread whose set-up fails ends there and leaves what it has done; the other
// is not told. The module reports nothing beyond the trace point: `conn` and `resync_ready` stay unset, and with either
// unset every resync is refused.
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

constexpr uint32_t receive_buffer_size = 128;

// Names the calling thread and serves its manager until that serves no more.
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

// Makes the calling thread's manager and stores it in `cell`, where others may look.
event_manager_t *create_event_manager(const char *path, event_manager_t *&cell)
{
    event_manager_t *evm = event_manager_create(0, path, EVENT_MANAGER_DEPTH, 0);
    publish(cell, evm);
    return evm;
}

// ---- Mac-Edm-Cache-Thread ----

uint32_t l2fib_mac_cache_evt_cb(void *, void *)
{
    return 1;
}

// Under the lock, since Mac-Edm-Thread may be serving requests already.
uint32_t create_table()
{
    const scoped_lock lock;
    return l2fm_edm_table_init();
}

uint32_t attach_to_cache_thread(event_manager_t *evm)
{
    // The library keeps the record.
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

// `conn` is set at once and whole, since the other thread looks at it.
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
    event_manager_t *evm = create_event_manager("/dev/l2fib_mac_cache", l2fib_mac_cache_evm);
    if (evm == nullptr || hw_edm_evm == nullptr) {
        return nullptr;
    }
    if (const uint32_t status = set_up_cache_thread(evm); status != 0) {
        EDM_TRACE(1931, status);
        return nullptr;
    }
    if (const uint32_t status = connect_to_cache_thread(evm); status != 0) {
        EDM_TRACE(1932, status);
        return nullptr;
    }
    EDM_TRACE(1945, 0);
    serve_events(evm, "Mac-Edm-Cache-Thread");
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
    // Without them requests find no handler, which the database answers for itself.
    l2fib_hw_mac_addr_edm_fn_init();
    l2fib_action_mac_edm_fn_init(&l2fib_mac_edm_action_fns);
    if (const uint32_t status = l2fib_show_mac_edm_optree_init(evm, "mac-"); status != 0) {
        return status;
    }
    return l2fib_action_mac_edm_init(evm);
}

void *l2fib_mac_edm_thread_init(void *)
{
    event_manager_t *evm = create_event_manager("/dev/l2fib_mac_edm", l2fib_mac_edm_evm);
    if (evm == nullptr || hw_edm_evm == nullptr || edm_handle == nullptr) {
        return nullptr;
    }
    if (const uint32_t status = register_services(evm); status != 0) {
        EDM_TRACE(1925, status);
        return nullptr;
    }
    publish(resync_ready, edm_handle);
    EDM_TRACE(1944, 0);
    serve_events(evm, "Mac-Edm-Thread");
    return nullptr;
}

// ---- Creation of both ----

// Blocks, in the calling thread and those it creates, the signals that are not for the module's threads.
void block_signals()
{
    sigset_t signals;
    if (sigemptyset(&signals) != 0 || sigaddset(&signals, SIGRTMIN + 6) != 0 || sigaddset(&signals, SIGRTMIN + 10) != 0
        || pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) {
        std::abort();
    }
}

// Nobody waits for the thread to end.
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
        EDM_TRACE(1951, status);
    }
    return status;
}
