// SPDX-License-Identifier: Apache-2.0

// The frame of every request: the resync before it, the ownership of the reply list, the end of the request.
//
// A list handler gets a reply list from its caller. If it succeeds, finish_list stores the list in the request's
// context. If it fails, finish_list frees it. No other function stores or frees a list.
//
// A handler waits for the resync first and takes the table lock afterwards:
//
//      status = resync(handler, EDM_RESYNC_ALL, 0, 0, request->request);
//      const scoped_lock lock;
//      ...                                                 add_name or add_record for each item
//      return finish_list(reply, status);
//
// Threads: Mac-Edm-Thread.
#pragma once

#include <cstdint>

#include "l2fib_mac_edm.h"

namespace edm {

// Kinds of requests, with their numbers in trace points.
enum class request_kind : uint32_t { datalist = 86, list = 87, get = 88 };

// How many MAC items one reply carries at most. The requester asks again for more. It bounds how long a request holds
// the table lock.
constexpr uint32_t max_mac_items_per_reply = 200;

// A reply list while a handler fills it.
struct list_reply {
    const char *handler; // the handler's name in trace points
    request_kind kind;   // list or datalist
    edm_list_req_t *request;
    optree_list_t *list;
    uint32_t added; // items added so far
};

// Ends a list request: stores the list and the number of its items if `status` is 0, else frees the list. Returns
// `status`.
uint32_t finish_list(const list_reply &reply, uint32_t status);

// Marks the list as part of a longer answer.
uint32_t set_more_flag(const list_reply &reply);

// Adds an item without data.
uint32_t add_name(list_reply &reply, const char *name);

// An encoded record. The holder owns `data` until it adds the record or hands it over; null: no record.
struct encoded_record {
    void *data;
    uint32_t length; // in bytes
};

// Encodes a filled record. Releases the record's texts in any case. On failure `encoded` is empty.
uint32_t encode_record(void *record, const parcel_schema_t *schema, encoded_record &encoded);

// Adds an item with its data. Releases the data in any case.
uint32_t add_encoded(list_reply &reply, const char *name, encoded_record &encoded);

// Encodes a filled record and adds it as an item.
uint32_t add_record(list_reply &reply, const char *name, void *record, const parcel_schema_t *schema);

// Encodes a filled record and hands it over as the answer of a get request. Releases the record's texts in any case.
uint32_t answer_get(edm_get_rsp_t *response, void *record, const parcel_schema_t *schema);

// Asks for a resync of type EDM_RESYNC_ALL, _BD or _BP with its argument and waits for its end. Traces a failure in the
// name of `handler` with `traced_id`.
uint32_t resync(const char *handler, uint32_t type, uint32_t arg, uint32_t traced_id,
                optree_request_t *request) L2FIB_EXCLUDES_TABLE_LOCK;

// Traces the failure of a request for MAC entries or counts. Returns its status.
uint32_t mac_request_failed(const char *handler, request_kind kind, uint32_t status);

} // namespace edm

extern "C" {
// Resyncs a bridge domain, or everything if `bd_name` is null. Returns EDM_ERR_NO_ITEM if no bridge domain has the
// name.
uint32_t l2fib_resync_bridge_domain_or_all(const char *bd_name, optree_request_t *request) L2FIB_EXCLUDES_TABLE_LOCK;
}
