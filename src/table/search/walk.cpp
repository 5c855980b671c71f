// SPDX-License-Identifier: Apache-2.0

// The six walks. Each is one critical section. A walk finds the successor of an item before it calls the callback, so
// the callback may destroy the item.
#include "table/element.h"
#include "table/root.h"
#include "table/scoped_lock.h"

namespace {

// Calls the callback for each entry of a port, by address. Returns false if the callback stops the walk.
bool visit_macs(const l2fm_edm_bp_t *bp, l2fm_edm_mac_walk_fn callback, void *cookie) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get_first(bp);
    while (mac != nullptr) {
        l2fm_edm_mac_t *next = l2fm_edm_table_bp_mac_get_next(bp, mac);
        if (callback(mac, cookie) == EDM_WALK_STOP) {
            return false;
        }
        mac = next;
    }
    return true;
}

// The same for the VTEPs of a port. A port of another kind has none.
bool visit_vteps(l2fm_edm_bp_t *bp, l2fm_edm_vtep_walk_fn callback) L2FIB_REQUIRES_TABLE_LOCK
{
    if (bp->bp_type != EDM_BP_TYPE_VXLAN || ordtree_running(&bp->vtep_tree) == 0) {
        return true;
    }
    l2fm_edm_vtep_t *vtep = l2fm_edm_table_bp_vtep_get_first(bp);
    while (vtep != nullptr) {
        l2fm_edm_vtep_t *next = l2fm_edm_table_bp_vtep_get_next(bp, vtep);
        if (callback(vtep, bp) == EDM_WALK_STOP) {
            return false;
        }
        vtep = next;
    }
    return true;
}

// Calls `visit` for each port of a bridge domain, by xcid, until it returns false. Returns false then.
template <typename Visit>
bool visit_ports(const l2fm_edm_bd_t *bd, Visit visit) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    while (bp != nullptr) {
        l2fm_edm_bp_t *next = l2fm_edm_table_bd_bp_get_next(bd, bp);
        if (!visit(bp)) {
            return false;
        }
        bp = next;
    }
    return true;
}

bool visit_macs_of_bd(const l2fm_edm_bd_t *bd, l2fm_edm_mac_walk_fn callback, void *cookie) L2FIB_REQUIRES_TABLE_LOCK
{
    const auto visit = [=](const l2fm_edm_bp_t *bp)
                           L2FIB_REQUIRES_TABLE_LOCK { return visit_macs(bp, callback, cookie); };
    return visit_ports(bd, visit);
}

bool visit_vteps_of_bd(const l2fm_edm_bd_t *bd, l2fm_edm_vtep_walk_fn callback) L2FIB_REQUIRES_TABLE_LOCK
{
    return visit_ports(bd, [=](l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK { return visit_vteps(bp, callback); });
}

// Calls the callback for each entry, from the oldest one to the newest one at the start of the walk.
bool visit_list(l2fm_edm_mac_walk_fn callback, void *cookie) L2FIB_REQUIRES_TABLE_LOCK
{
    const l2fm_edm_ll_root_t &list = edm::root.ll_root;
    if (list.ll_count == 0) {
        return true;
    }
    l2fm_edm_ll_link_t *link = list.ll_first;
    const l2fm_edm_ll_link_t *const tail = list.ll_last;
    for (;;) {
        l2fm_edm_ll_link_t *next = link->next;
        __builtin_prefetch(next);
        const bool is_tail = link == tail;
        if (callback(edm::mac_of_list_link(link), cookie) == EDM_WALK_STOP) {
            return false;
        }
        if (is_tail) {
            return true;
        }
        link = next;
    }
}

// The frame of every walk: it rejects a null callback, holds the lock, and reports whether the callback stopped the
// walk.
template <typename Callback, typename Visit>
uint32_t walk(Callback callback, Visit visit)
{
    if (callback == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    const edm::scoped_lock lock;
    return visit() ? 0 : EDM_ERR_STOPPED;
}

} // namespace

uint32_t l2fm_edm_table_walk_all_macs(l2fm_edm_mac_walk_fn callback, void *cookie)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK { return visit_list(callback, cookie); });
}

uint32_t l2fm_edm_table_walk_all_macs_under_bd(l2fm_edm_mac_walk_fn callback, void *cookie, uint32_t bridge_id)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        return visit_macs_of_bd(l2fm_edm_table_bd_get_by_bridgeid(bridge_id), callback, cookie);
    });
}

uint32_t l2fm_edm_table_walk_all_macs_under_bp(l2fm_edm_mac_walk_fn callback, void *cookie, uint32_t xcid)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        return visit_macs(l2fm_edm_table_bp_get_by_xcid(xcid), callback, cookie);
    });
}

uint32_t l2fm_edm_table_walk_all_vteps(l2fm_edm_vtep_walk_fn callback)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_first_by_name();
        while (bd != nullptr && visit_vteps_of_bd(bd, callback)) {
            bd = l2fm_edm_table_bd_get_next_by_name(bd);
        }
        return bd == nullptr;
    });
}

uint32_t l2fm_edm_table_walk_all_vteps_under_bd(l2fm_edm_vtep_walk_fn callback, void *, uint32_t bridge_id)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        return visit_vteps_of_bd(l2fm_edm_table_bd_get_by_bridgeid(bridge_id), callback);
    });
}

uint32_t l2fm_edm_table_walk_all_vteps_under_bp(l2fm_edm_vtep_walk_fn callback, void *, uint32_t xcid)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
        return bp == nullptr || visit_vteps(bp, callback);
    });
}
