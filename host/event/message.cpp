// SPDX-License-Identifier: Apache-2.0

// Messaging between threads of one process.
//
// A message is a record in the table of clients, under the handle by which its receiver knows the sender; what travels
// through the receiver's event queue is the handle only. Its life, with who takes it out of the table:
//
//     queued ---> in its handler ---> held ---> released
//       |               |               |
//       |               |               `-- msg_clinfo_unhold, from any thread
//       |               `-- the handler's return, if it was not held; msg_clinfo_unhold
//       `-- its sender's time-out, the only one to take back a queued message
//
// and, from everywhere, the end of the receiving event manager. Whoever takes out a message that its sender still waits
// for wakes the sender with ECONNRESET. A sender that gives up on a delivered message leaves it to its receiver,
// marked, so that a release succeeds and a reply fails.
//
// Statuses: EINVAL for an unknown handle or connection, EALREADY for a second reply or hold, ETIMEDOUT for a reply to a
// sender that has given up.
//
// Threads. One mutex guards connections and clients; it comes before an event manager's. Handlers run without it. A
// sender sleeps on its own message's condition variable; the message is shared, so that it lives until both its sender
// and the table have let go. The sender's reply buffer is written under the mutex, and only while the sender waits.
#include "platform/message.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "host/event/event_manager.h"
#include "host/handle_table.h"
#include "host/never_destroyed.h"
#include "host/out_of_memory.h"

namespace {

using deadline = std::chrono::steady_clock::time_point;

constexpr uint64_t longest_message = 65536;
constexpr uint32_t first_timeout_seconds = 30; // of a connection, until it is set

struct connection {
    msg_chan_t *channel;
    uint32_t timeout_seconds = first_timeout_seconds;
};

enum class sender_state { waiting, answered, reset, gave_up };

struct message {
    msg_chan_t *channel = nullptr;
    std::vector<std::byte> request; // empty once delivered
    uint64_t sent_length;
    uint64_t received_length = 0;
    void *reply; // the sender's
    uint64_t reply_length;
    sender_state sender = sender_state::waiting;
    bool delivered = false;
    bool held = false;
    std::condition_variable woken;

    message(const void *bytes, uint64_t length, void *reply_to, uint64_t reply_room)
        : request(static_cast<const std::byte *>(bytes), static_cast<const std::byte *>(bytes) + length)
        , sent_length(length)
        , reply(reply_to)
        , reply_length(reply_room)
    {}
};

struct message_service {
    std::mutex mutex;
    host::handle_table<connection> connections;
    host::handle_table<std::shared_ptr<message>> clients;
};

message_service &service()
{
    static host::never_destroyed<message_service> the_service;
    return the_service.object;
}

// The service's mutex is held. Null for an unknown client, also for one whose message is still queued.
message *find_client(uint32_t client)
{
    const std::shared_ptr<message> *const found = service().clients.find(client);
    return found != nullptr && (*found)->delivered ? found->get() : nullptr;
}

// The service's mutex is held.
void wake_sender(message &sent, sender_state why)
{
    if (sent.sender == sender_state::waiting) {
        sent.sender = why;
        sent.woken.notify_one();
    }
}

// The service's mutex is held.
bool take_out(uint32_t client)
{
    const std::shared_ptr<message> *const found = service().clients.find(client);
    if (found == nullptr) {
        return false;
    }
    wake_sender(**found, sender_state::reset);
    return service().clients.erase(client);
}

// The end of a message that is queued or in its handler, unless its receiver has taken it over.
void finish(void *cookie)
{
    const uint32_t client = host::handle_of(cookie);
    const std::lock_guard lock(service().mutex);
    const message *const delivered = find_client(client);
    if (delivered == nullptr || !delivered->held) {
        take_out(client);
    }
}

struct delivery {
    event_manager_t *evm;
    event_message_filter_t start; // type and class
    const void *bytes;
};

// Puts the message, as much of it as there is room for, into the buffer of the waiting record. False when its sender
// has given up or was woken otherwise.
bool receive(uint32_t client, delivery &received)
{
    const std::lock_guard lock(service().mutex);
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
    const std::lock_guard lock(evm.mutex);
    const auto found =
        std::find_if(evm.handlers.begin(), evm.handlers.end(),
                     [&start](const host::message_handler &attached) { return selects(attached.filter, start); });
    return found == evm.handlers.end() ? nullptr : found->handler;
}

event_callback_fn find_callback(event_manager_t &evm)
{
    const std::lock_guard lock(evm.mutex);
    return evm.callback;
}

// A message that no handler takes is shown to the manager's callback. The dispatch fails unless that answers 1.
void hand_over_unselected(event_manager_t &evm, event_message_t &event)
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
        hand_over_unselected(*received.evm, event);
    }
    finish(cookie);
}

// Makes a message known, for the channel of a connection.
uint32_t enter(uint32_t conn, const std::shared_ptr<message> &sent, uint32_t &client, deadline &until)
{
    const std::lock_guard lock(service().mutex);
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
        const std::lock_guard lock(service().mutex);
        take_out(client);
    }
    return status == ESHUTDOWN ? ECONNRESET : status;
}

// The sender's last word, with the service's mutex held: a message that is queued no longer counts.
void give_up(message &sent, uint32_t client)
{
    sent.sender = sender_state::gave_up;
    if (!sent.delivered) {
        service().clients.erase(client);
    }
}

uint32_t wait_for_reply(message &sent, uint32_t client, deadline until)
{
    {
        std::unique_lock lock(service().mutex);
        sent.woken.wait_until(lock, until, [&sent] { return sent.sender != sender_state::waiting; });
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
    return request != nullptr && request_length >= sizeof(event_message_filter_t) && request_length <= longest_message
           && (reply != nullptr || reply_length == 0);
}

uint32_t get_length(uint32_t client, uint64_t message::*which, uint64_t *length)
{
    const std::lock_guard lock(service().mutex);
    const message *const delivered = find_client(client);
    if (delivered == nullptr || length == nullptr) {
        return EINVAL;
    }
    *length = delivered->*which;
    return 0;
}

uint32_t answer(message &delivered, const void *reply, uint64_t reply_length)
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
    const std::lock_guard lock(service().mutex);
    std::erase_if(service().clients.records, [channel](const auto &entry) {
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
        const std::lock_guard lock(service().mutex);
        *conn = service().connections.insert({chan});
        return 0;
    });
}

uint32_t msg_set_send_timeout(uint32_t conn, uint32_t seconds)
{
    const std::lock_guard lock(service().mutex);
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
    const std::lock_guard lock(service().mutex);
    message *const delivered = find_client(client);
    if (delivered == nullptr) {
        return EINVAL;
    }
    return std::exchange(delivered->held, true) ? EALREADY : 0;
}

uint32_t msg_clinfo_unhold(uint32_t client)
{
    const std::lock_guard lock(service().mutex);
    const message *const delivered = find_client(client);
    return delivered != nullptr && delivered->held && take_out(client) ? 0 : EINVAL;
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
    const std::lock_guard lock(service().mutex);
    message *const delivered = find_client(client);
    return delivered == nullptr ? EINVAL : answer(*delivered, reply, reply_length);
}
