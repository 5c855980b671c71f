// SPDX-License-Identifier: Apache-2.0

#include "handlers/request.h"

#include <cstdlib>

#include "l2fm_edm_table.h"
#include "table/trace_point.h"

namespace edm {

namespace {

// The database has one set of functions for lists and one for datalists.
struct list_calls {
    uint32_t (*set_more_flag)(optree_list_t *list);
    uint32_t (*free)(optree_list_t *list);
};

constexpr list_calls calls_of_list = {optree_edm_list_set_more_flag, optree_edm_list_free};
constexpr list_calls calls_of_datalist = {optree_edm_datalist_set_more_flag, optree_edm_datalist_free};

const list_calls &calls(const list_reply &reply)
{
    return reply.kind == request_kind::list ? calls_of_list : calls_of_datalist;
}

uint32_t count_added(list_reply &reply, uint32_t status)
{
    if (status == 0) {
        reply.added++;
    }
    return status;
}

} // namespace

uint32_t finish_list(const list_reply &reply, uint32_t status)
{
    if (status == 0) {
        reply.request->reply_list = reply.list;
        reply.request->count = reply.added;
    } else {
        calls(reply).free(reply.list);
    }
    return status;
}

uint32_t set_more_flag(const list_reply &reply)
{
    return calls(reply).set_more_flag(reply.list);
}

uint32_t add_name(list_reply &reply, const char *name)
{
    return count_added(reply, optree_edm_list_add(reply.list, name, EDM_DATA_TYPE_PARCEL, 0));
}

uint32_t encode_record(void *record, const parcel_schema_t *schema, encoded_record &encoded)
{
    encoded = {};
    const uint32_t status = parcel_encode(&encoded.data, &encoded.length, record, schema);
    parcel_free_indirections(record, schema);
    if (status != 0) {
        std::free(encoded.data);
        encoded = {};
    }
    return status;
}

uint32_t add_encoded(list_reply &reply, const char *name, encoded_record &encoded)
{
    const uint32_t status =
        optree_edm_datalist_add(reply.list, name, EDM_DATA_TYPE_PARCEL, 0, encoded.data, encoded.length);
    std::free(encoded.data);
    encoded = {};
    return count_added(reply, status);
}

uint32_t add_record(list_reply &reply, const char *name, void *record, const parcel_schema_t *schema)
{
    encoded_record encoded;
    const uint32_t status = encode_record(record, schema, encoded);
    return status != 0 ? status : add_encoded(reply, name, encoded);
}

uint32_t answer_get(edm_get_rsp_t *response, void *record, const parcel_schema_t *schema)
{
    encoded_record encoded;
    const uint32_t status = encode_record(record, schema, encoded);
    if (status == 0) {
        response->data_type = EDM_DATA_TYPE_PARCEL;
        response->data = encoded.data;
        response->length = encoded.length;
    }
    return status;
}

uint32_t resync(const char *handler, uint32_t type, uint32_t arg, uint32_t traced_id, optree_request_t *request)
{
    const uint32_t status = l2fib_mac_edm_thread_send_resync(type, arg, request);
    if (status != 0) {
        EDM_TRACE_AS(handler, EDM_TRACE_REQUEST_RESYNC_FAILED, traced_id, status);
    }
    return status;
}

uint32_t mac_request_failed(const char *handler, request_kind kind, uint32_t status)
{
    EDM_TRACE_AS(handler, EDM_TRACE_MAC_REQUEST_FAILED, kind, status);
    return status;
}

} // namespace edm

uint32_t l2fib_resync_bridge_domain_or_all(const char *bd_name, optree_request_t *request)
{
    uint32_t bridge_id = 0;
    if (bd_name == nullptr) {
        return edm::resync(__func__, EDM_RESYNC_ALL, 0, 0, request);
    }
    if (l2fm_edm_table_bd_name_to_id(bd_name, &bridge_id) != 0) {
        return EDM_ERR_NO_ITEM;
    }
    return edm::resync(__func__, EDM_RESYNC_BD, bridge_id, bridge_id, request);
}
