// SPDX-License-Identifier: Apache-2.0

// MAC entries by port: names, and names with records, by address.

#include <cstring>

#include "handlers/handlers.h"
#include "handlers/item_key.h"
#include "handlers/reply.h"
#include "handlers/request.h"
#include "table/scoped_lock.h"

namespace edm {

namespace {

struct port_query {
    uint32_t request_flags;
    const char *bd_name;
    uint32_t xcid;
};

uint32_t resync_port(const port_query &query, const list_reply &reply) L2FIB_EXCLUDES_TABLE_LOCK
{
    const bool all = (query.request_flags & EDM_REQ_RESYNC_ALL) != 0;
    return resync(reply.handler, all ? EDM_RESYNC_ALL : EDM_RESYNC_BP, all ? 0 : query.xcid, 0, reply.request->request);
}

// Returns the port, or null if it does not exist or belongs to another bridge domain than the request names.
l2fm_edm_bp_t *find_port(const port_query &query) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(query.xcid);
    const bool found = bp != nullptr && bp->bd != nullptr && std::strcmp(bp->bd->bd_name, query.bd_name) == 0;
    return found ? bp : nullptr;
}

// Finds the first entry behind the start key, or null. The key's own entry may no longer exist.
uint32_t resume(const port_query &query, const list_reply &reply, const l2fm_edm_bp_t *bp,
                l2fm_edm_mac_t *&mac) L2FIB_REQUIRES_TABLE_LOCK
{
    mac_item_key key;
    if (!read_mac_item_key(reply.request, configured_names, key)) {
        return mac_request_failed(reply.handler, reply.kind, EDM_ERR_BAD_REQUEST);
    }
    if (std::strcmp(key.full_name, query.bd_name) != 0) {
        return EDM_ERR_NO_ITEM;
    }
    mac = l2fm_edm_table_bp_macaddr_get_next(&bp->mac_tree, key.mac_addr);
    return 0;
}

uint32_t fill_list(const port_query &query, list_reply &reply, const l2fm_edm_bp_t *bp,
                   l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint16_t wanted = wanted_flags(query.request_flags, flagged_entries);
    mac_item_names names = {.rule = domain_part::to_next_colon};
    for (l2fm_edm_mac_t *next; mac != nullptr; mac = next) {
        next = l2fm_edm_table_bp_mac_get_next(bp, mac);
        __builtin_prefetch(next);
        if (!has_wanted_flags(mac, wanted)) {
            continue;
        }
        if (reply.added == max_mac_items_per_reply) {
            return set_more_flag(reply);
        }
        if (add_mac(reply, names, bp->bd, mac) && reply.added == reply.request->count) {
            break;
        }
    }
    return reply.added != 0 ? 0 : EDM_ERR_NO_ITEM;
}

uint32_t serve(const port_query &query, list_reply &reply)
{
    if (query.xcid == EDM_XCID_DUMMY || query.bd_name == nullptr) {
        return EDM_ERR_BAD_REQUEST;
    }
    const bool resumed = has_start_key(reply.request);
    uint32_t status = resumed ? 0 : resync_port(query, reply);
    if (status != 0) {
        return status;
    }
    const scoped_lock lock;
    const l2fm_edm_bp_t *bp = find_port(query);
    if (bp == nullptr) {
        return EDM_ERR_NO_ITEM;
    }
    l2fm_edm_mac_t *mac = nullptr;
    if (resumed) {
        status = resume(query, reply, bp, mac);
    } else {
        mac = l2fm_edm_table_bp_mac_get_first(bp);
    }
    return status != 0 ? status : fill_list(query, reply, bp, mac);
}

} // namespace

} // namespace edm

uint32_t l2fib_hw_mac_addr_bp_edm_list(uint32_t request_flags, const char *bd_name, uint32_t xcid,
                                       edm_list_req_t *request, optree_list_t **list)
{
    edm::list_reply reply = {__func__, edm::request_kind::list, request, *list, 0};
    return finish_list(reply, edm::serve({request_flags, bd_name, xcid}, reply));
}

uint32_t l2fib_hw_mac_addr_bp_edm_datalist(uint32_t request_flags, const char *bd_name, uint32_t xcid,
                                           edm_list_req_t *request, optree_list_t **list)
{
    edm::list_reply reply = {__func__, edm::request_kind::datalist, request, *list, 0};
    return finish_list(reply, edm::serve({request_flags, bd_name, xcid}, reply));
}
