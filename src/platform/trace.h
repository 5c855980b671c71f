/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Trace facility of the forwarding process: receives all trace points of the module.
 *
 * A trace point is a number, the name of a function (or of a named step of it) and a few values: ids, statuses, words
 * of an address. The facility keeps one buffer for normal points and one for errors. It chooses the buffer by the
 * number, and it holds the texts for operators; the module knows neither.
 *
 * Threads: any, also with the table lock held. A trace point never waits for something that could wait for the table.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct l2fib_debug_ctx l2fib_debug_ctx_t;

#define EDM_TRACE_MAX_VALUES 6u

/* The range of the numbers below. */
#define EDM_TRACE_ID_FIRST 1911u
#define EDM_TRACE_ID_LAST 1973u

/*
 * The module's trace points, with their values. Two points share the number 1915; they differ in how many values they
 * carry. "address" stands for three values, the 16-bit words of an address.
 */
typedef enum edm_trace_id {
    EDM_TRACE_MAC_NOT_INSERTED = EDM_TRACE_ID_FIRST, /* two points in a row: xcid; status */
    EDM_TRACE_MAC_NOT_REPLACED = 1912,               /* xcid, status */
    EDM_TRACE_FEED_NO_PORT = 1913,                   /* xcid */
    EDM_TRACE_FEED_NO_ENTRY = 1914,
    EDM_TRACE_FEED_NO_BD = 1915,              /* bridge id */
    EDM_TRACE_FEED_PORT_NOT_REFRESHED = 1915, /* xcid, status */
    EDM_TRACE_FEED_REFUSED = 1916,            /* flags, xcid, bridge id, address */
    EDM_TRACE_SWEEP_MAC_STOPPED = 1917,       /* xcid, status */
    EDM_TRACE_MAC_REQUEST_FAILED = 1918,      /* request kind, status */
    EDM_TRACE_NOT_SUBSCRIBED = 1923,          /* status */
    EDM_TRACE_NOT_CONNECTED = 1924,           /* status */
    EDM_TRACE_REQUEST_THREAD_ENDED = 1925,    /* status */
    EDM_TRACE_RESYNC_NOT_SENT = 1928,         /* status */
    EDM_TRACE_RESYNC_UNKNOWN_REPLY = 1929,    /* status */
    EDM_TRACE_RESYNC_NOT_SERVED = 1930,       /* status */
    EDM_TRACE_CACHE_THREAD_ENDED = 1931,      /* status */
    EDM_TRACE_CACHE_CHANNEL_FAILED = 1932,    /* status */
    EDM_TRACE_REQUESTER_NOT_RELEASED = 1935,  /* status */
    EDM_TRACE_BD_NOT_DESTROYED = 1936,        /* bridge id, status */
    EDM_TRACE_TREE_NOT_RUNNING = 1938,
    EDM_TRACE_BP_NOT_READ = 1940,      /* xcid, status */
    EDM_TRACE_BD_NAME_NOT_READ = 1941, /* bridge id, status */
    EDM_TRACE_NO_ROOM = 1942,
    EDM_TRACE_REQUEST_THREAD_READY = 1944, /* status */
    EDM_TRACE_CACHE_THREAD_READY = 1945,   /* status */
    EDM_TRACE_POOL_NOT_CREATED = 1948,     /* status */
    EDM_TRACE_POOL_REFUSED = 1949,
    EDM_TRACE_START_FAILED = 1951,          /* status */
    EDM_TRACE_BP_NOT_MOVED = 1953,          /* xcid, status */
    EDM_TRACE_BP_NOT_IN_TREE = 1954,        /* xcid, status */
    EDM_TRACE_MAC_NOT_IN_TREE = 1955,       /* status */
    EDM_TRACE_RESYNC_DONE_1 = 1956,         /* mac_cnt_sum, _plain, _static, _local, bd_cnt, bp_cnt */
    EDM_TRACE_RESYNC_DONE = 1957,           /* the same */
    EDM_TRACE_NODE_UNKNOWN = 1958,          /* xcid, bridge id, address */
    EDM_TRACE_LOCK_FAILED = 1959,           /* status */
    EDM_TRACE_FEED_STATUS = 1960,           /* status */
    EDM_TRACE_REQUEST_RESYNC_FAILED = 1964, /* bridge id, xcid, or 0 for everything; status */
    EDM_TRACE_FEED_NO_DUMMY_PORT = 1965,    /* xcid */
    EDM_TRACE_BD_MAC_NOT_UPDATED = 1966,    /* flags, bridge id, address */
    EDM_TRACE_WALK_STARTED = 1967,          /* bridge id, xcid, address; 0 for each that is missing */
    EDM_TRACE_VTEP_TREE_NOT_RUNNING = 1968,
    EDM_TRACE_VTEP_NOT_IN_TREE = 1969,    /* status */
    EDM_TRACE_VTEP_NOT_REGISTERED = 1970, /* xcid */
    EDM_TRACE_SWEEP_VTEP_STOPPED = 1971,  /* xcid, status */
    EDM_TRACE_VTEP_REQUEST_FAILED = 1972, /* request kind, status */
    EDM_TRACE_RESYNC_FAILED = EDM_TRACE_ID_LAST
} edm_trace_id_t;

/* Returns the forwarding process's debug context, or null before there is one. */
L2FIB_EXPORT l2fib_debug_ctx_t *l2fib_debug_get_ctx(void);

/*
 * Records one trace point of `function`, a text with static storage. Reads `value_count` values during the call; of
 * more than EDM_TRACE_MAX_VALUES only the first count. A null context drops the point.
 */
L2FIB_EXPORT void edm_trace_point(l2fib_debug_ctx_t *ctx, uint32_t id, const char *function, const uint64_t *values,
                                  uint32_t value_count);

L2FIB_END_DECLS
