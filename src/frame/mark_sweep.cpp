// SPDX-License-Identifier: Apache-2.0

// Mark and sweep: how entries go that the hardware holds no longer. Each operation is two walks, and each walk one
// critical section; a feed may come between them. Marking takes VTEPs first, sweeping takes MAC entries first.
#include "l2fm_edm_table.h"
#include "table/trace_point.h"

namespace {

// The walks' callbacks: 1 to go on, 0 to stop.
constexpr uint32_t go_on = 1;
constexpr uint32_t stop = 0;

constexpr uint32_t bridge_id_mask = 0xffffu;

uint32_t l2fib_mac_edm_mark(l2fm_edm_mac_t *mac, void *)
{
    if (mac == nullptr || mac->bp == nullptr) {
        return stop;
    }
    mac->flags |= EDM_MAC_STALE;
    mac->bp->refresh_pending = 1;
    return go_on;
}

uint32_t l2fib_vtep_edm_mark(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *)
{
    if (vtep == nullptr) {
        return stop;
    }
    vtep->stale = 1;
    return go_on;
}

uint32_t l2fib_mac_edm_sweep(l2fm_edm_mac_t *mac, void *)
{
    if (mac == nullptr) {
        return stop;
    }
    if ((mac->flags & EDM_MAC_STALE) == 0) {
        return go_on;
    }
    const uint32_t xcid = mac->xcid;
    if (const uint32_t status = l2fm_edm_table_mac_destroy(mac); status != 0) {
        EDM_TRACE(1917, xcid, status);
        return stop;
    }
    return go_on;
}

uint32_t l2fib_vtep_edm_sweep(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *bp)
{
    if (vtep == nullptr || bp == nullptr) {
        return stop;
    }
    if (vtep->stale == 0) {
        return go_on;
    }
    if (const uint32_t status = l2fm_edm_table_vtep_destroy(vtep, bp); status != 0) {
        EDM_TRACE(1971, bp->xcid, status);
        return stop;
    }
    return go_on;
}

} // namespace

uint32_t l2fib_mac_edm_mark_all(void)
{
    l2fm_edm_table_walk_all_vteps(l2fib_vtep_edm_mark);
    return l2fm_edm_table_walk_all_macs(l2fib_mac_edm_mark, nullptr);
}

uint32_t l2fib_mac_edm_mark_bd(uint32_t bridge_id)
{
    l2fm_edm_table_walk_all_vteps_under_bd(l2fib_vtep_edm_mark, nullptr, bridge_id & bridge_id_mask);
    return l2fm_edm_table_walk_all_macs_under_bd(l2fib_mac_edm_mark, nullptr, bridge_id & bridge_id_mask);
}

uint32_t l2fib_mac_edm_mark_bp(uint32_t xcid)
{
    l2fm_edm_table_walk_all_vteps_under_bp(l2fib_vtep_edm_mark, nullptr, xcid);
    return l2fm_edm_table_walk_all_macs_under_bp(l2fib_mac_edm_mark, nullptr, xcid);
}

uint32_t l2fib_mac_edm_sweep_all(void)
{
    const uint32_t status = l2fm_edm_table_walk_all_macs(l2fib_mac_edm_sweep, nullptr);
    l2fm_edm_table_walk_all_vteps(l2fib_vtep_edm_sweep);
    return status;
}

uint32_t l2fib_mac_edm_sweep_bd(uint32_t bridge_id)
{
    const uint32_t status =
        l2fm_edm_table_walk_all_macs_under_bd(l2fib_mac_edm_sweep, nullptr, bridge_id & bridge_id_mask);
    l2fm_edm_table_walk_all_vteps_under_bd(l2fib_vtep_edm_sweep, nullptr, bridge_id & bridge_id_mask);
    return status;
}

uint32_t l2fib_mac_edm_sweep_bp(uint32_t xcid)
{
    const uint32_t status = l2fm_edm_table_walk_all_macs_under_bp(l2fib_mac_edm_sweep, nullptr, xcid);
    l2fm_edm_table_walk_all_vteps_under_bp(l2fib_vtep_edm_sweep, nullptr, xcid);
    return status;
}
