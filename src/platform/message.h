/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Messaging: a request to a thread's channel, and the reply to it.
 *
 * A sender opens a connection to a channel. msg_send sends a request and waits for the reply. The channel's event
 * manager delivers the request to the handler whose filter selects it. Each message begins with two 16-bit values in
 * host byte order:
 *
 *      0         2          4
 *      +---------+----------+---------------------
 *      | type    | class    | the sender's bytes ...
 *      +---------+----------+---------------------
 *
 * Filters: a filter selects a message if both have the same class and the message's type has no bit that the filter's
 * type lacks: (type & ~filter.type) == 0. Example with the filter type 0x8fff and class 0x0a27:
 *
 *      message type 0x8001, class 0x0a27     selected
 *      message type 0x0001, class 0x0a27     selected: it lacks a bit, which is allowed
 *      message type 0x9001, class 0x0a27     not selected: the filter lacks 0x1000
 *      message type 0x8001, class 0x0a28     not selected: another class
 *
 * If several filters select a message, the handler that was attached first gets it. If none does, the library releases
 * the message without a reply.
 *
 * Clients: the receiver knows the sender by a client handle.
 *  - The receiver may reply while the handler runs. If the handler has held the client, it may reply until the client
 *    is released, from any thread.
 *  - If a client is released without a reply, its sender wakes at once with an error. The same happens if a handler
 *    returns without reply or hold, and when the receiving thread ends.
 *  - A reply to a sender that has timed out fails. Releasing its client frees all that is left of it.
 *
 * Threads: any, for every function.
 *
 * Errors: statuses are 0 for success. An unknown handle gives a nonzero status and does no harm.
 */
#pragma once

#include "platform/event.h"

L2FIB_BEGIN_DECLS

/* Opens a connection to `chan` and stores its handle, which is never 0. `reserved` is 0. */
L2FIB_EXPORT uint32_t msg_chan_attach(msg_chan_t *chan, uint32_t reserved, uint32_t *conn);

/*
 * Sets how many seconds a send on the connection waits for its reply. A new connection waits 30 seconds. With 0 a send
 * does not wait: it fails with ETIMEDOUT unless the reply is already there.
 */
L2FIB_EXPORT uint32_t msg_set_send_timeout(uint32_t conn, uint32_t seconds);

/*
 * Sends `request` of 4 to 65536 bytes and waits for the reply. Stores at most `reply_length` bytes of it.
 * Returns 0, or -1 with errno:
 *
 *      ETIMEDOUT     no reply came in time
 *      ECONNRESET    no reply will come
 *      EDEADLK       the caller is the receiving thread, which could not reply
 *      EINVAL        bad arguments
 *
 * Several threads may send on one connection.
 */
L2FIB_EXPORT int msg_send(uint32_t conn, const void *request, uint64_t request_length, void *reply,
                          uint64_t reply_length);

/* Keeps the client of a received message after its handler has returned, so that a later reply can reach it. */
L2FIB_EXPORT uint32_t msg_clinfo_hold(uint32_t client);

/* Releases a held client. */
L2FIB_EXPORT uint32_t msg_clinfo_unhold(uint32_t client);

/* Store how many bytes of the client's message were received, and how many its sender sent. */
L2FIB_EXPORT uint32_t msg_get_clinfo_m_msglen(uint32_t client, uint64_t *length);
L2FIB_EXPORT uint32_t msg_get_clinfo_m_srcmsglen(uint32_t client, uint64_t *length);

/* Replies to a client, at most once. `reserved` is 0. Copies `reply_length` bytes. Fails if the client already has its
 * reply, has timed out, or is unknown. */
L2FIB_EXPORT uint32_t msg_reply(uint32_t client, uint32_t reserved, const void *reply, uint64_t reply_length);

L2FIB_END_DECLS
