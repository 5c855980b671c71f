// SPDX-License-Identifier: Apache-2.0

// VXLAN tunnel end points of a port.
#include <cstring>

#include "table/element.h"
#include "table/root.h"
#include "table/shared_cell.h"
#include "table/trace_point.h"

l2fm_edm_vtep_t *l2fm_edm_table_vtep_alloc_and_fill(const uint8_t *vtep_addr)
{
    if (vtep_addr == nullptr) {
        return nullptr;
    }
    auto *vtep = edm::to_record<l2fm_edm_vtep_t>(l2fm_edm_table_malloc(EDM_POOL_VTEP));
    if (vtep != nullptr) {
        vtep->stale = 0;
        std::memcpy(vtep->vtep_addr, vtep_addr, edm::vtep_addr_size);
    }
    return vtep;
}

uint32_t l2fm_edm_table_vtep_create_modify(const l2fib_mac_edm_entry_t *entry, l2fm_edm_bp_t *bp)
{
    if (entry == nullptr || bp == nullptr || ordtree_running(&bp->vtep_tree) == 0) {
        EDM_TRACE(EDM_TRACE_VTEP_TREE_NOT_RUNNING);
        return EDM_ERR_INVALID_ARGS;
    }
    if ((entry->flags & EDM_MAC_VNI) == 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    if (l2fm_edm_vtep_t *known = l2fm_edm_table_vtep_lookup(entry->vtep_addr, bp)) {
        known->stale = 0;
        return 0;
    }
    l2fm_edm_vtep_t *vtep = l2fm_edm_table_vtep_alloc_and_fill(entry->vtep_addr);
    if (vtep == nullptr) {
        return EDM_ERR_NO_RESOURCE;
    }
    if (ordtree_insert(&bp->vtep_tree, &edm::to_element(vtep)->vtep_link) == nullptr) {
        l2fib_mac_edm_vtep_free(vtep);
        return EDM_ERR_NO_RESOURCE;
    }
    edm::add(edm::root.counters.vtep_cnt, 1);
    return 0;
}

uint32_t l2fm_edm_table_vtep_destroy(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *bp)
{
    if (vtep == nullptr || bp == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    uint32_t status = 0;
    if (ordtree_running(&bp->vtep_tree) != 0
        && ordtree_delete(&bp->vtep_tree, &edm::to_element(vtep)->vtep_link) == nullptr) {
        status = EDM_ERR_INVALID_ARGS;
        EDM_TRACE(EDM_TRACE_VTEP_NOT_IN_TREE, status);
    }
    uint32_t &vtep_cnt = edm::root.counters.vtep_cnt;
    if (vtep_cnt != 0) {
        edm::add(vtep_cnt, static_cast<uint32_t>(-1));
    }
    l2fib_mac_edm_vtep_free(vtep);
    return status;
}

void l2fib_mac_edm_vtep_free(l2fm_edm_vtep_t *vtep)
{
    l2fm_edm_table_free(EDM_POOL_VTEP, vtep == nullptr ? nullptr : edm::to_element(vtep));
}
