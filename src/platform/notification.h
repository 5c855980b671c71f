/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Notification service: publishes when bridge domains, cross-connects and Ethernet flow points are created and removed.
 *
 * A subscriber connects on an event manager and subscribes to one or both streams, each with six callbacks. The service
 * copies what it needs of the subscription. The manager's thread runs the callbacks from its event loop, in the order
 * in which the notifications were published.
 *
 * Threads: the functions may be called from any thread.
 *
 * Errors: statuses are 0 for success.
 */
#pragma once

#include "platform/event.h"

L2FIB_BEGIN_DECLS

typedef struct bdxc_connection bdxc_connection_t;

/* The event code of a removal. */
#define BDXC_EVENT_REMOVED 2u

/* Kinds of object. Kinds 3 and 6 are further kinds of bridge port, and occur in the second stream only. */
#define BDXC_KIND_BRIDGE_DOMAIN 1u
#define BDXC_KIND_CROSS_CONNECT 2u
#define EFP_KIND_BRIDGE_PORT_3 3u
#define EFP_KIND_BRIDGE_PORT_6 6u

/* The validity of an Ethernet flow point's notification that a subscriber may act on. */
#define EFP_NOTIFICATION_VALID 1u

/*
 * A notification of the bridge-domain and cross-connect stream. The service owns the bytes without a name.
 *
 *      0          80            84              88         168           172
 *      +----------+-------------+---------------+----------+-------------+---
 *      |          | object_id   | object_kind   |          | event_code  |
 *      +----------+-------------+---------------+----------+-------------+---
 */
typedef struct bdxc_notification {
    uint8_t reserved0[80];
    uint32_t object_id; /* a bridge id or an xcid, by kind */
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
 *      0     8          12             16           20      112         116     196          200
 *      +-----+----------+--------------+------------+-------+-----------+-------+------------+
 *      |     | port_id  | object_kind  | bridge_id  |       | validity  |       | event_code |
 *      +-----+----------+--------------+------------+-------+-----------+-------+------------+
 */
typedef struct efp_notification {
    uint8_t reserved0[8];
    uint32_t port_id; /* an xcid, for kinds of bridge port */
    uint32_t object_kind;
    uint32_t bridge_id; /* for a bridge domain */
    uint8_t reserved1[92];
    uint32_t validity; /* subscribers ignore every value but EFP_NOTIFICATION_VALID */
    uint8_t reserved2[80];
    uint32_t event_code;
} efp_notification_t;

static_assert(offsetof(efp_notification_t, port_id) == 8, "notification layout");
static_assert(offsetof(efp_notification_t, object_kind) == 12, "notification layout");
static_assert(offsetof(efp_notification_t, bridge_id) == 16, "notification layout");
static_assert(offsetof(efp_notification_t, validity) == 112, "notification layout");
static_assert(offsetof(efp_notification_t, event_code) == 196, "notification layout");

/* `notification` is the stream's notification record, valid while the callback runs. */
typedef void (*bdxc_notification_fn)(void *arg1, void *arg2, const void *notification);

#define BDXC_CALLBACK_SLOTS 6u

typedef struct bdxc_subscription {
    bdxc_notification_fn callback[BDXC_CALLBACK_SLOTS];
} bdxc_subscription_t;

/* Connects to the service on an event manager and stores the connection. `reserved` is 0. */
L2FIB_EXPORT uint32_t bdxc_process_connect(event_manager_t *evm, uint32_t reserved, bdxc_connection_t **connection);

/* Ends a connection and its subscriptions. Afterwards the service delivers nothing more on it. */
L2FIB_EXPORT uint32_t bdxc_process_disconnect(bdxc_connection_t *connection);

/* Subscribe to a stream. `reserved` is 0. */
L2FIB_EXPORT uint32_t bdxc_register_bdxc_notifications(bdxc_connection_t *connection, uint32_t reserved,
                                                       const bdxc_subscription_t *subscription);
L2FIB_EXPORT uint32_t bdxc_register_efp_notifications(bdxc_connection_t *connection, uint32_t reserved,
                                                      const bdxc_subscription_t *subscription);

L2FIB_END_DECLS
