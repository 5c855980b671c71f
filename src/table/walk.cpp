// SPDX-License-Identifier: Apache-2.0

// The six walks. Each is one critical section; the successor of an item is known before the item is handed out, so that
// the callback may destroy what it is given.
#include "table/element.h"
#include "table/root.h"
#include "table/scoped_lock.h"

namespace {

// Calls back for each entry of a port by address; false as soon as the callback stops the walk.
bool visit_macs(const l2fm_edm_bp_t *bp, l2fm_edm_mac_walk_fn callback, void *cookie)
{
    l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get_first(bp);
    while (mac != nullptr) {
        l2fm_edm_mac_t *next = l2fm_edm_table_bp_mac_get_next(bp, mac);
        if (callback(mac, cookie) == 0) {
            return false;
        }
        mac = next;
    }
    return true;
}

// The same for the VTEPs of a port; a port of another kind has none.
bool visit_vteps(l2fm_edm_bp_t *bp, l2fm_edm_vtep_walk_fn callback)
{
    if (bp->bp_type != EDM_BP_TYPE_VXLAN || ordtree_running(&bp->vtep_tree) == 0) {
        return true;
    }
    l2fm_edm_vtep_t *vtep = l2fm_edm_table_bp_vtep_get_first(bp);
    while (vtep != nullptr) {
        l2fm_edm_vtep_t *next = l2fm_edm_table_bp_vtep_get_next(bp, vtep);
        if (callback(vtep, bp) == 0) {
            return false;
        }
        vtep = next;
    }
    return true;
}

// Calls `visit` for each port of a bridge domain by xcid, the next one fetched before; false when it answers false.
template <typename Visit>
bool visit_ports(const l2fm_edm_bd_t *bd, Visit visit)
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

bool visit_vteps_of_bd(const l2fm_edm_bd_t *bd, l2fm_edm_vtep_walk_fn callback)
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    for (; bp != nullptr; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
        if (!visit_vteps(bp, callback)) {
            return false;
        }
    }
    return true;
}

// From the oldest entry to the one that is the newest when the walk begins.
bool visit_list(l2fm_edm_mac_walk_fn callback, void *cookie)
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
        if (callback(edm::mac_of_list_link(link), cookie) == 0) {
            return false;
        }
        if (is_tail) {
            return true;
        }
        link = next;
    }
}

// The shape of every walk: refuse a null callback, hold the lock, tell a stop from an end.
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
    return walk(callback, [=] { return visit_list(callback, cookie); });
}

uint32_t l2fm_edm_table_walk_all_macs_under_bd(l2fm_edm_mac_walk_fn callback, void *cookie, uint32_t bridge_id)
{
    return walk(callback, [=] {
        return visit_ports(l2fm_edm_table_bd_get_by_bridgeid(bridge_id),
                           [=](const l2fm_edm_bp_t *bp) { return visit_macs(bp, callback, cookie); });
    });
}

uint32_t l2fm_edm_table_walk_all_macs_under_bp(l2fm_edm_mac_walk_fn callback, void *cookie, uint32_t xcid)
{
    return walk(callback, [=] { return visit_macs(l2fm_edm_table_bp_get_by_xcid(xcid), callback, cookie); });
}

uint32_t l2fm_edm_table_walk_all_vteps(l2fm_edm_vtep_walk_fn callback)
{
    return walk(callback, [=] {
        const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_first_by_name();
        while (bd != nullptr && visit_vteps_of_bd(bd, callback)) {
            bd = l2fm_edm_table_bd_get_next_by_name(bd);
        }
        return bd == nullptr;
    });
}

uint32_t l2fm_edm_table_walk_all_vteps_under_bd(l2fm_edm_vtep_walk_fn callback, void *, uint32_t bridge_id)
{
    return walk(callback, [=] {
        return visit_ports(l2fm_edm_table_bd_get_by_bridgeid(bridge_id),
                           [=](l2fm_edm_bp_t *bp) { return visit_vteps(bp, callback); });
    });
}

uint32_t l2fm_edm_table_walk_all_vteps_under_bp(l2fm_edm_vtep_walk_fn callback, void *, uint32_t xcid)
{
    return walk(callback, [=] {
        l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
        return bp == nullptr || visit_vteps(bp, callback);
    });
}
