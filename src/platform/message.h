/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Messaging: a request to a thread's channel, and the reply to it.
 *
 * A sender opens a connection to a channel and sends; the send waits for the reply. The message is delivered on the
 * channel's event manager to the handler whose filter selects it. Every message begins with two 16-bit values, its type
 * and its class, in host byte order.
 *
 * Filters: a message is selected when its class equals the filter's, and its type has no bit that the filter's type
 * lacks: (type & ~filter.type) == 0. The filter 0x8fff, 0x0a27 so takes every type 0x8000 to 0x8fff of class 0x0a27
 * (and those without the high bit). Of several handlers whose filters select a message, the one attached first gets it;
 * a message that none selects is released without a reply.
 *
 * The receiver knows the sender by a client handle. It is answerable while the handler runs, and, when the handler has
 * held it, until it is released; a reply may come from any thread. A client that is released without a reply, or whose
 * handler returns without reply or hold, wakes its sender at once with an error. So does the end of the receiving
 * thread. A sender that has timed out is gone: replies to it fail, and nothing of it is left once it is released.
 *
 * Statuses are 0 for success unless said otherwise; an unknown handle is a nonzero status, never harm.
 */
#pragma once

#include "platform/event.h"

L2FIB_BEGIN_DECLS

/* Opens a connection to `chan` and stores its handle, which is never 0; the second argument is 0. Any thread. */
L2FIB_EXPORT uint32_t msg_chan_attach(msg_chan_t *chan, uint32_t reserved, uint32_t *conn);

/*
 * Sets how many seconds a send on the connection waits for its reply; until then it is 30. With 0 a send waits for
 * nothing: it fails with ETIMEDOUT, unless it is answered in that very moment. Any thread.
 */
L2FIB_EXPORT uint32_t msg_set_send_timeout(uint32_t conn, uint32_t seconds);

/*
 * Sends `request`, of 4 to 65536 bytes, and waits for the reply, of which at most `reply_length` bytes are stored.
 * Returns 0, or -1 with errno: ETIMEDOUT when no reply came in time, ECONNRESET when there will be none, EDEADLK on the
 * receiving thread, which could not answer, EINVAL for bad arguments. Any thread; several may send on one connection.
 */
L2FIB_EXPORT int msg_send(uint32_t conn, const void *request, uint64_t request_length, void *reply,
                          uint64_t reply_length);

/* Keeps the client of a received message answerable after its handler has returned. */
L2FIB_EXPORT uint32_t msg_clinfo_hold(uint32_t client);

/* Releases a held client. */
L2FIB_EXPORT uint32_t msg_clinfo_unhold(uint32_t client);

/* How many bytes of the client's message were received, and how many its sender sent. */
L2FIB_EXPORT uint32_t msg_get_clinfo_m_msglen(uint32_t client, uint64_t *length);
L2FIB_EXPORT uint32_t msg_get_clinfo_m_srcmsglen(uint32_t client, uint64_t *length);

/* Answers a client, once; the second argument is 0. Fails when the client was answered, has gone or is unknown. */
L2FIB_EXPORT uint32_t msg_reply(uint32_t client, uint32_t reserved, const void *reply, uint64_t reply_length);

L2FIB_END_DECLS
