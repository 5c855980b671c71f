// SPDX-License-Identifier: Apache-2.0

// MAC entries with their records in order of creation.
//
// Three differences to the other lists of MAC entries:
//  - A failure at one entry fails the request.
//  - An empty cache is an error.
//  - An item name's domain is all of the full name behind its first ":".

#include <cstring>

#include "handlers/handlers.h"
#include "handlers/item_key.h"
#include "handlers/reply.h"
#include "handlers/request.h"
#include "table/root.h"
#include "table/scoped_lock.h"

namespace edm {

namespace {

// The debug levels, a set of bits, at which this handler prints.
constexpr uint32_t debug_level = 0x101;

bool debugging()
{
    return (l2fib_debug_get_enabled_bitset() & debug_level) != 0;
}

bool is_placed(const l2fm_edm_mac_t *mac)
{
    return mac->bp != nullptr && mac->bp->bd != nullptr;
}

// Returns the link behind the key's entry: the list's end if that entry is the last, null if it no longer exists.
l2fm_edm_ll_link_t *resume(const mac_item_key &key) L2FIB_REQUIRES_TABLE_LOCK
{
    const l2fm_edm_mac_t *mac = l2fm_edm_table_mac_get_by_bdname_mac(key.full_name, key.mac_addr);
    return mac != nullptr ? mac->list_link.next : nullptr;
}

// Returns the first link, or null if the list is empty.
l2fm_edm_ll_link_t *start() L2FIB_REQUIRES_TABLE_LOCK
{
    return root.ll_root.ll_count != 0 ? root.ll_root.ll_first : nullptr;
}

void debug_item(const list_reply &reply, const char *name, const l2fm_edm_mac_t *mac)
{
    char address[item_name_size];
    l2fib_hw_mac_to_item_key(mac, address, sizeof(address));
    const char *full_name = mac->bp->bd->bd_name;
    const name_parts parts = split_full_name(full_name, domain_part::to_end);
    char group[EDM_BD_NAME_SIZE] = {};
    char domain[EDM_BD_NAME_SIZE] = {};
    parts.group.copy(group, sizeof(group) - 1);
    parts.domain.copy(domain, sizeof(domain) - 1);
    l2vpn_vdbgf(l2fib_debug_get_ctx(), debug_level, reply.handler,
                "Setting item_name %s with mac %s bg_name %s bd_name %s for bridge bridge_name %s", name, address,
                group, domain, full_name);
}

uint32_t encode_entry(const list_reply &reply, const l2fm_edm_mac_t *mac,
                      encoded_record &encoded) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fib_mac_info_t record;
    const uint32_t status = l2fib_hw_edm_fill_mac_parcel(&record, mac);
    if (status != 0 && debugging()) {
        l2vpn_vdbgf(l2fib_debug_get_ctx(), debug_level, reply.handler, "l2fib_hw_edm_fill_mac_parcel failed %d",
                    static_cast<int>(status));
    }
    return status != 0 ? status : encode_record(&record, &l2fib_bridge_mac_info_parcel, encoded);
}

uint32_t add_entry(list_reply &reply, mac_item_names &names, const l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    encoded_record encoded;
    uint32_t status = encode_entry(reply, mac, encoded);
    if (status != 0) {
        return status;
    }
    const char *name = print_mac_item_name(names, mac->bp->bd, mac);
    if (debugging()) {
        debug_item(reply, name, mac);
    }
    status = add_encoded(reply, name, encoded);
    if (status != 0 && debugging()) {
        l2vpn_vdbgf(l2fib_debug_get_ctx(), debug_level, reply.handler, "optree_edm_datalist_add failed %d",
                    static_cast<int>(status));
    }
    return status;
}

uint32_t fill_list(list_reply &reply, l2fm_edm_ll_link_t *link) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint32_t wanted = reply.request->count;
    reply.request->count = 0;
    mac_item_names names = {.rule = domain_part::to_end};
    while (link != list_end() && link != nullptr && reply.added != wanted) {
        const l2fm_edm_mac_t *mac = mac_of_list_link(link);
        if (!is_placed(mac)) {
            break;
        }
        if (reply.added == max_mac_items_per_reply) {
            // A failure is ignored: the requester then takes this page for the last one, and all its items are right.
            set_more_flag(reply);
            break;
        }
        link = mac->list_link.next;
        __builtin_prefetch(link);
        const uint32_t status = add_entry(reply, names, mac);
        if (status != 0) {
            return mac_request_failed(reply.handler, reply.kind, status);
        }
    }
    return 0;
}

uint32_t serve(list_reply &reply)
{
    mac_item_key key;
    const bool resumed = has_start_key(reply.request);
    if (resumed && !read_mac_item_key(reply.request, any_names, key)) {
        return mac_request_failed(reply.handler, reply.kind, EDM_ERR_BAD_REQUEST);
    }
    const uint32_t status = resumed ? 0 : resync(reply.handler, EDM_RESYNC_ALL, 0, 0, reply.request->request);
    if (status != 0) {
        return status;
    }
    const scoped_lock lock;
    l2fm_edm_ll_link_t *link = resumed ? resume(key) : start();
    if (link == nullptr || (link != list_end() && !is_placed(mac_of_list_link(link)))) {
        return mac_request_failed(reply.handler, reply.kind, EDM_ERR_BAD_REQUEST);
    }
    return fill_list(reply, link);
}

} // namespace

} // namespace edm

uint32_t l2fib_hw_mac_aging_edm_datalist(edm_list_req_t *request, optree_list_t **list)
{
    edm::list_reply reply = {__func__, edm::request_kind::datalist, request, *list, 0};
    return finish_list(reply, edm::serve(reply));
}
