// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/cache/cached.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstring>

#include <arpa/inet.h>

namespace forwarding {
namespace {

l2fm_edm_bp_t *cached_port(uint32_t bridge_id, uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK
{
    if (xcid != EDM_XCID_DUMMY) {
        return l2fm_edm_table_bp_get_by_xcid(xcid);
    }
    const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(bridge_id);
    return bd != nullptr ? l2fm_edm_table_bd_bp_get(bd, xcid) : nullptr;
}

l2fm_edm_bp_t *port_for(const l2fib_mac_edm_entry_t &entry) L2FIB_REQUIRES_TABLE_LOCK
{
    if (l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(entry.xcid); bp != nullptr) {
        return bp;
    }
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(entry.bridge_id);
    if (bd == nullptr) {
        bd = l2fm_edm_table_bd_create(entry.bridge_id);
    }
    return l2fm_edm_table_bp_create(bd, entry.xcid);
}

// Files a VXLAN device's own entry. The module treats an address that is new on its port as one that moved there. For
// flood lists that is wrong: each tunnel of a bridge domain may have one, under the same zero address. So an entry that
// is new on its port is created directly, and entries on other ports stay.
uint32_t file_beside(const l2fib_mac_edm_entry_t &entry) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = port_for(entry);
    if (bp == nullptr) {
        return EDM_ERR_NO_RESOURCE;
    }
    if (l2fm_edm_table_bp_mac_get(&bp->mac_tree, entry.mac_addr) == nullptr) {
        return l2fm_edm_table_mac_create(bp, &entry);
    }
    return l2fib_mac_edm_add(&entry);
}

// Files a bridge-own entry. The module refuses it with EDM_ERR_STOPPED while a port holds the same address. In that
// case this function destroys the port's entry and tries again.
uint32_t file_own(const l2fib_mac_edm_entry_t &entry) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint32_t status = l2fib_mac_edm_add(&entry);
    if (status != EDM_ERR_STOPPED) {
        return status;
    }
    l2fm_edm_table_mac_destroy(l2fm_edm_table_mac_get_by_bridgeid_mac(entry.bridge_id, entry.mac_addr));
    return l2fib_mac_edm_add(&entry);
}

} // namespace

l2fm_edm_mac_t *cached_entry(uint32_t bridge_id, uint32_t xcid, const mac_address &mac)
{
    const l2fm_edm_bp_t *bp = cached_port(bridge_id, xcid);
    return bp != nullptr ? l2fm_edm_table_bp_mac_get(&bp->mac_tree, mac.data()) : nullptr;
}

uint32_t cached_entries()
{
    return l2fm_edm_table_mac_get_pool()->mac_cnt_total;
}

uint32_t file_in_cache(const l2fib_mac_edm_entry_t &entry, bool is_of_device)
{
    if ((entry.flags & EDM_MAC_ON_DUMMY_PORT) != 0) {
        return file_own(entry);
    }
    return is_of_device ? file_beside(entry) : l2fib_mac_edm_add(&entry);
}

void destroy_cached_vtep(uint32_t xcid, uint32_t address)
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
    const auto bytes = std::bit_cast<std::array<uint8_t, sizeof(address)>>(htonl(address));
    if (l2fm_edm_vtep_t *vtep = l2fm_edm_table_vtep_lookup(bytes.data(), bp); vtep != nullptr) {
        l2fm_edm_table_vtep_destroy(vtep, bp);
    }
}

std::optional<newest_entry> newest_in_cache()
{
    const l2fm_edm_ll_root_t &list = *l2fm_edm_table_ll_get_root();
    if (list.ll_count == 0) {
        return std::nullopt;
    }
    const auto *link = reinterpret_cast<const char *>(list.ll_last);
    const auto *mac = reinterpret_cast<const l2fm_edm_mac_t *>(link - offsetof(l2fm_edm_mac_t, list_link));
    if (mac->bp == nullptr || mac->bp->bd == nullptr) {
        return std::nullopt;
    }
    newest_entry newest{mac->bp->xcid, static_cast<uint16_t>(mac->bp->bd->bridge_id), {}, cached_entries()};
    std::memcpy(newest.mac.data(), mac->mac_addr, newest.mac.size());
    return newest;
}

} // namespace forwarding
