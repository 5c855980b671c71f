// SPDX-License-Identifier: Apache-2.0

// Notifications: the slots that a publication reaches, its order, and the end of publications in the queue.

#include <atomic>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "host/event/notification_host.h"
#include "tests/support/host/event_loop.h"

namespace {

using test::create_manager;
using test::event_loop;
using test::serve_one;

struct arrival {
    char stream;
    uint32_t slot;
    uint32_t id;

    bool operator==(const arrival &) const = default;
};

std::vector<arrival> arrived; // written on the subscriber's thread

template <uint32_t Slot>
void note_bdxc(void *, void *, const void *notification)
{
    arrived.push_back({'b', Slot, static_cast<const bdxc_notification_t *>(notification)->object_id});
}

template <uint32_t Slot>
void note_efp(void *, void *, const void *notification)
{
    arrived.push_back({'e', Slot, static_cast<const efp_notification_t *>(notification)->port_id});
}

uint32_t publish_bdxc(uint32_t id, uint32_t slot = host::object_slot)
{
    bdxc_notification_t record{};
    record.object_id = id;
    return host::bdxc_publish(&record, slot);
}

uint32_t publish_efp(uint32_t id, uint32_t slot = host::object_slot)
{
    efp_notification_t record{};
    record.port_id = id;
    return host::efp_publish(&record, slot);
}

// A connection, on a manager of the test's own thread, that is subscribed to both streams: slots 0, 1 and 5.
class notification : public testing::Test {
protected:
    void SetUp() override
    {
        arrived.clear();
        ASSERT_EQ(bdxc_process_connect(evm, 0, &connection), 0u);
        bdxc_subscription_t bdxc{{note_bdxc<0>, note_bdxc<1>, nullptr, nullptr, nullptr, note_bdxc<5>}};
        bdxc_subscription_t efp{{note_efp<0>, note_efp<1>, nullptr, nullptr, nullptr, note_efp<5>}};
        ASSERT_EQ(bdxc_register_bdxc_notifications(connection, 0, &bdxc), 0u);
        ASSERT_EQ(bdxc_register_efp_notifications(connection, 0, &efp), 0u);
        bdxc = efp = {}; // the service has copied them
    }
    void TearDown() override { host::event_manager_stop(evm); }

    // Serves what has been queued so far.
    void drain()
    {
        bool drained = false;
        host::event_post(
            evm, [](void *cookie) { *static_cast<bool *>(cookie) = true; }, nullptr, &drained);
        while (!drained) {
            ASSERT_EQ(serve_one(evm), 0);
        }
    }

    event_manager_t *evm = create_manager("/test/notifications");
    bdxc_connection_t *connection = nullptr;
};

TEST_F(notification, ReachesItsSlotInOrder)
{
    EXPECT_EQ(publish_bdxc(1), 0u);
    EXPECT_EQ(publish_efp(2, 5), 0u);
    EXPECT_EQ(publish_efp(3, 3), 0u); // nobody's slot
    EXPECT_EQ(publish_bdxc(4, 1), 0u);
    EXPECT_EQ(publish_efp(5), 0u);
    EXPECT_EQ(publish_bdxc(6, 6), EINVAL);
    EXPECT_EQ(host::bdxc_publish(nullptr), EINVAL);
    EXPECT_TRUE(arrived.empty());
    drain();
    EXPECT_EQ(arrived, (std::vector<arrival>{{'b', 0, 1}, {'e', 5, 2}, {'b', 1, 4}, {'e', 0, 5}}));
}

TEST_F(notification, DoesNotReachAnEndedSubscriber)
{
    const bdxc_subscription_t subscription{};
    EXPECT_EQ(bdxc_register_bdxc_notifications(connection, 0, &subscription), EEXIST);
    EXPECT_EQ(bdxc_register_efp_notifications(connection, 1, &subscription), EINVAL);
    EXPECT_EQ(bdxc_register_efp_notifications(connection, 0, nullptr), EINVAL);
    EXPECT_EQ(publish_bdxc(1), 0u); // dropped from the queue by the disconnection
    EXPECT_EQ(bdxc_process_disconnect(connection), 0u);
    EXPECT_EQ(publish_bdxc(2), 0u);
    EXPECT_EQ(bdxc_process_disconnect(connection), EINVAL);
    EXPECT_EQ(bdxc_process_disconnect(nullptr), EINVAL);
    EXPECT_EQ(bdxc_register_bdxc_notifications(connection, 0, &subscription), EINVAL);
    drain();
    EXPECT_TRUE(arrived.empty());
    host::event_manager_stop(evm);
    EXPECT_EQ(bdxc_process_connect(evm, 0, &connection), ESHUTDOWN);
    EXPECT_EQ(bdxc_process_connect(nullptr, 0, &connection), EINVAL);
}

// The subscriber that stays receives all, in each publisher's order.
TEST(NotificationStress, ReachesASubscriberWhileOthersComeAndGo)
{
    constexpr uint32_t publishers = 3;
    constexpr uint32_t publications = 3000;
    static uint32_t next[publishers];
    static std::atomic<uint32_t> seen;
    std::fill(std::begin(next), std::end(next), 0);
    seen = 0;
    const auto subscribe = [](event_manager_t *evm, bdxc_notification_fn callback) {
        bdxc_connection_t *connection = nullptr;
        const bdxc_subscription_t subscription{{callback}};
        EXPECT_EQ(bdxc_process_connect(evm, 0, &connection), 0u);
        EXPECT_EQ(bdxc_register_bdxc_notifications(connection, 0, &subscription), 0u);
        return connection;
    };
    event_loop loop("/test/stays", [&subscribe](event_manager_t *evm) {
        subscribe(evm, [](void *, void *, const void *record) {
            const uint32_t id = static_cast<const bdxc_notification_t *>(record)->object_id;
            EXPECT_EQ(next[id % publishers]++, id / publishers);
            seen++;
        });
    });
    std::vector<std::thread> threads;
    for (uint32_t publisher = 0; publisher < publishers; publisher++) {
        threads.emplace_back([publisher] {
            for (uint32_t i = 0; i < publications; i++) {
                EXPECT_EQ(publish_bdxc(i * publishers + publisher), 0u);
            }
        });
    }
    const auto ignore = [](void *, void *, const void *) {};
    for (int round = 0; round < 50; round++) {
        const event_loop passing("/test/passes", [&](event_manager_t *evm) { subscribe(evm, ignore); });
        EXPECT_EQ(bdxc_process_disconnect(subscribe(loop.evm, ignore)), 0u);
    }
    for (auto &thread : threads) {
        thread.join();
    }
    test::serve_queued(loop.evm);
    EXPECT_EQ(seen, publishers * publications);
}

} // namespace
