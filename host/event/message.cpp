// SPDX-License-Identifier: Apache-2.0

// Messaging between threads of one process.
//
// The table of clients holds each message under the handle by which the receiver knows the sender. Only this handle
// travels through the receiver's event queue. The life of a message, with what removes it from the table:
//
//     queued ---> in its handler ---> held ---> released
//       |               |               |
//       |               |               `-- msg_clinfo_unhold, on any thread
//       |               `-- the return of the handler, if it did not hold the message; msg_clinfo_unhold
//       `-- the sender's time-out
//
// The end of the receiving event manager removes a message in any of these states. If the sender still waits, the
// removal wakes it with ECONNRESET. If the sender times out after the delivery, the message stays in the table, marked,
// until the receiver releases it; a reply then fails.
//
// Statuses: EINVAL for an unknown handle or connection, EALREADY for a second reply or hold, ETIMEDOUT for a reply to a
// sender that gave up.
//
// Threads. One mutex guards connections and clients; it comes before the mutex of an event manager. Handlers run
// without it. A sender sleeps on the condition variable of its own message. The sender and the table share the message,
// so it lives until both have released it. A receiver writes the sender's reply buffer under the mutex, and only while
// the sender waits.
#include "platform/message.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <vector>

#include "host/event/event_manager.h"
#include "host/handle_table.h"
#include "host/never_destroyed.h"
#include "host/out_of_memory.h"

namespace {

using deadline = std::chrono::steady_clock::time_point;

constexpr uint64_t max_message_bytes = 65536;
constexpr uint32_t default_timeout_seconds = 30; // until msg_set_send_timeout

struct connection {
    msg_chan_t *channel;
    uint32_t timeout_seconds = default_timeout_seconds;
};

struct message;

struct message_service {
    base::mutex mutex;
    host::handle_table<connection> connections L2FIB_GUARDED_BY(mutex);
    host::handle_table<std::shared_ptr<message>> clients L2FIB_GUARDED_BY(mutex);
};

message_service &service()
{
    static host::never_destroyed<message_service> the_service;
    return the_service.object;
}

enum class sender_state { waiting, answered, reset, gave_up };

struct message {
    msg_chan_t *channel = nullptr;  // set before the message is in the table
    std::vector<std::byte> request; // empty after the delivery
    const uint64_t sent_length;
    uint64_t received_length L2FIB_GUARDED_BY(service().mutex) = 0;
    void *const reply; // the sender's buffer
    const uint64_t reply_length;
    sender_state sender L2FIB_GUARDED_BY(service().mutex) = sender_state::waiting;
    bool delivered L2FIB_GUARDED_BY(service().mutex) = false;
    bool held L2FIB_GUARDED_BY(service().mutex) = false;
    std::condition_variable_any woken;

    message(const void *bytes, uint64_t length, void *reply_to, uint64_t reply_room)
        : request(static_cast<const std::byte *>(bytes), static_cast<const std::byte *>(bytes) + length)
        , sent_length(length)
        , reply(reply_to)
        , reply_length(reply_room)
    {}
};

// Returns null for an unknown client, and for a client whose message is still queued.
message *find_client(uint32_t client) L2FIB_REQUIRES(service().mutex)
{
    const std::shared_ptr<message> *const found = service().clients.find(client);
    return found != nullptr && (*found)->delivered ? found->get() : nullptr;
}

void wake_sender(message &sent, sender_state why) L2FIB_REQUIRES(service().mutex)
{
    if (sent.sender == sender_state::waiting) {
        sent.sender = why;
        sent.woken.notify_one();
    }
}

// Removes a message from the table, and wakes its sender. False for an unknown client.
bool remove_client(uint32_t client) L2FIB_REQUIRES(service().mutex)
{
    const std::shared_ptr<message> *const found = service().clients.find(client);
    if (found == nullptr) {
        return false;
    }
    wake_sender(**found, sender_state::reset);
    return service().clients.erase(client);
}

// Removes a message after its handler has returned, or when the queue drops it. A held message stays.
void finish(void *cookie)
{
    const uint32_t client = host::handle_of(cookie);
    const base::scoped_lock hold(service().mutex);
    const message *const delivered = find_client(client);
    if (delivered == nullptr || !delivered->held) {
        remove_client(client);
    }
}

struct delivery {
    event_manager_t *evm;
    event_message_filter_t start; // type and class of the message
    const void *bytes;
};

// Copies the message into the buffer of the waiting record, as far as there is room. False if the message is no longer
// in the table.
bool receive(uint32_t client, delivery &received)
{
    const base::scoped_lock hold(service().mutex);
    const std::shared_ptr<message> *const found = service().clients.find(client);
    if (found == nullptr) {
        return false;
    }
    message &sent = **found;
    const event_record_t &record = *sent.channel->evm->frame->record;
    sent.received_length = record.buffer == nullptr ? 0 : std::min(sent.sent_length, record.buffer_length);
    if (sent.received_length != 0) {
        std::memcpy(record.buffer, sent.request.data(), sent.received_length);
    }
    received = {sent.channel->evm, {}, record.buffer};
    std::memcpy(&received.start, sent.request.data(), sizeof(received.start));
    sent.request = {};
    sent.delivered = true;
    return true;
}

bool selects(const event_message_filter_t &filter, const event_message_filter_t &start)
{
    return start.msg_class == filter.msg_class && (start.type & ~filter.type) == 0;
}

event_message_fn find_handler(event_manager_t &evm, const event_message_filter_t &start)
{
    const base::scoped_lock hold(evm.mutex);
    const auto found =
        std::find_if(evm.handlers.begin(), evm.handlers.end(),
                     [&start](const host::message_handler &attached) { return selects(attached.filter, start); });
    return found == evm.handlers.end() ? nullptr : found->handler;
}

event_callback_fn find_callback(event_manager_t &evm)
{
    const base::scoped_lock hold(evm.mutex);
    return evm.callback;
}

// Passes a message that no filter selects to the manager's callback. The dispatch fails unless the callback returns 1.
void call_callback(event_manager_t &evm, event_message_t &event)
{
    const event_callback_fn callback = find_callback(evm);
    if (callback == nullptr || callback(&evm, &event) != 1) {
        evm.frame->status = ENOMSG;
    }
}

void deliver(void *cookie)
{
    delivery received{};
    event_message_t event{host::handle_of(cookie), nullptr};
    if (!receive(event.client, received)) {
        return;
    }
    event.bytes = received.bytes;
    const event_message_fn handler = find_handler(*received.evm, received.start);
    if (handler != nullptr) {
        handler(&event);
    } else {
        call_callback(*received.evm, event);
    }
    finish(cookie);
}

// Puts a message for the channel of a connection into the table.
uint32_t enter(uint32_t conn, const std::shared_ptr<message> &sent, uint32_t &client, deadline &until)
{
    const base::scoped_lock hold(service().mutex);
    const connection *const over = service().connections.find(conn);
    if (over == nullptr) {
        return EINVAL;
    }
    if (host::is_own_manager(over->channel->evm)) {
        return EDEADLK;
    }
    sent->channel = over->channel;
    until = std::chrono::steady_clock::now() + std::chrono::seconds(over->timeout_seconds);
    client = service().clients.insert(sent);
    return 0;
}

uint32_t enqueue(const message &sent, uint32_t client)
{
    const uint32_t status = host::event_post(sent.channel->evm, deliver, finish, host::pointer_of<void>(client));
    if (status != 0) {
        const base::scoped_lock hold(service().mutex);
        remove_client(client);
    }
    return status == ESHUTDOWN ? ECONNRESET : status;
}

// Marks that the sender gave up. Removes the message if its receiver has not seen it.
void give_up(message &sent, uint32_t client) L2FIB_REQUIRES(service().mutex)
{
    sent.sender = sender_state::gave_up;
    if (!sent.delivered) {
        service().clients.erase(client);
    }
}

uint32_t wait_for_reply(message &sent, uint32_t client, deadline until)
{
    {
        const base::scoped_lock hold(service().mutex);
        bool is_late = false;
        while (sent.sender == sender_state::waiting && !is_late) {
            is_late = sent.woken.wait_until(service().mutex, until) == std::cv_status::timeout;
        }
        if (sent.sender != sender_state::waiting) {
            return sent.sender == sender_state::answered ? 0 : ECONNRESET;
        }
        give_up(sent, client);
    }
    host::event_withdraw(sent.channel->evm, deliver, host::pointer_of<void>(client));
    return ETIMEDOUT;
}

uint32_t send(uint32_t conn, const std::shared_ptr<message> &sent)
{
    uint32_t client = 0;
    deadline until;
    uint32_t status = enter(conn, sent, client, until);
    if (status == 0) {
        status = enqueue(*sent, client);
    }
    return status != 0 ? status : wait_for_reply(*sent, client, until);
}

bool may_send(const void *request, uint64_t request_length, const void *reply, uint64_t reply_length)
{
    return request != nullptr && request_length >= sizeof(event_message_filter_t) && request_length <= max_message_bytes
           && (reply != nullptr || reply_length == 0);
}

uint32_t get_length(uint32_t client, const uint64_t message::*which, uint64_t *length)
{
    const base::scoped_lock hold(service().mutex);
    const message *const delivered = find_client(client);
    if (delivered == nullptr || length == nullptr) {
        return EINVAL;
    }
    *length = delivered->*which;
    return 0;
}

uint32_t answer(message &delivered, const void *reply, uint64_t reply_length) L2FIB_REQUIRES(service().mutex)
{
    if (delivered.sender == sender_state::gave_up) {
        return ETIMEDOUT;
    }
    if (delivered.sender != sender_state::waiting) {
        return EALREADY;
    }
    const uint64_t stored = std::min(reply_length, delivered.reply_length);
    if (stored != 0) {
        std::memcpy(delivered.reply, reply, stored);
    }
    wake_sender(delivered, sender_state::answered);
    return 0;
}

} // namespace

namespace host {

void reset_clients(const msg_chan_t *channel)
{
    const base::scoped_lock hold(service().mutex);
    std::erase_if(service().clients.records, [channel](const auto &entry) L2FIB_REQUIRES(service().mutex) {
        if (entry.second->channel != channel) {
            return false;
        }
        wake_sender(*entry.second, sender_state::reset);
        return true;
    });
}

} // namespace host

uint32_t msg_chan_attach(msg_chan_t *chan, uint32_t reserved, uint32_t *conn)
{
    if (chan == nullptr || reserved != 0 || conn == nullptr) {
        return EINVAL;
    }
    return host::or_out_of_memory([&]() -> uint32_t {
        const base::scoped_lock hold(service().mutex);
        *conn = service().connections.insert({chan});
        return 0;
    });
}

uint32_t msg_set_send_timeout(uint32_t conn, uint32_t seconds)
{
    const base::scoped_lock hold(service().mutex);
    connection *const found = service().connections.find(conn);
    if (found == nullptr) {
        return EINVAL;
    }
    found->timeout_seconds = seconds;
    return 0;
}

int msg_send(uint32_t conn, const void *request, uint64_t request_length, void *reply, uint64_t reply_length)
{
    uint32_t status = EINVAL;
    if (may_send(request, request_length, reply, reply_length)) {
        status = host::or_out_of_memory(
            [&] { return send(conn, std::make_shared<message>(request, request_length, reply, reply_length)); });
    }
    if (status != 0) {
        errno = static_cast<int>(status);
        return -1;
    }
    return 0;
}

uint32_t msg_clinfo_hold(uint32_t client)
{
    const base::scoped_lock hold(service().mutex);
    message *const delivered = find_client(client);
    if (delivered == nullptr) {
        return EINVAL;
    }
    return std::exchange(delivered->held, true) ? EALREADY : 0;
}

uint32_t msg_clinfo_unhold(uint32_t client)
{
    const base::scoped_lock hold(service().mutex);
    const message *const delivered = find_client(client);
    return delivered != nullptr && delivered->held && remove_client(client) ? 0 : EINVAL;
}

uint32_t msg_get_clinfo_m_msglen(uint32_t client, uint64_t *length)
{
    return get_length(client, &message::received_length, length);
}

uint32_t msg_get_clinfo_m_srcmsglen(uint32_t client, uint64_t *length)
{
    return get_length(client, &message::sent_length, length);
}

uint32_t msg_reply(uint32_t client, uint32_t reserved, const void *reply, uint64_t reply_length)
{
    if (reserved != 0 || (reply == nullptr && reply_length != 0)) {
        return EINVAL;
    }
    const base::scoped_lock hold(service().mutex);
    message *const delivered = find_client(client);
    return delivered == nullptr ? EINVAL : answer(*delivered, reply, reply_length);
}
