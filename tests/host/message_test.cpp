// SPDX-License-Identifier: Apache-2.0

// Messages: what a sender is told, whatever its receiver does with the message, and whenever.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "platform/message.h"
#include "tests/support/event_loop.h"

namespace {

using test::create_manager;
using test::event_loop;
using test::serve_one;

constexpr uint16_t some_class = 0x0a27;
constexpr event_message_filter_t filter{0x8fff, some_class};

struct packet {
    uint16_t type;
    uint16_t msg_class;
    uint32_t value;
};

packet packet_of(const event_message_t *event)
{
    packet received{};
    std::memcpy(&received, event->bytes, sizeof(received));
    return received;
}

uint32_t connect(event_manager_t *evm, uint32_t seconds)
{
    uint32_t conn = 0;
    EXPECT_EQ(msg_chan_attach(evm_get_chan(evm), 0, &conn), 0u);
    EXPECT_NE(conn, 0u);
    EXPECT_EQ(msg_set_send_timeout(conn, seconds), 0u);
    return conn;
}

struct outcome {
    int error;
    packet reply;
};

outcome send(uint32_t conn, packet request)
{
    outcome seen{};
    seen.error = msg_send(conn, &request, sizeof(request), &seen.reply, sizeof(seen.reply)) == 0 ? 0 : errno;
    return seen;
}

// Clients that a handler has held, for other threads to take.
class held_clients {
public:
    void put(uint32_t client)
    {
        const std::lock_guard lock(mutex_);
        clients_.push_back(client);
        changed_.notify_one();
    }
    uint32_t take()
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !clients_.empty(); });
        const uint32_t client = clients_.front();
        clients_.pop_front();
        return client;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<uint32_t> clients_;
};

held_clients held;

uint32_t echo(const event_message_t *event)
{
    const packet received = packet_of(event);
    return msg_reply(event->client, 0, &received, sizeof(received));
}

// What the receiver of a message does with it is told by the message's type.
enum behaviour : uint16_t {
    replies,
    replies_in_hold,
    hands_on,
    returns,
    holds_twice,
    replies_after_release,
    knows_no_other,
};

void behave(const event_message_t *event)
{
    switch (packet_of(event).type) {
    case replies:
        EXPECT_EQ(echo(event), 0u);
        EXPECT_EQ(echo(event), EALREADY);
        EXPECT_EQ(msg_clinfo_unhold(event->client), EINVAL); // was not held
        break;
    case replies_in_hold:
        EXPECT_EQ(msg_clinfo_hold(event->client), 0u);
        EXPECT_EQ(echo(event), 0u);
        EXPECT_EQ(msg_clinfo_unhold(event->client), 0u);
        EXPECT_EQ(msg_clinfo_unhold(event->client), EINVAL);
        break;
    case hands_on:
        EXPECT_EQ(msg_clinfo_hold(event->client), 0u);
        held.put(event->client);
        break;
    case returns: break;
    case holds_twice:
        EXPECT_EQ(msg_clinfo_hold(event->client), 0u);
        EXPECT_EQ(msg_clinfo_hold(event->client), EALREADY);
        EXPECT_EQ(msg_clinfo_unhold(event->client), 0u);
        break;
    case replies_after_release:
        EXPECT_EQ(msg_clinfo_hold(event->client), 0u);
        EXPECT_EQ(msg_clinfo_unhold(event->client), 0u);
        EXPECT_EQ(echo(event), EINVAL);
        EXPECT_EQ(msg_clinfo_hold(event->client), EINVAL);
        break;
    case knows_no_other:
        uint64_t length = 0;
        for (const uint32_t stranger : {0u, event->client + 1, UINT32_MAX}) {
            EXPECT_EQ(msg_clinfo_hold(stranger), EINVAL);
            EXPECT_EQ(msg_clinfo_unhold(stranger), EINVAL);
            EXPECT_EQ(msg_get_clinfo_m_msglen(stranger, &length), EINVAL);
            EXPECT_EQ(msg_get_clinfo_m_srcmsglen(stranger, &length), EINVAL);
            EXPECT_EQ(msg_reply(stranger, 0, &length, sizeof(length)), EINVAL);
        }
        EXPECT_EQ(echo(event), 0u);
        break;
    }
}

void attach_behaviour(event_manager_t *evm)
{
    EXPECT_EQ(event_message_attach(evm, &filter, behave, 0), 0u);
}

TEST(Message, SenderIsToldWhatBecameOfIt)
{
    const event_loop loop("/test/messages", attach_behaviour);
    const uint32_t conn = connect(loop.evm, 60);
    const struct {
        uint16_t type;
        uint16_t msg_class;
        int error;
    } cases[] = {
        {replies, some_class, 0},
        {replies_in_hold, some_class, 0},
        {returns, some_class, ECONNRESET},
        {holds_twice, some_class, ECONNRESET},
        {replies_after_release, some_class, ECONNRESET},
        {knows_no_other, some_class, 0},
        {0x9000, some_class, ECONNRESET},      // a type bit that the filter lacks
        {replies, some_class + 1, ECONNRESET}, // another class
    };
    uint32_t value = 1;
    for (const auto &expected : cases) {
        const outcome seen = send(conn, {expected.type, expected.msg_class, ++value});
        EXPECT_EQ(seen.error, expected.error) << "type " << expected.type << " class " << expected.msg_class;
        EXPECT_EQ(seen.reply.value, expected.error == 0 ? value : 0);
    }
}

TEST(Message, ReplyMayComeFromAnotherThreadAndFitsTheReceiver)
{
    const event_loop loop("/test/messages", attach_behaviour);
    const uint32_t conn = connect(loop.evm, 60);
    for (const size_t length : {size_t{0}, size_t{3}, size_t{8}, size_t{64}}) {
        std::thread replier([length] {
            const std::vector<uint8_t> reply(length, 0xab);
            const uint32_t client = held.take();
            EXPECT_EQ(msg_reply(client, 1, reply.data(), length), EINVAL);
            EXPECT_EQ(msg_reply(client, 0, nullptr, 1), EINVAL);
            EXPECT_EQ(msg_reply(client, 0, reply.data(), length), 0u);
            EXPECT_EQ(msg_reply(client, 0, reply.data(), length), EALREADY);
            EXPECT_EQ(msg_clinfo_unhold(client), 0u);
        });
        const packet request{hands_on, some_class, 0};
        std::vector<uint8_t> reply(16, 0x55);
        EXPECT_EQ(msg_send(conn, &request, sizeof(request), reply.data(), 8), 0);
        for (size_t i = 0; i < reply.size(); i++) {
            EXPECT_EQ(reply[i], i < std::min<size_t>(length, 8) ? 0xab : 0x55);
        }
        replier.join();
    }
}

TEST(Message, LongMessagesAreReceivedCut)
{
    const event_loop loop("/test/messages", [](event_manager_t *evm) {
        const auto measure = [](const event_message_t *event) {
            uint64_t lengths[2] = {};
            EXPECT_EQ(msg_get_clinfo_m_msglen(event->client, &lengths[0]), 0u);
            EXPECT_EQ(msg_get_clinfo_m_srcmsglen(event->client, &lengths[1]), 0u);
            EXPECT_EQ(msg_get_clinfo_m_msglen(event->client, nullptr), EINVAL);
            const auto *const bytes = static_cast<const uint8_t *>(event->bytes);
            EXPECT_TRUE(lengths[0] == 4 || bytes[lengths[0] - 1] == 0xcd);
            EXPECT_EQ(msg_reply(event->client, 0, lengths, sizeof(lengths)), 0u);
        };
        EXPECT_EQ(event_message_attach(evm, &filter, measure, 0), 0u);
    });
    const uint32_t conn = connect(loop.evm, 60);
    for (const uint64_t length : {4u, 24u, 127u, 128u, 129u, 65536u}) {
        std::vector<uint8_t> request(length, 0xcd);
        std::memcpy(request.data(), &filter, sizeof(filter));
        uint64_t lengths[2] = {};
        ASSERT_EQ(msg_send(conn, request.data(), length, lengths, sizeof(lengths)), 0);
        EXPECT_EQ(lengths[0], std::min<uint64_t>(length, 128));
        EXPECT_EQ(lengths[1], length);
    }
}

template <uint32_t Who>
void reply_as(const event_message_t *event)
{
    const packet reply{0, 0, Who};
    EXPECT_EQ(msg_reply(event->client, 0, &reply, sizeof(reply)), 0u);
}

TEST(Message, FirstHandlerThatSelectsGetsItAndTheCallbackTheRest)
{
    const event_loop loop("/test/filters", [](event_manager_t *evm) {
        const event_message_filter_t narrow{0x0003, some_class};
        EXPECT_EQ(event_message_attach(evm, &narrow, reply_as<1>, 0), 0u);
        EXPECT_EQ(event_message_attach(evm, &filter, reply_as<2>, 0), 0u);
        event_callback_record_t record{};
        record.tag = EVENT_CALLBACK_TAG;
        record.callback = [](void *, void *event) {
            reply_as<3>(static_cast<const event_message_t *>(event));
            return 1u;
        };
        EXPECT_EQ(event_callback_attach(evm, &record), 0u);
        EXPECT_EQ(event_message_attach(evm, nullptr, behave, 0), EINVAL);
        EXPECT_EQ(event_message_attach(evm, &filter, nullptr, 0), EINVAL);
    });
    const uint32_t conn = connect(loop.evm, 60);
    const struct {
        packet request;
        uint32_t answered_by;
    } cases[] = {
        {{0x0000, some_class, 0}, 1}, {{0x0003, some_class, 0}, 1}, {{0x0004, some_class, 0}, 2},
        {{0x8001, some_class, 0}, 2}, {{0x8fff, some_class, 0}, 2}, {{0x1000, some_class, 0}, 3},
        {{0x0000, 0, 0}, 3},
    };
    for (const auto &expected : cases) {
        EXPECT_EQ(send(conn, expected.request).reply.value, expected.answered_by) << expected.request.type;
    }
}

TEST(Message, BadArgumentsAndItsOwnReceiverAreRefused)
{
    event_manager_t *const evm = create_manager("/test/own-messages");
    const uint32_t conn = connect(evm, 60);
    const packet request{replies, some_class, 0};
    const std::vector<uint8_t> huge(65537);
    const struct {
        const void *request;
        uint64_t length;
        uint64_t reply_length;
        uint32_t conn;
        int error;
    } cases[] = {
        {&request, sizeof(request), 0, conn, EDEADLK},
        {&request, sizeof(request), 0, 0, EINVAL},
        {&request, sizeof(request), 0, conn + 1, EINVAL},
        {nullptr, 8, 0, conn, EINVAL},
        {&request, 3, 0, conn, EINVAL},
        {huge.data(), huge.size(), 0, conn, EINVAL},
        {&request, sizeof(request), 8, conn, EINVAL}, // no room for the reply
    };
    for (const auto &refused : cases) {
        errno = 0;
        EXPECT_EQ(msg_send(refused.conn, refused.request, refused.length, nullptr, refused.reply_length), -1);
        EXPECT_EQ(errno, refused.error);
    }
    uint32_t other = 0;
    EXPECT_EQ(msg_chan_attach(nullptr, 0, &other), EINVAL);
    EXPECT_EQ(msg_set_send_timeout(0, 1), EINVAL);
    host::event_manager_stop(evm);
}

TEST(Message, SenderThatGaveUpBeforeDeliveryLeavesNothing)
{
    event_manager_t *const evm = create_manager("/test/own-messages");
    static int delivered;
    delivered = 0;
    event_message_attach(
        evm, &filter, [](const event_message_t *) { ++delivered; }, 0);
    const uint32_t conn = connect(evm, 0);
    std::thread([conn] { EXPECT_EQ(send(conn, {replies, some_class, 0}).error, ETIMEDOUT); }).join();
    bool marked = false;
    host::event_post(
        evm, [](void *cookie) { *static_cast<bool *>(cookie) = true; }, nullptr, &marked);
    EXPECT_EQ(serve_one(evm), 0);
    EXPECT_TRUE(marked); // the first event
    EXPECT_EQ(delivered, 0);
    host::event_manager_stop(evm);
}

TEST(Message, LateReplyGoesNowhere)
{
    const event_loop loop("/test/messages", attach_behaviour);
    EXPECT_EQ(send(connect(loop.evm, 1), {hands_on, some_class, 1}).error, ETIMEDOUT);
    const uint32_t client = held.take();
    const packet reply{};
    EXPECT_EQ(msg_reply(client, 0, &reply, sizeof(reply)), ETIMEDOUT);
    EXPECT_EQ(msg_clinfo_unhold(client), 0u);
    EXPECT_EQ(msg_reply(client, 0, &reply, sizeof(reply)), EINVAL);
    EXPECT_EQ(send(connect(loop.evm, 60), {replies, some_class, 2}).error, 0);
}

TEST(Message, EndOfTheReceiverWakesItsSenders)
{
    event_loop loop("/test/messages", attach_behaviour);
    const uint32_t conn = connect(loop.evm, 3600);
    std::atomic<int> reset = 0;
    std::vector<std::thread> senders;
    senders.reserve(4);
    const auto send_and_count = [&] { reset += send(conn, {hands_on, some_class, 0}).error == ECONNRESET ? 1 : 0; };
    for (int i = 0; i < 4; i++) {
        senders.emplace_back(send_and_count);
    }
    uint32_t client = 0;
    for (int i = 0; i < 4; i++) {
        client = held.take();
    }
    loop.stop();
    for (auto &sender : senders) {
        sender.join();
    }
    EXPECT_EQ(reset, 4);
    EXPECT_EQ(msg_reply(client, 0, &client, sizeof(client)), EINVAL);
    EXPECT_EQ(msg_clinfo_unhold(client), EINVAL);
    EXPECT_EQ(send(conn, {replies, some_class, 0}).error, ECONNRESET);
}

TEST(Message, ThreadThatEndsWithoutServingWakesItsSenders)
{
    static std::atomic<uint32_t> conn;
    conn = 0;
    std::thread receiver([] {
        event_manager_t *const evm = create_manager("/test/ends");
        conn = connect(evm, 3600);
        conn.notify_all();
        event_record_t record{evm, nullptr, 0, nullptr, {}};
        EXPECT_EQ(event_block(&record), 0); // the message is received, but not dispatched
    });
    conn.wait(0);
    EXPECT_EQ(send(conn, {replies, some_class, 0}).error, ECONNRESET);
    receiver.join();
}

// Senders, with and without patience, against handlers and other threads that answer, release, or do both at once,
// while the receiver comes and goes.
TEST(MessageStress, EverySenderIsAnsweredOrTold)
{
    constexpr uint32_t stop_replier = 0;
    constexpr int rounds = 20;
    std::atomic<uint32_t> replied = 0;
    std::atomic<uint32_t> answered = 0;
    std::atomic<bool> over = false;
    static std::atomic<uint32_t> conns[2];
    static std::atomic<uint32_t> *replied_statically;
    replied_statically = &replied;

    const auto receive = [](const event_message_t *event) {
        const packet received = packet_of(event);
        if (received.value % 4 == 0) {
            *replied_statically += echo(event) == 0 ? 1 : 0;
        } else if (received.value % 4 < 3 && msg_clinfo_hold(event->client) == 0) {
            held.put(event->client);
            held.put(event->client); // for two to quarrel over
        }
    };
    const auto quarrel = [&replied](unsigned seed) {
        std::minstd_rand random(seed);
        for (uint32_t client = held.take(); client != stop_replier; client = held.take()) {
            const packet reply{0, 0, client};
            if (random() % 3 != 0) {
                replied += msg_reply(client, 0, &reply, sizeof(reply)) == 0 ? 1 : 0;
            }
            msg_clinfo_unhold(client);
        }
    };
    const auto send_on = [&](uint32_t first) {
        for (uint32_t value = first; !over; value++) {
            const outcome seen = send(conns[value % 2], {0, some_class, value});
            EXPECT_TRUE(seen.error == 0 || seen.error == ECONNRESET || (seen.error == ETIMEDOUT && value % 2 == 0))
                << seen.error;
            answered += seen.error == 0 ? 1 : 0;
            answered.notify_one();
        }
    };

    std::vector<std::thread> repliers;
    std::vector<std::thread> senders;
    for (int round = 0; round < rounds; round++) {
        const event_loop loop("/test/storm", [&receive](event_manager_t *evm) {
            EXPECT_EQ(event_message_attach(evm, &filter, receive, 0), 0u);
            conns[0] = connect(evm, 0);
            conns[1] = connect(evm, 3600);
        });
        if (round == 0) {
            for (unsigned i = 0; i < 4; i++) {
                repliers.emplace_back(quarrel, i + 1);
                senders.emplace_back(send_on, i * 1001);
            }
        }
        for (int i = 0; i < 50; i++) {
            answered.wait(answered);
        }
    }
    over = true;
    for (auto &sender : senders) {
        sender.join();
    }
    for (size_t i = 0; i < repliers.size(); i++) {
        held.put(stop_replier);
    }
    for (auto &replier : repliers) {
        replier.join();
    }
    EXPECT_EQ(answered, replied);
}

} // namespace
