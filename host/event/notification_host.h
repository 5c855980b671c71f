// SPDX-License-Identifier: Apache-2.0

// The publishers' side of the notification service (platform/notification.h).
//
// The service queues a publication for every connection that is subscribed to its stream at that moment, and delivers
// it on the subscriber's event manager. All subscribers get the publications in the order of the calls, over both
// streams. A publication without a subscriber is not an error, and neither is a subscriber that has ended.
//
// A publication names one of the subscriber's six callbacks, its slot. Slot 0 receives objects that are created,
// changed or removed. Publishers and subscribers agree on the meaning of slots 1 to 5. A null callback receives
// nothing.
//
// Threads: any. Statuses are 0 for success, EINVAL for a null record or an unknown slot, ENOMEM if the copy for some
// subscriber failed; the other subscribers get theirs.
#pragma once

#include "platform/notification.h"

namespace host {

constexpr uint32_t object_slot = 0;

// Publish a copy of a record on one of the streams.
L2FIB_EXPORT uint32_t bdxc_publish(const bdxc_notification_t *record, uint32_t slot = object_slot);
L2FIB_EXPORT uint32_t efp_publish(const efp_notification_t *record, uint32_t slot = object_slot);

// Publish the removal of an object on the bridge-domain and cross-connect stream.
L2FIB_EXPORT uint32_t bdxc_publish_bridge_domain_removed(uint32_t bridge_id);
L2FIB_EXPORT uint32_t bdxc_publish_cross_connect_removed(uint32_t xcid);

} // namespace host
