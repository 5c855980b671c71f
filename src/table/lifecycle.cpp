// SPDX-License-Identifier: Apache-2.0

// Start and teardown of the whole table.
#include "table/element.h"
#include "table/index/address_index.h"
#include "table/index/index_trust.h"
#include "table/index/object_index.h"
#include "table/root.h"
#include "table/search/domain_order.h"
#include "table/search/ordering.h"
#include "table/shared_cell.h"
#include "table/trace_point.h"

namespace {

using edm::root;

using init_step = uint32_t (*)(void);
constexpr init_step init_steps[] = {l2fm_edm_table_ll_init, l2fm_edm_table_bp_cache_init, l2fm_edm_table_bd_cache_init,
                                    l2fm_edm_table_chunk_init};

void zero_counters()
{
    l2fm_edm_mac_pool_t &counters = root.counters;
    for (uint32_t *counter :
         {&counters.mac_cnt_sum, &counters.mac_cnt_plain, &counters.mac_cnt_static, &counters.mac_cnt_local,
          &counters.mac_cnt_bridge, &counters.mac_cnt_total, &counters.bd_cnt, &counters.bp_cnt, &counters.vtep_cnt}) {
        edm::poke(*counter, 0u);
    }
}

bool runs_empty(const ordtree_t *tree)
{
    return ordtree_running(tree) != 0 && ordtree_get_first(tree, 0) == nullptr;
}

// Lets the indexes answer if the table is new. It need not be: the hosting process may have started it before, step by
// step or as a whole.
void start_indexes() L2FIB_REQUIRES_TABLE_LOCK
{
    edm::address_index_prepare();
    edm::object_index_prepare();
    edm::watch_tree(&root.bd_root);
    edm::watch_tree(&root.bp_root);
    if (runs_empty(&root.bd_root) && runs_empty(&root.bp_root)) {
        edm::trust_indexes_of_new_table();
    }
}

// Each of the following functions destroys all records of one kind. It returns the status of its last destruction, or
// `status` if there was none.

uint32_t destroy_bridge_domains(uint32_t status) L2FIB_REQUIRES_TABLE_LOCK
{
    if (ordtree_running(&root.bd_root) == 0) {
        return status;
    }
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_first_by_bridgeid();
    while (bd != nullptr) {
        l2fm_edm_bd_t *next = l2fm_edm_table_bd_get_next_by_bridgeid(bd);
        const uint32_t bridge_id = bd->bridge_id;
        status = l2fm_edm_table_bd_destroy_internal(bd);
        if (status != 0) {
            EDM_TRACE_AS("l2fm_edm_table_deinit", EDM_TRACE_BD_NOT_DESTROYED, bridge_id, status);
        }
        bd = next;
    }
    ordtree_finish(&root.bd_root);
    return status;
}

uint32_t destroy_bridge_ports(uint32_t status) L2FIB_REQUIRES_TABLE_LOCK
{
    if (ordtree_running(&root.bp_root) == 0) {
        return status;
    }
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_first();
    while (bp != nullptr) {
        l2fm_edm_bp_t *next = l2fm_edm_table_bp_get_next(bp);
        const uint32_t xcid = bp->xcid;
        status = l2fm_edm_table_bp_destroy_internal(bp);
        if (status != 0) {
            EDM_TRACE_AS("l2fm_edm_table_deinit", EDM_TRACE_BP_NOT_IN_TREE, xcid, status);
        }
        bp = next;
    }
    ordtree_finish(&root.bp_root);
    return status;
}

uint32_t destroy_listed_macs(uint32_t status) L2FIB_REQUIRES_TABLE_LOCK
{
    while (root.ll_root.ll_count != 0) {
        status = l2fm_edm_table_mac_destroy(edm::mac_of_list_link(root.ll_root.ll_first));
    }
    return status;
}

} // namespace

uint32_t l2fm_edm_table_bp_cache_init(void)
{
    if (ordtree_running(&root.bp_root) != 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    return ordtree_init(&root.bp_root, 1, l2fm_edm_table_bp_node_to_entry, l2fm_edm_table_bp_xcid_cmp);
}

uint32_t l2fm_edm_table_bd_cache_init(void)
{
    if (ordtree_running(&root.bd_root) != 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    return ordtree_init(&root.bd_root, 2, nullptr, l2fm_edm_table_bd_name_cmp, l2fm_edm_table_bd_bridgeid_cmp);
}

uint32_t l2fm_edm_table_init(void)
{
    edm::describe_keys();
    uint32_t status = 0;
    for (const init_step step : init_steps) {
        status = step();
        if (status != 0) {
            EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        }
    }
    start_indexes();
    zero_counters();
    return status;
}

uint32_t l2fm_edm_table_deinit(void)
{
    uint32_t status = destroy_bridge_domains(0);
    status = destroy_bridge_ports(status);
    status = destroy_listed_macs(status);
    edm::address_index_release();
    edm::object_index_release();
    edm::domain_order_forget();
    edm::forget_tree_changes();
    l2fm_edm_table_chunk_deinit();
    return status;
}
