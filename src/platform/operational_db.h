/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Operational database: reply lists, requests in service, and the request contexts of the handlers.
 *
 * The sibling library (l2fib.h) receives the database's requests, creates the reply list, and calls a handler with a
 * context. The handler fills the list and hands it back through the context, or frees it when it fails.
 *
 * Threads: a request and its list belong to the thread that serves the request; optree_restart_timeout_edm may be
 * called by it at any time while the request is in service. Statuses are 0 for success.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct optree_list optree_list_t;
typedef struct optree_request optree_request_t;

/* The data of an item is a record that a schema describes (parcel.h). */
#define EDM_DATA_TYPE_PARCEL 7u

/* Set in edm_list_req_t::flags: the request continues after the start key. */
#define EDM_LIST_KEY_GIVEN 0x20u

/*
 * Context of a list or datalist request; bytes without a name are the sibling library's.
 *
 *    8  start_key    name of the item after which to continue; valid with EDM_LIST_KEY_GIVEN only
 *   16  count        in: the most items wanted; out: the items added
 *   24  reply_list   out: the list handed back
 *   32  flags
 *   48  request      the request in service
 */
typedef struct edm_list_req {
    uint8_t reserved0[8];
    const char *start_key;
    uint32_t count;
    uint8_t reserved1[4];
    optree_list_t *reply_list;
    uint32_t flags;
    uint8_t reserved2[12];
    optree_request_t *request;
} edm_list_req_t;

static_assert(offsetof(edm_list_req_t, start_key) == 8, "list request layout");
static_assert(offsetof(edm_list_req_t, count) == 16, "list request layout");
static_assert(offsetof(edm_list_req_t, reply_list) == 24, "list request layout");
static_assert(offsetof(edm_list_req_t, flags) == 32, "list request layout");
static_assert(offsetof(edm_list_req_t, request) == 48, "list request layout");

/*
 * Context of a get request.
 *
 *    8  data_type    out: EDM_DATA_TYPE_PARCEL
 *   16  data         out: the encoded record; the caller owns it and releases it with free
 *   24  length       out: its length in bytes
 *   40  request      the request in service
 */
typedef struct edm_get_rsp {
    uint8_t reserved0[8];
    uint32_t data_type;
    uint8_t reserved1[4];
    void *data;
    uint32_t length;
    uint8_t reserved2[12];
    optree_request_t *request;
} edm_get_rsp_t;

static_assert(offsetof(edm_get_rsp_t, data_type) == 8, "get request layout");
static_assert(offsetof(edm_get_rsp_t, data) == 16, "get request layout");
static_assert(offsetof(edm_get_rsp_t, length) == 24, "get request layout");
static_assert(offsetof(edm_get_rsp_t, request) == 40, "get request layout");

/* Adds an item's name to a list; `data_type` is EDM_DATA_TYPE_PARCEL, the last argument 0. The name is copied. */
L2FIB_EXPORT uint32_t optree_edm_list_add(optree_list_t *list, const char *name, uint32_t data_type, uint32_t reserved);

/* Adds an item's name and data; both are copied. */
L2FIB_EXPORT uint32_t optree_edm_datalist_add(optree_list_t *list, const char *name, uint32_t data_type,
                                              uint32_t reserved, const void *data, uint32_t length);

/* Marks a list as part of a longer answer, to be continued after its last item. */
L2FIB_EXPORT uint32_t optree_edm_list_set_more_flag(optree_list_t *list);
L2FIB_EXPORT uint32_t optree_edm_datalist_set_more_flag(optree_list_t *list);

/* Releases a list that is not handed back. */
L2FIB_EXPORT uint32_t optree_edm_list_free(optree_list_t *list);
L2FIB_EXPORT uint32_t optree_edm_datalist_free(optree_list_t *list);

/* Gives a request in service `seconds` from now before it fails; 0 gives it back its ordinary time-out, from now. */
L2FIB_EXPORT uint32_t optree_restart_timeout_edm(optree_request_t *request, uint32_t seconds);

L2FIB_END_DECLS
