// SPDX-License-Identifier: Apache-2.0

// Bridge-domain records. They are in the global tree, by name and by bridge id.
#include "platform/bounded_copy.h"
#include "platform/l2fib.h"
#include "table/element.h"
#include "table/index/index_trust.h"
#include "table/index/object_index.h"
#include "table/root.h"
#include "table/scoped_lock.h"
#include "table/search/ordering.h"
#include "table/trace_point.h"

namespace {

using edm::root;
using edm::to_element;

// Reads a bridge domain's name from the forwarding manager.
uint32_t read_name(uint32_t bridge_id, char *name)
{
    l2fib_ctx_t ctx = nullptr;
    l2fib_lock();
    uint32_t status = l2fib_get_plat_ctx_by_id(L2FIB_CLASS_BRIDGE_DOMAIN, bridge_id, &ctx);
    if (status == 0) {
        status = l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, &ctx, L2FIB_FIELD_BD_NAME, name);
    }
    l2fib_unlock();
    return status;
}

uint32_t l2fm_edm_table_bd_bp_cache_init(l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK
{
    if (ordtree_running(&bd->bp_tree) != 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    const uint32_t status = ordtree_init(&bd->bp_tree, 1, l2fm_edm_table_node_identity, l2fm_edm_table_bd_bp_xcid_cmp);
    if (status != 0) {
        EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        return status;
    }
    edm::watch_tree(&bd->bp_tree);
    return 0;
}

// Destroys all ports of a bridge domain and finishes its tree.
void destroy_ports(l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK
{
    if (bd == nullptr || ordtree_running(&bd->bp_tree) == 0) {
        return;
    }
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    while (bp != nullptr) {
        l2fm_edm_bp_t *next = l2fm_edm_table_bd_bp_get_next(bd, bp);
        l2fm_edm_table_bp_destroy_internal(bp);
        bp = next;
    }
    edm::finish_tree(&bd->bp_tree);
}

} // namespace

l2fm_edm_bd_t *l2fm_edm_table_bd_alloc_and_fill(uint32_t bridge_id)
{
    char name[L2FIB_NAME_BUFFER_SIZE] = {};
    if (const uint32_t status = read_name(bridge_id, name); status != 0) {
        EDM_TRACE(EDM_TRACE_BD_NAME_NOT_READ, bridge_id, status);
        return nullptr;
    }
    auto *bd = edm::to_record<l2fm_edm_bd_t>(l2fm_edm_table_malloc(EDM_POOL_BD));
    if (bd == nullptr) {
        EDM_TRACE(EDM_TRACE_NO_ROOM);
        return nullptr;
    }
    bd->bridge_id = bridge_id;
    strcpy_s(bd->bd_name, sizeof(bd->bd_name), name); // a name that is too long stays empty
    if (l2fm_edm_table_bd_bp_cache_init(bd) != 0) {
        l2fm_edm_table_bd_free(bd);
        EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        return nullptr;
    }
    return bd;
}

l2fm_edm_bd_t *l2fm_edm_table_bd_create(uint32_t bridge_id)
{
    if (ordtree_running(&root.bd_root) == 0) {
        EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        return nullptr;
    }
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_alloc_and_fill(bridge_id & EDM_BRIDGE_ID_MASK);
    if (bd == nullptr) {
        return nullptr;
    }
    if (edm::insert_node(&root.bd_root, to_element(bd)->bd_links) == nullptr) {
        edm::finish_tree(&bd->bp_tree);
        l2fm_edm_table_bd_free(bd);
        return nullptr;
    }
    edm::bd_index_link(bd);
    l2fm_edm_table_cnt_inc(EDM_COUNT_BD);
    return bd;
}

uint32_t l2fm_edm_table_bd_destroy(uint32_t bridge_id)
{
    const edm::scoped_lock lock;
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(bridge_id);
    if (bd == nullptr) {
        return 0;
    }
    const uint32_t status = l2fm_edm_table_bd_destroy_internal(bd);
    if (status != 0) {
        EDM_TRACE(EDM_TRACE_BD_NOT_DESTROYED, bridge_id, status);
    }
    l2fm_edm_table_cnt_dec(EDM_COUNT_BD);
    return status;
}

uint32_t l2fm_edm_table_bd_destroy_internal(l2fm_edm_bd_t *bd)
{
    if (bd == nullptr || ordtree_running(&root.bd_root) == 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    destroy_ports(bd);
    edm::bd_index_unlink(bd);
    const bool deleted = edm::delete_node(&root.bd_root, to_element(bd)->bd_links) != nullptr;
    l2fm_edm_table_bd_free(bd);
    return deleted ? 0 : EDM_ERR_INVALID_ARGS;
}

void l2fm_edm_table_bd_bp_table_destroy(l2fm_edm_bd_t *bd)
{
    edm::distrust_indexes(); // because the hosting process may start another tree in the record
    destroy_ports(bd);
}
