/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Event library: one event manager per thread, and the loop that serves it.
 *
 * A thread creates its manager, attaches handlers to it and then alternates between event_block, which waits for the
 * next event of any kind that is attached (messages, notifications, and whatever else the platform attaches to the
 * manager), and nos_event_dispatch, which runs that event's handlers on the calling thread. Handlers of one manager
 * therefore never run at the same time, and they run in the order in which the events came.
 *
 * Threads: a manager is created, waited on and dispatched by one thread; attaching to it is allowed from any.
 * Statuses are 0 for success unless said otherwise.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct event_manager event_manager_t;
typedef struct msg_chan msg_chan_t;

/* The depth that the module asks for its managers' queues: a wish, not a bound. */
#define EVENT_MANAGER_DEPTH 12u

/*
 * The record that a thread waits with.
 *
 *    0  evm             the manager waited on
 *    8  buffer          where a received message may be put, `buffer_length` bytes of the thread's own
 *   16  buffer_length
 *   24  event           the event that event_block received, until it has been dispatched: the library's
 *   32  reserved        zero
 */
typedef struct event_record {
    event_manager_t *evm;
    void *buffer;
    uint64_t buffer_length;
    void *event;
    uint64_t reserved[4];
} event_record_t;

/* Which messages a handler takes; message.h tells how a filter selects. */
typedef struct event_message_filter {
    uint16_t type;
    uint16_t msg_class;
} event_message_filter_t;

static_assert(sizeof(event_message_filter_t) == 4, "the filter is two 16-bit values");

/* A received message, as its handler sees it; both are valid while the handler runs. */
typedef struct event_message {
    uint32_t client;   /* the sender's client handle (message.h) */
    const void *bytes; /* what was received */
} event_message_t;

typedef void (*event_message_fn)(const event_message_t *event);

/*
 * Answers an event of the library itself; the result 1 means that nothing more is to be done. The host's library asks
 * about a message that no filter selects, with the manager and the event_message_t.
 */
typedef uint32_t (*event_callback_fn)(void *arg1, void *arg2);

#define EVENT_CALLBACK_TAG 0x43420601u

/* Callbacks for the library's own events, 56 bytes; the record lives as long as the manager.
 *
 *    0  tag          EVENT_CALLBACK_TAG
 *    8  (16 bytes)   zero
 *   24  callback
 *   32  (24 bytes)   zero
 */
typedef struct event_callback_record {
    uint32_t tag;
    uint32_t reserved0;
    uint64_t reserved1[2];
    event_callback_fn callback;
    uint64_t reserved2[3];
} event_callback_record_t;

static_assert(offsetof(event_callback_record_t, tag) == 0, "callback record layout");
static_assert(offsetof(event_callback_record_t, callback) == 24, "callback record layout");
static_assert(sizeof(event_callback_record_t) == 56, "callback record layout");

/*
 * Creates the manager of the calling thread, known on the platform by `path`. The first and last arguments are 0,
 * `depth` is EVENT_MANAGER_DEPTH. Returns null on failure. Managers live as long as the process.
 */
L2FIB_EXPORT event_manager_t *event_manager_create(uint32_t reserved1, const char *path, uint32_t depth,
                                                   uint32_t reserved2);

/* Attaches the callbacks of `record`, which must stay where it is. */
L2FIB_EXPORT uint32_t event_callback_attach(event_manager_t *evm, const event_callback_record_t *record);

/* Delivers the messages on the manager's channel that `filter` (copied) selects to `handler`; the last argument is 0.
 */
L2FIB_EXPORT uint32_t event_message_attach(event_manager_t *evm, const event_message_filter_t *filter,
                                           event_message_fn handler, uint32_t reserved);

/* The channel on which the manager receives messages; never null for a manager. */
L2FIB_EXPORT msg_chan_t *evm_get_chan(event_manager_t *evm);

/*
 * Waits for the next event of `record->evm`. Returns 0 with an event to dispatch, or -1 with errno: EINTR and EAGAIN
 * mean that nothing has happened; any other that the manager serves no more events, and the thread should end.
 */
L2FIB_EXPORT int event_block(event_record_t *record);

/*
 * Runs the handlers of the event that event_block received; the last argument is 0. A failure (nothing was received, or
 * nobody took the message) harms nothing.
 */
L2FIB_EXPORT uint32_t nos_event_dispatch(event_record_t *record, uint32_t reserved);

L2FIB_END_DECLS
