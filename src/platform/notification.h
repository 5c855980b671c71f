/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Notification service: tells which bridge domains, cross-connects and Ethernet flow points come and go.
 *
 * A subscriber connects on an event manager and subscribes to either stream with six callbacks; the service copies what
 * it needs of the record. Notifications are delivered on the manager's thread, from its event loop, in the order in
 * which they were published.
 *
 * Statuses are 0 for success.
 */
#pragma once

#include "platform/event.h"

L2FIB_BEGIN_DECLS

typedef struct bdxc_connection bdxc_connection_t;

/* The code of a notification that tells a removal. */
#define BDXC_EVENT_REMOVED 2u

/* Kinds of object. Only in the second stream: kinds 3 and 6, further kinds of bridge port. */
#define BDXC_KIND_BRIDGE_DOMAIN 1u
#define BDXC_KIND_CROSS_CONNECT 2u
#define EFP_KIND_BRIDGE_PORT_3 3u
#define EFP_KIND_BRIDGE_PORT_6 6u

/*
 * A notification of the bridge-domain and cross-connect stream. Bytes without a name are the service's.
 *
 *   80  object_id     bridge id or xcid, by kind
 *   84  object_kind
 *  168  event_code
 */
typedef struct bdxc_notification {
    uint8_t reserved0[80];
    uint32_t object_id;
    uint32_t object_kind;
    uint8_t reserved1[80];
    uint32_t event_code;
    uint8_t reserved2[4];
} bdxc_notification_t;

static_assert(offsetof(bdxc_notification_t, object_id) == 80, "notification layout");
static_assert(offsetof(bdxc_notification_t, object_kind) == 84, "notification layout");
static_assert(offsetof(bdxc_notification_t, event_code) == 168, "notification layout");

/*
 * A notification of the Ethernet flow point stream.
 *
 *    8  port_id       xcid, for kinds of bridge port
 *   12  object_kind
 *   16  bridge_id     for a bridge domain
 *  112  validity      1: the notification counts
 *  196  event_code
 */
typedef struct efp_notification {
    uint8_t reserved0[8];
    uint32_t port_id;
    uint32_t object_kind;
    uint32_t bridge_id;
    uint8_t reserved1[92];
    uint32_t validity;
    uint8_t reserved2[80];
    uint32_t event_code;
} efp_notification_t;

static_assert(offsetof(efp_notification_t, port_id) == 8, "notification layout");
static_assert(offsetof(efp_notification_t, object_kind) == 12, "notification layout");
static_assert(offsetof(efp_notification_t, bridge_id) == 16, "notification layout");
static_assert(offsetof(efp_notification_t, validity) == 112, "notification layout");
static_assert(offsetof(efp_notification_t, event_code) == 196, "notification layout");

/* The third argument is the stream's notification record, valid while the callback runs. */
typedef void (*bdxc_notification_fn)(void *arg1, void *arg2, const void *notification);

#define BDXC_CALLBACK_SLOTS 6u

typedef struct bdxc_subscription {
    bdxc_notification_fn callback[BDXC_CALLBACK_SLOTS];
} bdxc_subscription_t;

/* Connects to the service on an event manager; the second argument is 0. */
L2FIB_EXPORT uint32_t bdxc_process_connect(event_manager_t *evm, uint32_t reserved, bdxc_connection_t **connection);

/* Ends a connection with its subscriptions. Nothing is delivered on it any more. */
L2FIB_EXPORT uint32_t bdxc_process_disconnect(bdxc_connection_t *connection);

/* Subscribes to a stream; the second argument is 0. */
L2FIB_EXPORT uint32_t bdxc_register_bdxc_notifications(bdxc_connection_t *connection, uint32_t reserved,
                                                       const bdxc_subscription_t *subscription);
L2FIB_EXPORT uint32_t bdxc_register_efp_notifications(bdxc_connection_t *connection, uint32_t reserved,
                                                      const bdxc_subscription_t *subscription);

L2FIB_END_DECLS
