// SPDX-License-Identifier: Apache-2.0

// VTEPs: names, names with records, and the record of one VTEP. Ports by xcid, the VTEPs of a port by address.
//
// Three differences to the handlers of MAC entries:
//  - Only the requested count limits a reply.
//  - A failure at one VTEP fails the request.
//  - If the port of the start key no longer exists, the list ends there.

#include <cstring>

#include "handlers/handlers.h"
#include "handlers/item_key.h"
#include "handlers/reply.h"
#include "handlers/request.h"
#include "table/scoped_lock.h"
#include "table/trace_point.h"

namespace edm {

namespace {

// The attributes that a port must have; 0 matches all ports.
struct port_filter {
    uint32_t seg_info2;
    uint32_t seg_info1;
};

// Where a walk starts.
struct vtep_start {
    l2fm_edm_bp_t *bp;      // null: there is no port
    l2fm_edm_vtep_t *after; // a VTEP of the port, behind which the walk starts; null: at the first one
};

bool passes(const port_filter &filter, const l2fm_edm_bp_t *bp)
{
    return bp->bp_type == EDM_BP_TYPE_VXLAN && (filter.seg_info2 == 0 || filter.seg_info2 == bp->seg_info2)
           && (filter.seg_info1 == 0 || filter.seg_info1 == bp->seg_info1);
}

uint32_t request_failed(const list_reply &reply, request_kind traced, uint32_t status)
{
    EDM_TRACE_AS(reply.handler, EDM_TRACE_VTEP_REQUEST_FAILED, traced, status);
    return status;
}

// Starts behind the VTEP that the key names. If its port exists and the VTEP does not, starts at the next port.
vtep_start resume(const vtep_item_key &key) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(key.xcid);
    if (bp == nullptr) {
        return {nullptr, nullptr};
    }
    l2fm_edm_vtep_t *vtep = l2fm_edm_table_bp_vtep_get(&bp->vtep_tree, key.vtep_addr);
    return {vtep != nullptr ? bp : l2fm_edm_table_bp_get_next(bp), vtep};
}

uint32_t add_vtep(list_reply &reply, const l2fm_edm_bp_t *bp, const l2fm_edm_vtep_t *vtep) L2FIB_REQUIRES_TABLE_LOCK
{
    char name[item_name_size];
    print_vtep_item_name(name, bp, vtep);
    if (reply.kind == request_kind::list) {
        return add_name(reply, name);
    }
    l2fib_vtep_info_t record = {};
    const uint32_t status = l2fib_hw_vtep_fill_parcel(&record, vtep, bp);
    return status != 0 ? status : add_record(reply, name, &record, &l2fib_vtep_info_parcel);
}

// Adds the VTEPs of a port behind `after` until the list has the requested count.
uint32_t add_port(list_reply &reply, const l2fm_edm_bp_t *bp, const l2fm_edm_vtep_t *after) L2FIB_REQUIRES_TABLE_LOCK
{
    const l2fm_edm_vtep_t *vtep =
        after != nullptr ? l2fm_edm_table_bp_vtep_get_next(bp, after) : l2fm_edm_table_bp_vtep_get_first(bp);
    for (; vtep != nullptr && reply.added < reply.request->count; vtep = l2fm_edm_table_bp_vtep_get_next(bp, vtep)) {
        const uint32_t status = add_vtep(reply, bp, vtep);
        if (status != 0) {
            return request_failed(reply, reply.kind, status);
        }
    }
    return 0;
}

uint32_t fill_list(const port_filter &filter, list_reply &reply, vtep_start at) L2FIB_REQUIRES_TABLE_LOCK
{
    for (; at.bp != nullptr && reply.added < reply.request->count; at = {l2fm_edm_table_bp_get_next(at.bp), nullptr}) {
        if (!passes(filter, at.bp)) {
            continue;
        }
        const uint32_t status = add_port(reply, at.bp, at.after);
        // seg_info2 is unique: no other port matches.
        if (status != 0 || filter.seg_info2 != 0) {
            return status;
        }
    }
    return 0;
}

uint32_t serve(const port_filter &filter, list_reply &reply)
{
    vtep_item_key key;
    const bool resumed = has_start_key(reply.request);
    if (resumed && !read_vtep_item_key(reply.request, key)) {
        // Both kinds of request trace this number.
        return request_failed(reply, request_kind::datalist, EDM_ERR_BAD_REQUEST);
    }
    const uint32_t status = resumed ? 0 : resync(reply.handler, EDM_RESYNC_ALL, 0, 0, reply.request->request);
    if (status != 0) {
        return status;
    }
    const scoped_lock lock;
    return fill_list(filter, reply, resumed ? resume(key) : vtep_start{l2fm_edm_table_bp_get_first(), nullptr});
}

uint32_t find_and_answer(uint32_t xcid, uint32_t seg_info2, uint32_t vtep_addr, edm_get_rsp_t *response)
{
    const scoped_lock lock;
    const l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
    if (bp == nullptr || bp->bp_type != EDM_BP_TYPE_VXLAN || bp->seg_info2 != seg_info2) {
        return EDM_ERR_NO_ITEM;
    }
    uint8_t address[vtep_addr_size];
    std::memcpy(address, &vtep_addr, sizeof(address));
    const l2fm_edm_vtep_t *vtep = l2fm_edm_table_bp_vtep_get(&bp->vtep_tree, address);
    if (vtep == nullptr) {
        return EDM_ERR_NO_ITEM;
    }
    l2fib_vtep_info_t record = {};
    const uint32_t status = l2fib_hw_vtep_fill_parcel(&record, vtep, bp);
    return status != 0 ? status : answer_get(response, &record, &l2fib_vtep_info_parcel);
}

} // namespace

} // namespace edm

uint32_t l2fib_hw_vtep_addr_edm_datalist(uint32_t seg_info2, uint32_t seg_info1, edm_list_req_t *request,
                                         optree_list_t **list)
{
    edm::list_reply reply = {__func__, edm::request_kind::datalist, request, *list, 0};
    return finish_list(reply, edm::serve({seg_info2, seg_info1}, reply));
}

uint32_t l2fib_hw_vtep_addr_edm_list(uint32_t seg_info2, uint32_t seg_info1, edm_list_req_t *request,
                                     optree_list_t **list)
{
    edm::list_reply reply = {__func__, edm::request_kind::list, request, *list, 0};
    return finish_list(reply, edm::serve({seg_info2, seg_info1}, reply));
}

uint32_t l2fib_hw_vtep_addr_edm_get(uint64_t /*ignored*/, uint32_t xcid, uint32_t seg_info2, uint32_t vtep_addr,
                                    edm_get_rsp_t *response)
{
    const uint32_t status = edm::resync(__func__, EDM_RESYNC_BP, xcid, xcid, response->request);
    return status != 0 ? status : edm::find_and_answer(xcid, seg_info2, vtep_addr, response);
}
