// SPDX-License-Identifier: Apache-2.0

// The notification service, as its publishers use it.
//
// A publication goes to every connection that has subscribed to its stream at that moment, and is delivered on each
// subscriber's event manager. One whose call has returned reaches every subscriber before those called later; those of
// both streams share that order. Nobody subscribed is no error, and neither is a subscriber that ends.
//
// A publication names which of the subscriber's six callbacks it is for. Slot 0 is for objects that are created,
// changed or removed, which is what this service publishes of its own; slots 1 to 5 are for further events, which a
// publisher and its subscribers agree on. A slot that the subscriber left null takes nothing.
//
// Threads: any. Statuses are 0 for success, EINVAL for a null record or a slot that does not exist, ENOMEM when a copy
// for some subscriber could not be made.
#pragma once

#include "platform/notification.h"

namespace host {

constexpr uint32_t object_slot = 0;

// Publishes a record, which is copied, on one of the streams.
L2FIB_EXPORT uint32_t bdxc_publish(const bdxc_notification_t *record, uint32_t slot = object_slot);
L2FIB_EXPORT uint32_t efp_publish(const efp_notification_t *record, uint32_t slot = object_slot);

// Publishes, on the bridge-domain and cross-connect stream, that an object was removed.
L2FIB_EXPORT uint32_t bdxc_publish_bridge_domain_removed(uint32_t bridge_id);
L2FIB_EXPORT uint32_t bdxc_publish_cross_connect_removed(uint32_t xcid);

} // namespace host
