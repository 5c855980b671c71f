// SPDX-License-Identifier: Apache-2.0

// Mark and sweep: they remove the entries that the hardware no longer holds. Each operation is two walks, one over
// VTEPs and one over MAC entries. Each walk is one critical section, and a feed may run between the two. Mark walks
// over VTEPs first: such a feed can then leave a VTEP without an entry, but no entry without its VTEP. Sweep walks over
// MAC entries first.
#include "l2fm_edm_table.h"
#include "table/search/walk.h"
#include "table/trace_point.h"

namespace {

uint32_t l2fib_mac_edm_mark(l2fm_edm_mac_t *mac, void *)
{
    if (mac == nullptr || mac->bp == nullptr) {
        return EDM_WALK_STOP;
    }
    mac->flags |= EDM_MAC_STALE;
    mac->bp->refresh_pending = 1;
    return EDM_WALK_CONTINUE;
}

uint32_t l2fib_vtep_edm_mark(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *)
{
    if (vtep == nullptr) {
        return EDM_WALK_STOP;
    }
    vtep->stale = 1;
    return EDM_WALK_CONTINUE;
}

uint32_t l2fib_mac_edm_sweep(l2fm_edm_mac_t *mac, void *) L2FIB_REQUIRES_TABLE_LOCK
{
    if (mac == nullptr) {
        return EDM_WALK_STOP;
    }
    if ((mac->flags & EDM_MAC_STALE) == 0) {
        return EDM_WALK_CONTINUE;
    }
    const uint32_t xcid = mac->xcid;
    if (const uint32_t status = l2fm_edm_table_mac_destroy(mac); status != 0) {
        EDM_TRACE(EDM_TRACE_SWEEP_MAC_STOPPED, xcid, status);
        return EDM_WALK_STOP;
    }
    return EDM_WALK_CONTINUE;
}

uint32_t l2fib_vtep_edm_sweep(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    if (vtep == nullptr || bp == nullptr) {
        return EDM_WALK_STOP;
    }
    if (vtep->stale == 0) {
        return EDM_WALK_CONTINUE;
    }
    if (const uint32_t status = l2fm_edm_table_vtep_destroy(vtep, bp); status != 0) {
        EDM_TRACE(EDM_TRACE_SWEEP_VTEP_STOPPED, bp->xcid, status);
        return EDM_WALK_STOP;
    }
    return EDM_WALK_CONTINUE;
}

} // namespace

uint32_t l2fib_mac_edm_mark_all(void)
{
    l2fm_edm_table_walk_all_vteps(l2fib_vtep_edm_mark);
    return l2fm_edm_table_walk_all_macs(l2fib_mac_edm_mark, nullptr);
}

uint32_t l2fib_mac_edm_mark_bd(uint32_t bridge_id)
{
    l2fm_edm_table_walk_all_vteps_under_bd(l2fib_vtep_edm_mark, nullptr, bridge_id & EDM_BRIDGE_ID_MASK);
    return l2fm_edm_table_walk_all_macs_under_bd(l2fib_mac_edm_mark, nullptr, bridge_id & EDM_BRIDGE_ID_MASK);
}

uint32_t l2fib_mac_edm_mark_bp(uint32_t xcid)
{
    l2fm_edm_table_walk_all_vteps_under_bp(l2fib_vtep_edm_mark, nullptr, xcid);
    return l2fm_edm_table_walk_all_macs_under_bp(l2fib_mac_edm_mark, nullptr, xcid);
}

uint32_t l2fib_mac_edm_sweep_all(void)
{
    const uint32_t status = edm::walk_all_macs_to_destroy(l2fib_mac_edm_sweep);
    l2fm_edm_table_walk_all_vteps(l2fib_vtep_edm_sweep);
    return status;
}

uint32_t l2fib_mac_edm_sweep_bd(uint32_t bridge_id)
{
    const uint32_t status =
        l2fm_edm_table_walk_all_macs_under_bd(l2fib_mac_edm_sweep, nullptr, bridge_id & EDM_BRIDGE_ID_MASK);
    l2fm_edm_table_walk_all_vteps_under_bd(l2fib_vtep_edm_sweep, nullptr, bridge_id & EDM_BRIDGE_ID_MASK);
    return status;
}

uint32_t l2fib_mac_edm_sweep_bp(uint32_t xcid)
{
    const uint32_t status = l2fm_edm_table_walk_all_macs_under_bp(l2fib_mac_edm_sweep, nullptr, xcid);
    l2fm_edm_table_walk_all_vteps_under_bp(l2fib_vtep_edm_sweep, nullptr, xcid);
    return status;
}
