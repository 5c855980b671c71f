/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Event library: one event manager per thread, and the loop that serves it.
 *
 * A thread creates its manager and attaches handlers to it. Then it alternates between two calls: event_block waits for
 * the next event, nos_event_dispatch runs that event's handlers on the same thread. Events are messages, notifications,
 * and events of the platform. Handlers of one manager therefore never run at the same time,
 * and they run in the order in which the events came.
 *
 *      event_record_t record = {.evm = evm, .buffer = buffer, .buffer_length = sizeof(buffer)};
 *      for (;;) {
 *          if (event_block(&record) == 0) {
 *              nos_event_dispatch(&record, 0);
 *          } else if (errno != EINTR && errno != EAGAIN) {
 *              return;
 *          }
 *      }
 *
 * Threads: one thread creates a manager, waits on it and dispatches. Any thread may attach to it.
 *
 * Errors: statuses are 0 for success and nonzero for failure, unless a function says otherwise.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct event_manager event_manager_t;
typedef struct msg_chan msg_chan_t;

/* The queue depth that the module asks for. It is a wish: a manager may queue more events. */
#define EVENT_MANAGER_DEPTH 12u

/*
 * The record that a thread waits with, 64 bytes.
 *
 *      0            8            16                24          32                  64
 *      +------------+------------+-----------------+-----------+-------------------+
 *      | evm        | buffer     | buffer_length   | event     | reserved: zero    |
 *      +------------+------------+-----------------+-----------+-------------------+
 */
typedef struct event_record {
    event_manager_t *evm;   /* the manager to wait on */
    void *buffer;           /* the thread's own memory; the library may store a received message there */
    uint64_t buffer_length; /* in bytes */
    void *event;            /* the library's: the event that event_block received and nobody has dispatched yet */
    uint64_t reserved[4];
} event_record_t;

/* Which messages a handler takes. message.h explains how a filter selects. */
typedef struct event_message_filter {
    uint16_t type;
    uint16_t msg_class;
} event_message_filter_t;

static_assert(sizeof(event_message_filter_t) == 4, "the filter is two 16-bit values");

/* A received message, as its handler sees it. Both members are valid while the handler runs. */
typedef struct event_message {
    uint32_t client;   /* the sender's client handle (message.h) */
    const void *bytes; /* the received bytes */
} event_message_t;

typedef void (*event_message_fn)(const event_message_t *event);

/*
 * Answers an event of the library itself. The result EVENT_CALLBACK_DONE means that the library has nothing more to do.
 * The host's library calls it for a message that no filter selects. The arguments are then the manager and the
 * event_message_t.
 */
typedef uint32_t (*event_callback_fn)(void *arg1, void *arg2);

#define EVENT_CALLBACK_DONE 1u

#define EVENT_CALLBACK_TAG 0x43420601u

/*
 * Callbacks for the library's own events, 56 bytes. The caller keeps the record as long as the manager.
 *
 *      0        4        8                 24            32                  56
 *      +--------+--------+-----------------+-------------+-------------------+
 *      | tag    | zero   | zero            | callback    | zero              |
 *      +--------+--------+-----------------+-------------+-------------------+
 */
typedef struct event_callback_record {
    uint32_t tag; /* EVENT_CALLBACK_TAG */
    uint32_t reserved0;
    uint64_t reserved1[2];
    event_callback_fn callback;
    uint64_t reserved2[3];
} event_callback_record_t;

static_assert(offsetof(event_callback_record_t, tag) == 0, "callback record layout");
static_assert(offsetof(event_callback_record_t, callback) == 24, "callback record layout");
static_assert(sizeof(event_callback_record_t) == 56, "callback record layout");

/*
 * Creates the manager of the calling thread. The platform knows it by `path`. `reserved1` and `reserved2` are 0,
 * `depth` is EVENT_MANAGER_DEPTH. Returns the manager, which lives as long as the process, or null on failure.
 */
L2FIB_EXPORT event_manager_t *event_manager_create(uint32_t reserved1, const char *path, uint32_t depth,
                                                   uint32_t reserved2);

/* Attaches the callbacks of `record`. The caller keeps the record at its address as long as the manager lives. */
L2FIB_EXPORT uint32_t event_callback_attach(event_manager_t *evm, const event_callback_record_t *record);

/* Delivers the messages that `filter` selects on the manager's channel to `handler`. Copies the filter. `reserved` is
 * 0. */
L2FIB_EXPORT uint32_t event_message_attach(event_manager_t *evm, const event_message_filter_t *filter,
                                           event_message_fn handler, uint32_t reserved);

/* Returns the channel on which the manager receives messages. It is never null and lives as long as the manager. */
L2FIB_EXPORT msg_chan_t *evm_get_chan(event_manager_t *evm);

/*
 * Waits for the next event of `record->evm`. Returns 0 if the record now holds an event to dispatch, else -1 with
 * errno. EINTR and EAGAIN mean that no event came. Any other number means that the manager serves no more events and
 * that the thread should end.
 */
L2FIB_EXPORT int event_block(event_record_t *record);

/*
 * Runs the handlers of the event that event_block received. `reserved` is 0. Fails without harm if the record holds no
 * event or if nobody takes the message.
 */
L2FIB_EXPORT uint32_t nos_event_dispatch(event_record_t *record, uint32_t reserved);

L2FIB_END_DECLS
