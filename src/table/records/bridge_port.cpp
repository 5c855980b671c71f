// SPDX-License-Identifier: Apache-2.0

// Bridge-port records.
//
// An ordinary port is in the global tree and in its bridge domain's tree. A dummy port is in its bridge domain's tree
// only. A port counts as soon as it is in its trees, until it is destroyed.
#include <algorithm>
#include <span>

#include "table/element.h"
#include "table/index/address_index.h"
#include "table/index/index_trust.h"
#include "table/index/object_index.h"
#include "table/records/mac_entry.h"
#include "table/records/segment.h"
#include "table/root.h"
#include "table/scoped_lock.h"
#include "table/search/domain_order.h"
#include "table/search/ordering.h"
#include "table/trace_point.h"

namespace {

using edm::root;
using edm::to_element;

uint32_t start_tree(ordtree_t *tree, ordtree_compare_fn compare, uint32_t trace_id, const char *step)
{
    if (ordtree_running(tree) != 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    const uint32_t status = ordtree_init(tree, 1, nullptr, compare);
    if (status != 0) {
        EDM_TRACE_AS(step, trace_id);
    }
    return status;
}

uint32_t l2fm_edm_table_bp_mac_init(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint32_t status =
        start_tree(&bp->mac_tree, l2fm_edm_table_mac_addr_cmp, EDM_TRACE_TREE_NOT_RUNNING, __func__);
    edm::watch_tree(&bp->mac_tree);
    return status;
}

uint32_t l2fm_edm_table_bp_vtep_init(l2fm_edm_bp_t *bp)
{
    return start_tree(&bp->vtep_tree, l2fm_edm_table_vtep_addr_cmp, EDM_TRACE_VTEP_TREE_NOT_RUNNING, __func__);
}

uint32_t free_bp(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    return l2fm_edm_table_free(EDM_POOL_BP, to_element(bp));
}

// The entries of a port leave its tree this many at a time, if the platform can do that.
constexpr uint32_t drained_at_once = 64;

// In a table larger than the caches, destructions would wait for memory. Before each piece of this many entries,
// destroy_drained prefetches what their destruction touches: their buckets of the index and their neighbours on the
// list.
constexpr uint32_t fetched_at_once = 16;

l2fm_edm_mac_t &mac_of(ordtree_link_t *node)
{
    return reinterpret_cast<mac_element *>(node)->record;
}

void fetch(std::span<ordtree_link_t *const> piece) L2FIB_REQUIRES_TABLE_LOCK
{
    for (ordtree_link_t *node : piece) {
        const l2fm_edm_mac_t &mac = mac_of(node);
        edm::address_index_expect(edm::probe_of(mac.mac_addr));
        __builtin_prefetch(mac.list_link.next, 1);
        __builtin_prefetch(mac.list_link.prev, 1);
    }
}

void destroy_drained(std::span<ordtree_link_t *const> nodes) L2FIB_REQUIRES_TABLE_LOCK
{
    const bool fetches = edm::exceeds_caches();
    for (size_t at = 0; at < nodes.size(); at++) {
        if (fetches && at % fetched_at_once == 0) {
            fetch(nodes.subspan(at, std::min<size_t>(fetched_at_once, nodes.size() - at)));
        }
        edm::destroy_drained_mac(&mac_of(nodes[at]));
    }
}

// Destroys the entries of a port many at a time, in the order of their addresses. Nobody can see the table meanwhile.
void drain_macs(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    ordtree_link_t *nodes[drained_at_once];
    uint32_t count = 0;
    while ((count = edm::drain_nodes(&bp->mac_tree, nodes, drained_at_once)) != 0) {
        edm::domain_order_report(bp, count);
        destroy_drained(std::span(nodes, count));
    }
}

// While the indexes cover the tree, each of its entries names this port, so the entries need no look at it.
bool can_drain(const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    return &ordtree_drain != nullptr && edm::indexes_cover(&bp->mac_tree);
}

// Destroys all entries of a port and finishes its tree.
void destroy_macs(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    if (bp == nullptr || ordtree_running(&bp->mac_tree) == 0) {
        return;
    }
    if (can_drain(bp)) {
        drain_macs(bp);
    }
    l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get_first(bp);
    while (mac != nullptr) {
        l2fm_edm_mac_t *next = l2fm_edm_table_bp_mac_get_next(bp, mac);
        l2fm_edm_table_mac_destroy(mac);
        mac = next;
    }
    edm::finish_tree(&bp->mac_tree);
}

void destroy_vteps(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    if (ordtree_running(&bp->vtep_tree) == 0) {
        return;
    }
    l2fm_edm_vtep_t *vtep = l2fm_edm_table_bp_vtep_get_first(bp);
    while (vtep != nullptr) {
        l2fm_edm_vtep_t *next = l2fm_edm_table_bp_vtep_get_next(bp, vtep);
        l2fm_edm_table_vtep_destroy(vtep, bp);
        vtep = next;
    }
    ordtree_finish(&bp->vtep_tree);
}

// Undoes make_bp.
void discard_bp(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    destroy_macs(bp);
    destroy_vteps(bp);
    free_bp(bp);
}

bool can_hold_ports(const l2fm_edm_bd_t *bd)
{
    return ordtree_running(&root.bp_root) != 0 && bd != nullptr && ordtree_running(&bd->bp_tree) != 0;
}

bool insert_into_bd(l2fm_edm_bd_t *bd, l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    return edm::insert_node(&bd->bp_tree, &to_element(bp)->bd_bp_link) != nullptr;
}

bool delete_from_bd(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    return bp->bd != nullptr && ordtree_running(&bp->bd->bp_tree) != 0
           && edm::delete_node(&bp->bd->bp_tree, &to_element(bp)->bd_bp_link) != nullptr;
}

bool delete_from_root(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    return ordtree_running(&root.bp_root) != 0 && edm::delete_node(&root.bp_root, &to_element(bp)->bp_link) != nullptr;
}

bool is_on_a_tree(const l2fm_edm_bp_t *bp)
{
    const bp_element *element = to_element(bp);
    return element->bd_bp_link.place != nullptr || element->bp_link.place != nullptr;
}

// Returns a new port with its own trees, in no tree, or null.
l2fm_edm_bp_t *make_bp(l2fm_edm_bd_t *bd, uint32_t xcid, uint32_t fill) L2FIB_REQUIRES_TABLE_LOCK
{
    static constexpr char operation[] = "l2fm_edm_table_bp_alloc_and_fill";
    auto *bp = edm::to_record<l2fm_edm_bp_t>(l2fm_edm_table_malloc(EDM_POOL_BP));
    if (bp == nullptr) {
        EDM_TRACE_AS(operation, EDM_TRACE_NO_ROOM);
        return nullptr;
    }
    if (fill != 0 && l2fm_edm_table_bp_fill(bp, xcid) != 0) {
        free_bp(bp);
        return nullptr;
    }
    bp->bd = bd;
    if (l2fm_edm_table_bp_mac_init(bp) != 0) {
        free_bp(bp);
        EDM_TRACE_AS(operation, EDM_TRACE_TREE_NOT_RUNNING);
        return nullptr;
    }
    if (bp->bp_type == EDM_BP_TYPE_VXLAN && l2fm_edm_table_bp_vtep_init(bp) != 0) {
        discard_bp(bp);
        EDM_TRACE_AS(operation, EDM_TRACE_VTEP_TREE_NOT_RUNNING);
        return nullptr;
    }
    return bp;
}

// Completes the creation of a port that is in its trees: from here on it belongs to the table. Returns the port.
l2fm_edm_bp_t *enter(l2fm_edm_bd_t *bd, l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    bp->bd = bd;
    bp->refresh_pending = 0;
    l2fm_edm_table_cnt_inc(EDM_COUNT_BP);
    return bp;
}

// Adapts the VTEP tree to the port's kind: readers look for VTEPs on ports of the VXLAN kind only. Returns false if the
// tree does not start.
bool follow_kind(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    if (bp->bp_type != EDM_BP_TYPE_VXLAN) {
        destroy_vteps(bp);
        return true;
    }
    return ordtree_running(&bp->vtep_tree) != 0 || l2fm_edm_table_bp_vtep_init(bp) == 0;
}

// Reads a port's kind and attributes again. If only the VTEP tree does not start, it returns 0, because the port can
// hold entries. refresh_pending then stays set, so the next entry fed on this port tries again.
uint32_t refresh(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint32_t status = l2fm_edm_table_bp_fill(bp, bp->xcid);
    const bool is_complete = follow_kind(bp);
    if (status == 0 && is_complete) {
        bp->refresh_pending = 0;
    }
    return status;
}

// Moves a port with its entries to another bridge domain. If the new one cannot take it, the port stays without one.
uint32_t move(l2fm_edm_bp_t *bp, uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK
{
    if (!delete_from_bd(bp)) {
        EDM_TRACE_AS("l2fm_edm_table_bp_update", EDM_TRACE_BP_NOT_MOVED, bp->xcid, EDM_ERR_INVALID_ARGS);
        return EDM_ERR_INVALID_ARGS;
    }
    bp->bd = nullptr;
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(bridge_id);
    if (bd == nullptr || !insert_into_bd(bd, bp)) {
        return EDM_ERR_INVALID_ARGS;
    }
    bp->bd = bd;
    bp->refresh_pending = 0;
    return 0;
}

} // namespace

uint32_t l2fm_edm_table_bp_fill(l2fm_edm_bp_t *bp, uint32_t xcid)
{
    if (bp == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    if (bp->xcid != xcid && is_on_a_tree(bp)) {
        edm::distrust_indexes(); // because they cannot find the port by its old key
    }
    bp->xcid = xcid;
    const uint32_t status = edm::read_segment(bp, xcid);
    if (status != 0) {
        EDM_TRACE(EDM_TRACE_BP_NOT_READ, xcid, status);
    }
    return status;
}

l2fm_edm_bp_t *l2fm_edm_table_bp_alloc_and_fill(l2fm_edm_bd_t *bd, uint32_t xcid, uint32_t fill)
{
    edm::distrust_indexes(); // because its back-pointer names a bridge domain whose tree does not hold it
    return make_bp(bd, xcid, fill);
}

l2fm_edm_bp_t *l2fm_edm_table_bp_create(l2fm_edm_bd_t *bd, uint32_t xcid)
{
    if (!can_hold_ports(bd) || xcid == EDM_XCID_NONE || xcid == EDM_XCID_DUMMY) {
        return nullptr;
    }
    l2fm_edm_bp_t *bp = make_bp(bd, xcid, 1);
    if (bp == nullptr) {
        return nullptr;
    }
    if (edm::insert_node(&root.bp_root, &to_element(bp)->bp_link) == nullptr) {
        discard_bp(bp);
        return nullptr;
    }
    if (!insert_into_bd(bd, bp)) {
        if (!delete_from_root(bp)) {
            EDM_TRACE(EDM_TRACE_BP_NOT_IN_TREE, xcid, EDM_ERR_INVALID_ARGS);
        }
        discard_bp(bp);
        return nullptr;
    }
    edm::bp_index_link(bp);
    return enter(bd, bp);
}

l2fm_edm_bp_t *l2fm_edm_table_bp_create_dummy(l2fm_edm_bd_t *bd, uint32_t xcid)
{
    if (!can_hold_ports(bd)) {
        return nullptr;
    }
    l2fm_edm_bp_t *bp = make_bp(bd, xcid, 0);
    if (bp == nullptr) {
        return nullptr;
    }
    bp->xcid = xcid;
    if (!insert_into_bd(bd, bp)) {
        discard_bp(bp);
        return nullptr;
    }
    return enter(bd, bp);
}

uint32_t l2fm_edm_table_bp_update(l2fm_edm_bp_t *bp, uint32_t bridge_id)
{
    if (bp == nullptr || ordtree_running(&root.bp_root) == 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    if (bp->refresh_pending == 0) {
        return 0;
    }
    if (bp->bd == nullptr || ordtree_running(&bp->bd->bp_tree) == 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    return bp->bd->bridge_id == bridge_id ? refresh(bp) : move(bp, bridge_id);
}

uint32_t l2fm_edm_table_bp_destroy(uint32_t xcid)
{
    const edm::scoped_lock lock;
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
    if (bp == nullptr) {
        return 0;
    }
    const uint32_t status = l2fm_edm_table_bp_destroy_internal(bp);
    if (status != 0) {
        EDM_TRACE(EDM_TRACE_BP_NOT_IN_TREE, xcid, status);
    }
    return status;
}

uint32_t l2fm_edm_table_bp_destroy_internal(l2fm_edm_bp_t *bp)
{
    if (bp == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    const uint32_t xcid = bp->xcid;
    const bool counted = is_on_a_tree(bp);
    destroy_macs(bp);
    destroy_vteps(bp);
    edm::bp_index_unlink(bp);
    if (!delete_from_root(bp)) {
        EDM_TRACE(EDM_TRACE_BP_NOT_IN_TREE, xcid, EDM_ERR_NOT_FOUND);
    }
    if (!delete_from_bd(bp)) {
        EDM_TRACE(EDM_TRACE_BP_NOT_IN_TREE, xcid, EDM_ERR_NOT_FOUND);
    }
    bp->bd = nullptr;
    free_bp(bp);
    if (counted) {
        l2fm_edm_table_cnt_dec(EDM_COUNT_BP);
    }
    return 0;
}

void l2fm_edm_table_bp_mac_table_destroy(l2fm_edm_bp_t *bp)
{
    edm::distrust_indexes(); // because the tree stops while the port stays in the table
    destroy_macs(bp);
}
