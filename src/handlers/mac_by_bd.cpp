// SPDX-License-Identifier: Apache-2.0

// MAC entries by bridge domain: names, names with records, and the record of one entry.
//
// A walk visits bridge domains by name, their ports by xcid with the dummy port, and the entries of a port by address.
// Its position is a bridge domain, a port and an entry. The entry is null if the port has no further entry to consider.
//
//      bd 1    port 10       a  b
//              dummy port    c            From (bd 1, port 10, b) find_entry tries b, then c, then d,
//      bd 2    port 20       d            and stops at the first one that passes the filter.

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "handlers/handlers.h"
#include "handlers/item_key.h"
#include "handlers/reply.h"
#include "handlers/request.h"
#include "table/scoped_lock.h"
#include "table/trace_point.h"

namespace edm {

namespace {

// The flagged bits of the datalist handler. The list handler has more of them.
constexpr uint16_t datalist_flagged_entries = EDM_MAC_ON_DUMMY_PORT;

struct mac_filter {
    const char *bd_name;     // null: all bridge domains
    const uint8_t *mac_addr; // null: all addresses
    uint32_t kind;           // EDM_FILTER_ bits
    uint32_t value;
    uint16_t flags; // an entry must have one of them; 0: all entries
};

struct position {
    l2fm_edm_bd_t *bd;
    l2fm_edm_bp_t *bp;
    l2fm_edm_mac_t *mac;
};

// ---- Filters ----

bool passes(const mac_filter &filter, const l2fm_edm_bp_t *bp)
{
    if ((filter.kind & EDM_FILTER_VTEP) != 0) {
        return bp->bp_type == EDM_BP_TYPE_VXLAN;
    }
    if ((filter.kind & EDM_FILTER_PORT) != 0) {
        return bp->bp_type == EDM_BP_TYPE_VXLAN && bp->seg_info2 == filter.value;
    }
    return true;
}

// An entry without a VTEP address is behind no VTEP.
bool is_behind_vtep(const l2fm_edm_mac_t *mac, uint32_t vtep)
{
    return (mac->flags & EDM_MAC_VNI) != 0 && std::memcmp(vtep_addr(mac), &vtep, sizeof(vtep)) == 0;
}

bool passes(const mac_filter &filter, const l2fm_edm_mac_t *mac)
{
    return ((filter.kind & EDM_FILTER_VTEP) == 0 || is_behind_vtep(mac, filter.value))
           && has_wanted_flags(mac, filter.flags);
}

// ---- Steps of the walk ----

l2fm_edm_mac_t *first_entry(const mac_filter &filter, l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    return filter.mac_addr != nullptr ? l2fm_edm_table_bp_mac_get(&bp->mac_tree, filter.mac_addr)
                                      : l2fm_edm_table_bp_mac_get_first(bp);
}

void next_entry(const mac_filter &filter, position &at) L2FIB_REQUIRES_TABLE_LOCK
{
    at.mac = filter.mac_addr != nullptr ? nullptr : l2fm_edm_table_bp_mac_get_next(at.bp, at.mac);
}

// Steps to the first port of the next bridge domain that has a port. Returns false at the end.
bool next_bridge_domain(const mac_filter &filter, position &at) L2FIB_REQUIRES_TABLE_LOCK
{
    if (filter.bd_name != nullptr) {
        return false;
    }
    do {
        at.bd = l2fm_edm_table_bd_get_next_by_name(at.bd);
        at.bp = l2fm_edm_table_bd_bp_get_first(at.bd);
    } while (at.bd != nullptr && at.bp == nullptr);
    return at.bp != nullptr;
}

// Steps to the next port. Behind the last port of a domain, that is the first port of the next domain that has one,
// unless the filter names a domain. The entry is the port's first, or the one with the filter's address. It is null if
// there is none or the filter rejects the port. Returns false behind the last port.
bool next_port(const mac_filter &filter, position &at) L2FIB_REQUIRES_TABLE_LOCK
{
    at.bp = l2fm_edm_table_bd_bp_get_next(at.bd, at.bp);
    if (at.bp == nullptr && !next_bridge_domain(filter, at)) {
        return false;
    }
    at.mac = passes(filter, at.bp) ? first_entry(filter, at.bp) : nullptr;
    return true;
}

// Steps to the first entry that passes the filter, the current one included. Returns false at the end.
bool find_entry(const mac_filter &filter, position &at) L2FIB_REQUIRES_TABLE_LOCK
{
    for (;;) {
        while (at.mac != nullptr) {
            if (passes(filter, at.mac)) {
                return true;
            }
            next_entry(filter, at);
        }
        if (!next_port(filter, at)) {
            return false;
        }
    }
}

// ---- Start of a walk ----

void trace_start(const char *handler, const position &at)
{
    constexpr uint8_t no_address[mac_addr_size] = {};
    const uint8_t *address = at.mac != nullptr ? at.mac->mac_addr : no_address;
    EDM_TRACE_AS(handler, EDM_TRACE_WALK_STARTED, at.bd != nullptr ? at.bd->bridge_id : 0,
                 at.bp != nullptr ? at.bp->xcid : EDM_XCID_NONE, trace_word(address), trace_word(address + 2),
                 trace_word(address + 4));
}

// Starts at the beginning of the scope. Returns false if there is no bridge domain.
bool start(const mac_filter &filter, const list_reply &reply, position &at) L2FIB_REQUIRES_TABLE_LOCK
{
    at.bd = filter.bd_name != nullptr ? l2fm_edm_table_bd_get_by_name(filter.bd_name)
                                      : l2fm_edm_table_bd_get_first_by_name();
    at.bp = l2fm_edm_table_bd_bp_get_first(at.bd);
    at.mac = at.bp != nullptr ? first_entry(filter, at.bp) : nullptr;
    trace_start(reply.handler, at);
    if (at.bp != nullptr && !passes(filter, at.bp)) {
        at.mac = nullptr;
    }
    return at.bd != nullptr;
}

// Starts behind the entry that the key names, without a second look at the filter for its port. Returns false if that
// entry no longer exists.
bool resume(const mac_filter &filter, const mac_item_key &key, position &at) L2FIB_REQUIRES_TABLE_LOCK
{
    at.mac = l2fm_edm_table_mac_get_by_bdname_mac(key.full_name, key.mac_addr);
    at.bp = at.mac != nullptr ? at.mac->bp : nullptr;
    at.bd = at.bp != nullptr ? at.bp->bd : nullptr;
    if (at.bd == nullptr) {
        return false;
    }
    next_entry(filter, at);
    return true;
}

// Reads the start key and checks that it belongs to the request.
uint32_t read_key(const mac_filter &filter, const list_reply &reply, mac_item_key &key)
{
    if (!read_mac_item_key(reply.request, configured_names, key)) {
        return mac_request_failed(reply.handler, reply.kind, EDM_ERR_BAD_REQUEST);
    }
    const bool same_bd = filter.bd_name == nullptr || std::strcmp(filter.bd_name, key.full_name) == 0;
    const bool same_mac =
        filter.mac_addr == nullptr || std::memcmp(filter.mac_addr, key.mac_addr, sizeof(key.mac_addr)) == 0;
    return same_bd && same_mac ? 0 : EDM_ERR_NO_ITEM;
}

// ---- List and datalist ----

uint32_t fill_list(const mac_filter &filter, list_reply &reply, position at) L2FIB_REQUIRES_TABLE_LOCK
{
    mac_item_names names = {.rule = domain_part::to_next_colon};
    while (find_entry(filter, at)) {
        if (reply.added == max_mac_items_per_reply) {
            const uint32_t status = set_more_flag(reply);
            return status == 0 ? 0 : mac_request_failed(reply.handler, reply.kind, status);
        }
        const position found = at;
        next_entry(filter, at);
        __builtin_prefetch(at.mac);
        if (add_mac(reply, names, found.bd, found.mac) && reply.added == reply.request->count) {
            break;
        }
    }
    return reply.added != 0 ? 0 : mac_request_failed(reply.handler, reply.kind, EDM_ERR_NO_ITEM);
}

uint32_t serve(const mac_filter &filter, list_reply &reply)
{
    mac_item_key key;
    const bool resumed = has_start_key(reply.request);
    const uint32_t status = resumed ? read_key(filter, reply, key)
                                    : l2fib_resync_bridge_domain_or_all(filter.bd_name, reply.request->request);
    if (status != 0) {
        return status;
    }
    const scoped_lock lock;
    position at;
    if (!(resumed ? resume(filter, key, at) : start(filter, reply, at))) {
        return mac_request_failed(reply.handler, reply.kind, EDM_ERR_NO_ITEM);
    }
    return fill_list(filter, reply, at);
}

// ---- Get ----

// Asks the hardware about an entry. Both buffers are zeroed, or null if memory was short.
uint32_t query_hardware(const char *bd_name, const uint8_t *mac_addr, l2fib_mac_query_request_t *request,
                        l2fib_mac_query_t *query)
{
    if (request == nullptr || query == nullptr) {
        return ENOMEM;
    }
    const uint32_t status = l2fm_edm_table_bd_name_to_id(bd_name, &request->bridge_id);
    if (status != 0) {
        return status;
    }
    std::memcpy(query->mac_addr, mac_addr, sizeof(query->mac_addr));
    void *argument = request;
    return l2fib_platform_ctl_wrapper(L2FIB_CTL_QUERY_MAC, sizeof(argument), &argument, query);
}

// Sets the entry's static flag if the hardware reports it. The counters keep what they counted the entry as.
uint32_t refresh_from_hardware(const char *bd_name, l2fm_edm_mac_t *mac)
{
    auto *request = static_cast<l2fib_mac_query_request_t *>(std::calloc(1, sizeof(l2fib_mac_query_request_t)));
    auto *query = static_cast<l2fib_mac_query_t *>(std::calloc(1, sizeof(l2fib_mac_query_t)));
    const uint32_t status = query_hardware(bd_name, mac->mac_addr, request, query);
    if (status == 0 && (query->state & L2FIB_MAC_QUERY_STATIC) != 0) {
        mac->flags = static_cast<uint16_t>(mac->flags | EDM_MAC_STATIC);
    }
    std::free(query);
    std::free(request);
    return status;
}

uint32_t find_and_fill(const char *bd_name, const uint8_t *mac_addr, l2fib_mac_info_t *record)
{
    const scoped_lock lock;
    l2fm_edm_mac_t *mac = l2fm_edm_table_mac_get_by_bdname_mac(bd_name, mac_addr);
    if (mac == nullptr) {
        return EDM_ERR_NO_ITEM;
    }
    const uint32_t status = refresh_from_hardware(bd_name, mac);
    return status != 0 ? status : l2fib_hw_edm_fill_mac_parcel(record, mac);
}

} // namespace

} // namespace edm

uint32_t l2fib_hw_mac_addr_edm_datalist(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                        uint32_t filter_kind, uint32_t filter_value, edm_list_req_t *request,
                                        optree_list_t **list)
{
    const uint16_t flags = edm::wanted_flags(request_flags, edm::datalist_flagged_entries);
    edm::list_reply reply = {__func__, edm::request_kind::datalist, request, *list, 0};
    return finish_list(reply, edm::serve({bd_name, mac_addr, filter_kind, filter_value, flags}, reply));
}

uint32_t l2fib_hw_mac_addr_edm_list(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                    uint32_t filter_kind, uint32_t filter_value, edm_list_req_t *request,
                                    optree_list_t **list)
{
    const uint16_t flags = edm::wanted_flags(request_flags, edm::flagged_entries);
    edm::list_reply reply = {__func__, edm::request_kind::list, request, *list, 0};
    return finish_list(reply, edm::serve({bd_name, mac_addr, filter_kind, filter_value, flags}, reply));
}

uint32_t l2fib_hw_mac_addr_edm_get(uint32_t /*request_flags*/, const char *bd_name, const uint8_t *mac_addr,
                                   edm_get_rsp_t *response)
{
    uint32_t status = l2fib_resync_bridge_domain_or_all(bd_name, response->request);
    if (status != 0) {
        return status;
    }
    l2fib_mac_info_t record;
    status = edm::find_and_fill(bd_name, mac_addr, &record);
    if (status == 0) {
        status = edm::answer_get(response, &record, &l2fib_bridge_mac_info_parcel);
    }
    return status == 0 ? 0 : edm::mac_request_failed(__func__, edm::request_kind::get, status);
}
