// SPDX-License-Identifier: Apache-2.0

// Messages: a sender gets one answer or one error, whatever its receiver does with the message, and whenever.

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
#include "tests/support/host/event_loop.h"

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
    uint32_t value; // of the reply
};

outcome send(uint32_t conn, packet request)
{
    packet reply{};
    const int result = msg_send(conn, &request, sizeof(request), &reply, sizeof(reply));
    return {result == 0 ? 0 : errno, reply.value};
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

void hold(const event_message_t *event)
{
    EXPECT_EQ(msg_clinfo_hold(event->client), 0u);
    held.put(event->client);
}

// A sender finds the type of its message at this index: what a receiver may do, and the sender's error.
struct behaviour {
    void (*handle)(const event_message_t *event);
    int error;
};

constexpr uint16_t holds = 0, replies = 1;

constexpr behaviour behaviours[] = {
    {hold, 0},
    {[](const event_message_t *event) {
         EXPECT_EQ(echo(event), 0u);
         EXPECT_EQ(echo(event), EALREADY);
         EXPECT_EQ(msg_clinfo_unhold(event->client), EINVAL) << "it is not held";
     },
     0},
    {[](const event_message_t *event) {
         EXPECT_EQ(msg_clinfo_hold(event->client), 0u);
         EXPECT_EQ(echo(event), 0u);
         EXPECT_EQ(msg_clinfo_unhold(event->client), 0u);
         EXPECT_EQ(msg_clinfo_unhold(event->client), EINVAL);
     },
     0},
    {[](const event_message_t *) {}, ECONNRESET},
    {[](const event_message_t *event) {
         EXPECT_EQ(msg_clinfo_hold(event->client), 0u);
         EXPECT_EQ(msg_clinfo_hold(event->client), EALREADY);
         EXPECT_EQ(msg_clinfo_unhold(event->client), 0u);
         EXPECT_EQ(echo(event), EINVAL);
         EXPECT_EQ(msg_clinfo_hold(event->client), EINVAL);
     },
     ECONNRESET},
    {[](const event_message_t *event) {
         uint64_t length = 0;
         for (const uint32_t stranger : {0u, event->client + 1, UINT32_MAX}) {
             EXPECT_EQ(msg_clinfo_hold(stranger), EINVAL);
             EXPECT_EQ(msg_clinfo_unhold(stranger), EINVAL);
             EXPECT_EQ(msg_get_clinfo_m_msglen(stranger, &length), EINVAL);
             EXPECT_EQ(msg_get_clinfo_m_srcmsglen(stranger, &length), EINVAL);
             EXPECT_EQ(msg_reply(stranger, 0, &length, sizeof(length)), EINVAL);
         }
         EXPECT_EQ(echo(event), 0u);
     },
     0},
};

void attach_behaviours(event_manager_t *evm)
{
    const auto behave = [](const event_message_t *event) { behaviours[packet_of(event).type].handle(event); };
    EXPECT_EQ(event_message_attach(evm, &filter, behave, 0), 0u);
}

TEST(Message, GivesTheSenderAReplyOrAnError)
{
    const event_loop loop("/test/messages", attach_behaviours);
    const uint32_t conn = connect(loop.evm, 60);
    constexpr auto types = static_cast<uint16_t>(std::size(behaviours));
    for (uint16_t type = replies; type < types; type++) {
        const outcome seen = send(conn, {type, some_class, 100u + type});
        EXPECT_EQ(seen.error, behaviours[type].error) << "type " << type;
        EXPECT_EQ(seen.value, seen.error == 0 ? 100u + type : 0);
    }
}

TEST(Message, TakesRepliesOfAnyLengthFromOtherThreads)
{
    const event_loop loop("/test/messages", attach_behaviours);
    const uint32_t conn = connect(loop.evm, 60);
    for (const size_t length : {size_t{0}, size_t{3}, size_t{8}, size_t{64}}) {
        std::thread replier([length] {
            const std::vector<uint8_t> reply(length, 0xab);
            const uint32_t client = held.take();
            EXPECT_EQ(msg_reply(client, 1, reply.data(), length), EINVAL);
            EXPECT_EQ(msg_reply(client, 0, nullptr, 1), EINVAL);
            EXPECT_EQ(msg_reply(client, 0, reply.data(), length), 0u);
            EXPECT_EQ(msg_clinfo_unhold(client), 0u);
        });
        const packet request{holds, some_class, 0};
        std::vector<uint8_t> reply(16, 0x55), expected(16, 0x55);
        std::fill_n(expected.begin(), std::min<size_t>(length, 8), 0xab);
        EXPECT_EQ(msg_send(conn, &request, sizeof(request), reply.data(), 8), 0);
        EXPECT_EQ(reply, expected);
        replier.join();
    }
}

TEST(Message, CutsLongMessages)
{
    const event_loop loop("/test/messages", [](event_manager_t *evm) {
        const auto measure = [](const event_message_t *event) {
            uint64_t lengths[2] = {};
            EXPECT_EQ(msg_get_clinfo_m_msglen(event->client, &lengths[0]), 0u);
            EXPECT_EQ(msg_get_clinfo_m_srcmsglen(event->client, &lengths[1]), 0u);
            EXPECT_EQ(msg_get_clinfo_m_msglen(event->client, nullptr), EINVAL);
            EXPECT_TRUE(lengths[0] == 4 || static_cast<const uint8_t *>(event->bytes)[lengths[0] - 1] == 0xcd);
            EXPECT_EQ(msg_reply(event->client, 0, lengths, sizeof(lengths)), 0u);
        };
        EXPECT_EQ(event_message_attach(evm, &filter, measure, 0), 0u);
    });
    const uint32_t conn = connect(loop.evm, 60);
    for (const uint64_t length : {4u, 127u, 128u, 129u, 65536u}) {
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

TEST(Message, ReachesTheFirstHandlerThatSelectsItOrTheCallback)
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
        EXPECT_EQ(event_message_attach(evm, nullptr, hold, 0), EINVAL);
        EXPECT_EQ(event_message_attach(evm, &filter, nullptr, 0), EINVAL);
    });
    const uint32_t conn = connect(loop.evm, 60);
    const std::pair<packet, uint32_t> cases[] = {{{0x0003, some_class, 0}, 1},
                                                 {{0x0004, some_class, 0}, 2},
                                                 {{0x8fff, some_class, 0}, 2},
                                                 {{0x1000, some_class, 0}, 3},
                                                 {{0x0000, 0, 0}, 3}};
    for (const auto &[request, answered_by] : cases) {
        EXPECT_EQ(send(conn, request).value, answered_by) << request.type;
    }
}

TEST(Message, RefusesBadArgumentsAndItsOwnReceiver)
{
    event_manager_t *const evm = create_manager("/test/own-messages");
    const uint32_t conn = connect(evm, 60);
    const std::vector<uint8_t> request(65537);
    const struct {
        const void *request;
        uint64_t length;
        uint64_t reply_length;
        uint32_t conn;
        int error;
    } cases[] = {
        {request.data(), 8, 0, conn, EDEADLK},    {request.data(), 8, 0, 0, EINVAL},
        {request.data(), 8, 0, conn + 1, EINVAL}, {nullptr, 8, 0, conn, EINVAL},
        {request.data(), 3, 0, conn, EINVAL},     {request.data(), 65537, 0, conn, EINVAL},
        {request.data(), 8, 8, conn, EINVAL}, // no room for the reply
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

TEST(Message, IsDroppedIfItsSenderGaveUp)
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
    EXPECT_TRUE(marked) << "it is the first event";
    EXPECT_EQ(delivered, 0);
    host::event_manager_stop(evm);
}

TEST(Message, RefusesALateReply)
{
    const event_loop loop("/test/messages", attach_behaviours);
    EXPECT_EQ(send(connect(loop.evm, 1), {holds, some_class, 1}).error, ETIMEDOUT);
    const uint32_t client = held.take();
    const packet reply{};
    EXPECT_EQ(msg_reply(client, 0, &reply, sizeof(reply)), ETIMEDOUT);
    EXPECT_EQ(msg_clinfo_unhold(client), 0u);
    EXPECT_EQ(msg_reply(client, 0, &reply, sizeof(reply)), EINVAL);
    EXPECT_EQ(send(connect(loop.evm, 60), {replies, some_class, 2}).error, 0);
}

TEST(Message, EndsWithItsReceiver)
{
    event_loop loop("/test/messages", attach_behaviours);
    const uint32_t conn = connect(loop.evm, 3600);
    std::atomic<int> reset = 0;
    std::vector<std::thread> senders(4);
    uint32_t client = 0;
    for (std::thread &sender : senders) {
        sender = std::thread([&] { reset += send(conn, {holds, some_class, 0}).error == ECONNRESET ? 1 : 0; });
        client = held.take();
    }
    loop.stop();
    for (std::thread &sender : senders) {
        sender.join();
    }
    EXPECT_EQ(reset, 4);
    EXPECT_EQ(msg_reply(client, 0, &client, sizeof(client)), EINVAL);
    EXPECT_EQ(msg_clinfo_unhold(client), EINVAL);
    EXPECT_EQ(send(conn, {replies, some_class, 0}).error, ECONNRESET);
}

TEST(Message, EndsWithAThreadThatNeverDispatchesIt)
{
    static std::atomic<uint32_t> conn;
    conn = 0;
    std::thread receiver([] {
        event_manager_t *const evm = create_manager("/test/ends");
        conn = connect(evm, 3600);
        conn.notify_all();
        event_record_t record{evm, nullptr, 0, nullptr, {}};
        EXPECT_EQ(event_block(&record), 0); // receives the message
    });
    conn.wait(0);
    EXPECT_EQ(send(conn, {replies, some_class, 0}).error, ECONNRESET);
    receiver.join();
}

// ---- Many senders and repliers while the receiver comes and goes ----

struct storm {
    std::atomic<uint32_t> replied = 0;
    std::atomic<uint32_t> answered = 0;
    std::atomic<bool> is_over = false;
    std::atomic<uint32_t> conns[2]; // times out at once, and never
};

storm *the_storm;
constexpr uint32_t stop_replier = 0;

// Replies, returns without a reply, or hands the client to two repliers that compete for it.
void receive(const event_message_t *event)
{
    const uint32_t choice = packet_of(event).value % 4;
    if (choice == 0) {
        the_storm->replied += echo(event) == 0 ? 1 : 0;
    } else if (choice < 3 && msg_clinfo_hold(event->client) == 0) {
        held.put(event->client);
        held.put(event->client);
    }
}

void reply_or_release(unsigned seed)
{
    std::minstd_rand random(seed);
    for (uint32_t client = held.take(); client != stop_replier; client = held.take()) {
        const packet reply{0, 0, client};
        if (random() % 3 != 0) {
            the_storm->replied += msg_reply(client, 0, &reply, sizeof(reply)) == 0 ? 1 : 0;
        }
        msg_clinfo_unhold(client);
    }
}

void send_until_over(uint32_t first)
{
    for (uint32_t value = first; !the_storm->is_over; value++) {
        const int error = send(the_storm->conns[value % 2], {0, some_class, value}).error;
        EXPECT_TRUE(error == 0 || error == ECONNRESET || (error == ETIMEDOUT && value % 2 == 0)) << error;
        the_storm->answered += error == 0 ? 1 : 0;
        the_storm->answered.notify_one();
    }
}

TEST(MessageStress, AnswersOrFailsEverySender)
{
    storm now;
    the_storm = &now;
    std::vector<std::thread> repliers, senders;
    for (int round = 0; round < 20; round++) {
        const event_loop loop("/test/storm", [&now](event_manager_t *evm) {
            EXPECT_EQ(event_message_attach(evm, &filter, receive, 0), 0u);
            now.conns[0] = connect(evm, 0);
            now.conns[1] = connect(evm, 3600);
        });
        for (unsigned i = 0; round == 0 && i < 4; i++) {
            repliers.emplace_back(reply_or_release, i + 1);
            senders.emplace_back(send_until_over, i * 1001);
        }
        for (int i = 0; i < 50; i++) {
            now.answered.wait(now.answered);
        }
    }
    now.is_over = true;
    for (std::thread &sender : senders) {
        sender.join();
    }
    for (size_t i = 0; i < repliers.size(); i++) {
        held.put(stop_replier);
    }
    for (std::thread &replier : repliers) {
        replier.join();
    }
    EXPECT_EQ(now.answered, now.replied);
}

} // namespace
