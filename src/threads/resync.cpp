// SPDX-License-Identifier: Apache-2.0

#include "threads/resync.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <iterator>

#include "frame/module.h"
#include "l2fib_mac_edm.h"
#include "l2fm_edm_table.h"
#include "platform/bounded_copy.h"
#include "platform/message.h"
#include "table/shared_cell.h"
#include "table/trace_point.h"
#include "threads/lock.h"

namespace edm {
namespace {

// The database waits this many seconds longer than the send, so that the handler has time to answer after a time-out.
constexpr uint32_t request_timeout_margin = 5;

// The statuses with which the cache thread itself completes a request.
constexpr uint32_t status_action_done = EDM_RESYNC_STATUS_FAILED + 1;
constexpr uint32_t status_unknown_request = status_action_done + 1;

// Indexed by the status with which a resync is completed.
constexpr uint32_t reply_codes[] = {EDM_REPLY_DONE, EDM_REPLY_DONE_1, EDM_REPLY_FAILED, EDM_REPLY_ACTION_DONE};

constexpr uint32_t reply_code_of(uint32_t status)
{
    return status < std::size(reply_codes) ? reply_codes[status] : EDM_REPLY_UNKNOWN;
}

// Makes a request of a type, or a reply with a code.
l2fib_mac_edm_resync_msg_t make_message(uint32_t type_or_code, uint32_t arg)
{
    l2fib_mac_edm_resync_msg_t message{};
    message.msg_type = static_cast<uint16_t>(EDM_MSG_TYPE_BASE + type_or_code);
    message.msg_class = EDM_MSG_CLASS;
    message.msg_arg = arg;
    return message;
}

// ---- The requester ----

constexpr const char *requester = "l2fib_mac_edm_thread_send_resync";

// Sends a request and waits for the reply. Returns 0, or the error number of the send ORed with EDM_RESYNC_SEND_ERROR.
uint32_t exchange(uint32_t connection, const l2fib_mac_edm_resync_msg_t &message, l2fib_mac_edm_resync_msg_t &reply,
                  optree_request_t *request)
{
    const uint32_t wait_time = l2fib_mac_edm_capabilities;
    msg_set_send_timeout(connection, wait_time);
    if (request != nullptr) {
        optree_restart_timeout_edm(request, wait_time + request_timeout_margin);
    }
    if (msg_send(connection, &message, sizeof(message), &reply, sizeof(reply)) == -1) {
        return static_cast<uint32_t>(errno) | EDM_RESYNC_SEND_ERROR;
    }
    if (request != nullptr) {
        optree_restart_timeout_edm(request, 0);
    }
    return 0;
}

// Reads each counter by itself and without the lock. The six values may be of different moments.
void trace_counters(uint32_t id)
{
    l2fm_edm_mac_pool_t *counters = l2fm_edm_table_mac_get_pool();
    EDM_TRACE_AS(requester, id, peek(counters->mac_cnt_sum), peek(counters->mac_cnt_plain),
                 peek(counters->mac_cnt_static), peek(counters->mac_cnt_local), peek(counters->bd_cnt),
                 peek(counters->bp_cnt));
}

uint32_t result_of_reply(uint32_t code)
{
    switch (code) {
    case EDM_REPLY_DONE: trace_counters(EDM_TRACE_RESYNC_DONE); return 0;
    case EDM_REPLY_DONE_1: trace_counters(EDM_TRACE_RESYNC_DONE_1); return 0;
    case EDM_REPLY_FAILED: EDM_TRACE_AS(requester, EDM_TRACE_RESYNC_FAILED); return EDM_ERR_RESYNC;
    case EDM_REPLY_ACTION_DONE: return 0;
    default: EDM_TRACE_AS(requester, EDM_TRACE_RESYNC_UNKNOWN_REPLY, EDM_ERR_INVALID_ARGS); return EDM_ERR_INVALID_ARGS;
    }
}

// ---- The cache thread ----

// Stores how many bytes of the client's message were received. Refuses a message that did not arrive complete.
uint32_t received_length(uint32_t client, uint64_t &length)
{
    uint64_t sent = 0;
    if (msg_get_clinfo_m_msglen(client, &length) != 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    if (const uint32_t status = msg_get_clinfo_m_srcmsglen(client, &sent); status != 0) {
        return status;
    }
    return length == sent ? 0 : EDM_ERR_INVALID_ARGS;
}

// Copies a message. Other programs may send to the channel, so a message shorter than a request is filled with zeros.
l2fib_mac_edm_resync_msg_t request_of(const void *bytes, uint64_t length)
{
    l2fib_mac_edm_resync_msg_t request{};
    memcpy_s(&request, sizeof(request), bytes, std::min<uint64_t>(length, sizeof(request)));
    return request;
}

// Calls the platform for a request. Returns false for an unknown request, and if the threads were started without
// callbacks.
bool call_platform(const l2fib_mac_edm_resync_msg_t &request)
{
    const l2fib_mac_edm_pd_cb_t &platform = hw_edm_pd_cb;
    if (platform.resync_all_cb == nullptr) {
        return false;
    }
    switch (request.msg_type & EDM_MSG_TYPE_MASK) {
    case EDM_RESYNC_ALL: platform.resync_all_cb(); return true;
    case EDM_RESYNC_BD: platform.resync_bd_cb(static_cast<uint16_t>(request.msg_arg)); return true;
    case EDM_RESYNC_BP: platform.resync_bp_cb(request.msg_arg); return true;
    case EDM_RESYNC_ACTION:
        platform.action_cb();
        l2fib_mac_edm_resync_complete(status_action_done);
        return true;
    default: return false;
    }
}

// Releases a held requester. Traces a failure in the name of `function`.
uint32_t release_requester(uint32_t client, const char *function)
{
    const uint32_t status = msg_clinfo_unhold(client);
    if (status != 0) {
        EDM_TRACE_AS(function, EDM_TRACE_REQUESTER_NOT_RELEASED, status);
    }
    return status;
}

} // namespace

void l2fib_mac_cache_thread_hdlr(const event_message_t *event)
{
    if (event == nullptr) {
        return;
    }
    const uint32_t hold_status = msg_clinfo_hold(event->client);
    publish(current_lwm_clinfo, event->client);
    if (hold_status != 0) {
        EDM_TRACE(EDM_TRACE_RESYNC_NOT_SERVED, hold_status);
    }
    uint64_t length = 0;
    if (const uint32_t status = received_length(event->client, length); status != 0) {
        EDM_TRACE(EDM_TRACE_RESYNC_NOT_SERVED, status);
        release_requester(event->client, __func__);
        return;
    }
    if (!call_platform(request_of(event->bytes, length))) {
        l2fib_mac_edm_resync_complete(status_unknown_request);
        EDM_TRACE(EDM_TRACE_RESYNC_NOT_SERVED, EDM_ERR_INVALID_ARGS);
    }
}

uint32_t l2fib_mac_edm_action_cb(optree_request_t *request)
{
    return l2fib_mac_edm_thread_send_resync(EDM_RESYNC_ACTION, 0, request);
}

} // namespace edm

uint32_t l2fib_mac_edm_thread_send_resync(uint32_t type, uint32_t arg, optree_request_t *request)
{
    // The platform's resync feeds the table and takes the lock: a caller that holds it would wait for itself.
    assert(edm::table_lock_depth() == 0);
    const uint32_t connection = edm::acquire(conn);
    if (edm::acquire(edm::resync_ready) == nullptr || connection == 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    if (type < EDM_RESYNC_ALL || type > EDM_RESYNC_ACTION) {
        EDM_TRACE(EDM_TRACE_RESYNC_NOT_SENT, EDM_ERR_INVALID_ARGS);
        return EDM_ERR_INVALID_ARGS;
    }
    const bool has_scope = type == EDM_RESYNC_BD || type == EDM_RESYNC_BP;
    const l2fib_mac_edm_resync_msg_t message = edm::make_message(type, has_scope ? arg : 0);
    l2fib_mac_edm_resync_msg_t reply{};
    if (const uint32_t status = edm::exchange(connection, message, reply, request); status != 0) {
        EDM_TRACE(EDM_TRACE_RESYNC_NOT_SENT, status);
        return status;
    }
    return edm::result_of_reply(reply.msg_type & EDM_MSG_TYPE_MASK);
}

uint32_t l2fib_mac_edm_resync_complete(uint32_t status)
{
    const l2fib_mac_edm_resync_msg_t reply = edm::make_message(edm::reply_code_of(status), 0);
    // Read before the reply: once the requester has its answer, it may ask again and replace the held client.
    const uint32_t client = edm::acquire(current_lwm_clinfo);
    const uint32_t reply_status = msg_reply(client, 0, &reply, sizeof(reply));
    if (reply_status != 0) {
        EDM_TRACE(EDM_TRACE_RESYNC_NOT_SERVED, reply_status);
    }
    return edm::release_requester(client, __func__);
}
