// SPDX-License-Identifier: Apache-2.0

// The frame of every request: what a handler brings up to date first, who owns the reply, how a request ends.
//
// A list handler gets a reply list from its caller. It either hands it back through the request's context, when it
// succeeds, or frees it: that is decided at one place, finish_list, by the handler's status alone. Nothing else frees
// or hands over a list.
//
// Threads: all of it on Mac-Edm-Thread. A resync is waited for before the table lock is taken, never with it held.
#pragma once

#include <cstdint>

#include "l2fib_mac_edm.h"

namespace edm {

// Trace points of the handlers.
constexpr uint32_t trace_mac_request = 1918;   // a request for MAC entries or counts failed: kind, status
constexpr uint32_t trace_resync_failed = 1964; // id of the scope or 0, status
constexpr uint32_t trace_walk_start = 1967; // bridge id, xcid, the three words of the address; 0 for what is not there
constexpr uint32_t trace_vtep_request = 1972; // a request for a list of VTEPs failed: kind, status

// Kinds of requests, numbered as in trace points.
enum class request_kind : uint32_t { datalist = 86, list = 87, get = 88 };

// The most items that one reply with MAC entries carries. The requester comes again for more.
constexpr uint32_t reply_batch = 200;

// A list reply in the making.
struct list_reply {
    const char *handler; // its name in trace points
    request_kind kind;   // list or datalist
    edm_list_req_t *request;
    optree_list_t *list;
    uint32_t added;
};

// The end of every list request: hands the list over with the number of items, or frees it. Returns `status`.
uint32_t finish_list(const list_reply &reply, uint32_t status);

// Tells the requester to come again for more.
uint32_t set_more_flag(const list_reply &reply);

// Adds an item without data.
uint32_t add_name(list_reply &reply, const char *name);

// An encoded record. Empty, or owned until it is added or handed over.
struct encoded_record {
    void *data;
    uint32_t length;
};

// Encodes a filled record and releases its texts, whatever comes of it. `encoded` is empty on failure.
uint32_t encode_record(void *record, const parcel_schema_t *schema, encoded_record &encoded);

// Adds an item with its data, which is released, whatever comes of it.
uint32_t add_encoded(list_reply &reply, const char *name, encoded_record &encoded);

// Both of these.
uint32_t add_record(list_reply &reply, const char *name, void *record, const parcel_schema_t *schema);

// Encodes a filled record, releases its texts and hands it over as the answer of a get request.
uint32_t answer_get(edm_get_rsp_t *response, void *record, const parcel_schema_t *schema);

// Asks for a resync of type EDM_RESYNC_ALL, _BD or _BP with its argument, and waits for it. A failure is traced in the
// name of `handler` with `traced_id`.
uint32_t resync(const char *handler, uint32_t type, uint32_t arg, uint32_t traced_id, optree_request_t *request);

// Traces the failure of a request for MAC entries and returns its status.
uint32_t mac_request_failed(const char *handler, request_kind kind, uint32_t status);

} // namespace edm

extern "C" {
// Brings a bridge domain up to date, or everything when no name is given. EDM_ERR_NO_ITEM when the name means nothing.
uint32_t l2fib_resync_bridge_domain_or_all(const char *bd_name, optree_request_t *request);
}
