// SPDX-License-Identifier: Apache-2.0

// The notification service: connections with their subscriptions, and publications that travel through the subscribers'
// event queues.
//
// Threads. One mutex guards the connections; it comes before the mutex of an event manager. A publisher queues a
// publication for all subscribers under the mutex, so every subscriber gets the publications in the same order. A
// callback runs on the subscriber's thread, without the mutex. A disconnection discards what is queued. On another
// thread than the subscriber's, it may return while the last callback still runs.
//
// The handle of a connection is a number in a pointer type, which nobody dereferences. A stale handle is unknown.
#include "host/event/notification_host.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "host/event/event_manager.h"
#include "host/handle_table.h"
#include "host/never_destroyed.h"
#include "host/out_of_memory.h"

namespace {

enum stream : size_t { bdxc_stream, efp_stream, stream_count };

struct subscriber {
    event_manager_t *evm;
    std::array<std::optional<bdxc_subscription_t>, stream_count> subscriptions;
};

struct notification_service {
    base::mutex mutex;
    host::handle_table<subscriber> connections L2FIB_GUARDED_BY(mutex);
};

// A publication on its way to one subscriber.
struct publication {
    uint32_t connection;
    stream on;
    uint32_t slot;
    std::vector<std::byte> record;
};

notification_service &service()
{
    static host::never_destroyed<notification_service> the_service;
    return the_service.object;
}

// Returns null if the subscriber has no callback for the publication.
bdxc_notification_fn find_callback(const subscriber &to, stream on, uint32_t slot)
{
    return to.subscriptions[on] ? to.subscriptions[on]->callback[slot] : nullptr;
}

bdxc_notification_fn find_callback(const publication &arrived)
{
    const base::scoped_lock hold(service().mutex);
    const subscriber *const to = service().connections.find(arrived.connection);
    return to == nullptr ? nullptr : find_callback(*to, arrived.on, arrived.slot);
}

void deliver(void *cookie)
{
    const std::unique_ptr<publication> arrived(static_cast<publication *>(cookie));
    const bdxc_notification_fn callback = find_callback(*arrived);
    if (callback != nullptr) {
        callback(host::pointer_of<bdxc_connection_t>(arrived->connection), nullptr, arrived->record.data());
    }
}

void discard(void *cookie)
{
    delete static_cast<publication *>(cookie);
}

// Queues a publication for one subscriber. A subscriber that has ended gets nothing, and that is not an error.
uint32_t post(event_manager_t *evm, std::unique_ptr<publication> sent)
{
    const uint32_t status = host::event_post(evm, deliver, discard, sent.get());
    if (status == 0) {
        static_cast<void>(sent.release()); // the queue owns it now
    }
    return status == ESHUTDOWN ? 0 : status;
}

uint32_t publish_to(uint32_t connection, const subscriber &to, stream on, uint32_t slot, const std::byte *bytes,
                    size_t size)
{
    if (find_callback(to, on, slot) == nullptr) {
        return 0;
    }
    return host::or_out_of_memory([&] {
        return post(to.evm, std::make_unique<publication>(
                                publication{connection, on, slot, std::vector<std::byte>(bytes, bytes + size)}));
    });
}

template <typename Record>
uint32_t publish(stream on, const Record *record, uint32_t slot)
{
    if (record == nullptr || slot >= BDXC_CALLBACK_SLOTS) {
        return EINVAL;
    }
    const auto *const bytes = reinterpret_cast<const std::byte *>(record);
    uint32_t status = 0;
    const base::scoped_lock hold(service().mutex);
    for (const auto &[connection, to] : service().connections.records) {
        const uint32_t posted = publish_to(connection, to, on, slot, bytes, sizeof(*record));
        status = status != 0 ? status : posted;
    }
    return status;
}

uint32_t publish_removed(uint32_t kind, uint32_t id)
{
    bdxc_notification_t record{};
    record.object_id = id;
    record.object_kind = kind;
    record.event_code = BDXC_EVENT_REMOVED;
    return host::bdxc_publish(&record);
}

uint32_t subscribe(stream to, const bdxc_connection_t *connection, uint32_t reserved,
                   const bdxc_subscription_t *subscription)
{
    if (reserved != 0 || subscription == nullptr) {
        return EINVAL;
    }
    const base::scoped_lock hold(service().mutex);
    subscriber *const found = service().connections.find(host::handle_of(connection));
    if (found == nullptr) {
        return EINVAL;
    }
    if (found->subscriptions[to]) {
        return EEXIST;
    }
    found->subscriptions[to] = *subscription;
    return 0;
}

uint32_t connect(event_manager_t *evm, bdxc_connection_t *&connection)
{
    const base::scoped_lock hold(service().mutex);
    if (host::is_closed(evm)) {
        return ESHUTDOWN; // the end of the manager has closed its connections already, and would miss this one
    }
    connection = host::pointer_of<bdxc_connection_t>(service().connections.insert({evm, {}}));
    return 0;
}

} // namespace

namespace host {

void close_connections(const event_manager_t *evm)
{
    const base::scoped_lock hold(service().mutex);
    std::erase_if(service().connections.records, [evm](const auto &entry) { return entry.second.evm == evm; });
}

uint32_t bdxc_publish(const bdxc_notification_t *record, uint32_t slot)
{
    return publish(bdxc_stream, record, slot);
}

uint32_t efp_publish(const efp_notification_t *record, uint32_t slot)
{
    return publish(efp_stream, record, slot);
}

uint32_t bdxc_publish_bridge_domain_removed(uint32_t bridge_id)
{
    return publish_removed(BDXC_KIND_BRIDGE_DOMAIN, bridge_id);
}

uint32_t bdxc_publish_cross_connect_removed(uint32_t xcid)
{
    return publish_removed(BDXC_KIND_CROSS_CONNECT, xcid);
}

} // namespace host

uint32_t bdxc_process_connect(event_manager_t *evm, uint32_t reserved, bdxc_connection_t **connection)
{
    if (evm == nullptr || reserved != 0 || connection == nullptr) {
        return EINVAL;
    }
    return host::or_out_of_memory([&] { return connect(evm, *connection); });
}

uint32_t bdxc_process_disconnect(bdxc_connection_t *connection)
{
    const base::scoped_lock hold(service().mutex);
    return service().connections.erase(host::handle_of(connection)) ? 0 : EINVAL;
}

uint32_t bdxc_register_bdxc_notifications(bdxc_connection_t *connection, uint32_t reserved,
                                          const bdxc_subscription_t *subscription)
{
    return subscribe(bdxc_stream, connection, reserved, subscription);
}

uint32_t bdxc_register_efp_notifications(bdxc_connection_t *connection, uint32_t reserved,
                                         const bdxc_subscription_t *subscription)
{
    return subscribe(efp_stream, connection, reserved, subscription);
}
