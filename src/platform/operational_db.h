/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Operational database: reply lists, requests in service, and the request contexts of the handlers.
 *
 * The sibling library (l2fib.h) receives the database's requests. It creates the reply list and calls a handler with a
 * context. If the handler succeeds, it has filled the list and stored it in the context. If it fails, it has freed the
 * list.
 *
 * Threads: a request and its list belong to the thread that serves the request. That thread may call
 * optree_restart_timeout_edm at any time while the request is in service.
 *
 * Errors: statuses are 0 for success.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct optree_list optree_list_t;
typedef struct optree_request optree_request_t;

/* The data type of an item: its data is a record that a schema describes (parcel.h). */
#define EDM_DATA_TYPE_PARCEL 7u

/* A bit of edm_list_req_t::flags: the request continues after the start key. */
#define EDM_LIST_KEY_GIVEN 0x20u

/*
 * Context of a list or datalist request. The sibling library owns the bytes without a name.
 *
 *      0     8            16       20      24            32        36       48          56
 *      +-----+------------+--------+-------+-------------+---------+--------+-----------+
 *      |     | start_key  | count  |       | reply_list  | flags   |        | request   |
 *      +-----+------------+--------+-------+-------------+---------+--------+-----------+
 */
typedef struct edm_list_req {
    uint8_t reserved0[8];
    const char *start_key; /* in: name of the item after which to continue; valid with EDM_LIST_KEY_GIVEN only */
    uint32_t count;        /* in: how many items the requester wants at most; out: how many the handler added */
    uint8_t reserved1[4];
    optree_list_t *reply_list; /* out: the list that the handler hands back */
    uint32_t flags;            /* in */
    uint8_t reserved2[12];
    optree_request_t *request; /* in: the request in service */
} edm_list_req_t;

static_assert(offsetof(edm_list_req_t, start_key) == 8, "list request layout");
static_assert(offsetof(edm_list_req_t, count) == 16, "list request layout");
static_assert(offsetof(edm_list_req_t, reply_list) == 24, "list request layout");
static_assert(offsetof(edm_list_req_t, flags) == 32, "list request layout");
static_assert(offsetof(edm_list_req_t, request) == 48, "list request layout");

/*
 * Context of a get request. The sibling library owns the bytes without a name.
 *
 *      0     8            12      16        24        28       40          48
 *      +-----+------------+-------+---------+---------+--------+-----------+
 *      |     | data_type  |       | data    | length  |        | request   |
 *      +-----+------------+-------+---------+---------+--------+-----------+
 */
typedef struct edm_get_rsp {
    uint8_t reserved0[8];
    uint32_t data_type; /* out: EDM_DATA_TYPE_PARCEL */
    uint8_t reserved1[4];
    void *data;      /* out: the encoded record; the library owns it and releases it with free */
    uint32_t length; /* out: length of `data` in bytes */
    uint8_t reserved2[12];
    optree_request_t *request; /* in: the request in service */
} edm_get_rsp_t;

static_assert(offsetof(edm_get_rsp_t, data_type) == 8, "get request layout");
static_assert(offsetof(edm_get_rsp_t, data) == 16, "get request layout");
static_assert(offsetof(edm_get_rsp_t, length) == 24, "get request layout");
static_assert(offsetof(edm_get_rsp_t, request) == 40, "get request layout");

/* Adds an item's name to a list and copies it. `data_type` is EDM_DATA_TYPE_PARCEL, `reserved` is 0. */
L2FIB_EXPORT uint32_t optree_edm_list_add(optree_list_t *list, const char *name, uint32_t data_type, uint32_t reserved);

/* Adds an item's name and its `length` bytes of data, and copies both. `data_type` and `reserved` as above. */
L2FIB_EXPORT uint32_t optree_edm_datalist_add(optree_list_t *list, const char *name, uint32_t data_type,
                                              uint32_t reserved, const void *data, uint32_t length);

/* Mark a list as part of a longer answer. The requester continues after the list's last item. */
L2FIB_EXPORT uint32_t optree_edm_list_set_more_flag(optree_list_t *list);
L2FIB_EXPORT uint32_t optree_edm_datalist_set_more_flag(optree_list_t *list);

/* Release a list that the handler does not hand back. */
L2FIB_EXPORT uint32_t optree_edm_list_free(optree_list_t *list);
L2FIB_EXPORT uint32_t optree_edm_datalist_free(optree_list_t *list);

/* Sets the time-out of a request in service to `seconds` from now. With 0 the ordinary time-out runs again, from now.
 */
L2FIB_EXPORT uint32_t optree_restart_timeout_edm(optree_request_t *request, uint32_t seconds);

L2FIB_END_DECLS
