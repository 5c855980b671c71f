// SPDX-License-Identifier: Apache-2.0

// The root of the table, its accessors, and the list of all MAC entries.
#include "table/root.h"

#include "table/element.h"
#include "table/index/index_trust.h"
#include "table/shared_cell.h"

namespace edm {

constinit table_root root{};

} // namespace edm

namespace {

using edm::list_end;
using edm::root;

uint32_t *counter_of_kind(uint32_t kind)
{
    switch (kind) {
    case EDM_COUNT_BP: return &root.counters.bp_cnt;
    case EDM_COUNT_BD: return &root.counters.bd_cnt;
    default: return nullptr;
    }
}

void count(uint32_t kind, uint32_t difference) L2FIB_REQUIRES_TABLE_LOCK
{
    if (uint32_t *counter = counter_of_kind(kind)) {
        edm::add(*counter, difference);
    }
}

// The root has other names for its links than an entry has: an empty list is root -> root, one entry is
//
//      root.ll_first -> mac.next -> root        root.ll_last -> mac.prev -> root
l2fm_edm_ll_link_t *&next_of(l2fm_edm_ll_link_t *link)
{
    return link == list_end() ? root.ll_root.ll_first : link->next;
}

l2fm_edm_ll_link_t *&prev_of(l2fm_edm_ll_link_t *link)
{
    return link == list_end() ? root.ll_root.ll_last : link->prev;
}

} // namespace

// The module does not call these four. After such a call the trees and the records may disagree.

void l2fm_edm_table_mac_set_bp(l2fm_edm_mac_t *mac, l2fm_edm_bp_t *bp)
{
    edm::distrust_indexes();
    mac->bp = bp;
}

void l2fm_edm_table_mac_unset_bp(l2fm_edm_mac_t *mac)
{
    edm::distrust_indexes();
    mac->bp = nullptr;
}

void l2fm_edm_table_bp_set_bd(l2fm_edm_bp_t *bp, l2fm_edm_bd_t *bd)
{
    edm::distrust_indexes();
    bp->bd = bd;
}

void l2fm_edm_table_bp_unset_bd(l2fm_edm_bp_t *bp)
{
    edm::distrust_indexes();
    bp->bd = nullptr;
}

ordtree_t *l2fm_edm_table_bd_get_root(void)
{
    return &root.bd_root;
}

ordtree_t *l2fm_edm_table_bp_get_root(void)
{
    return &root.bp_root;
}

l2fm_edm_ll_root_t *l2fm_edm_table_ll_get_root(void)
{
    return &root.ll_root;
}

l2fm_edm_mac_pool_t *l2fm_edm_table_mac_get_pool(void)
{
    return &root.counters;
}

void l2fm_edm_table_cnt_inc(uint32_t kind)
{
    count(kind, 1);
}

void l2fm_edm_table_cnt_dec(uint32_t kind)
{
    count(kind, static_cast<uint32_t>(-1));
}

uint32_t l2fm_edm_table_ll_init(void)
{
    l2fm_edm_ll_root_t &list = root.ll_root;
    if (list.ll_initialised != 0) {
        return EDM_ERR_INVALID_ARGS;
    }
    list = {.ll_first = list_end(), .ll_last = list_end(), .ll_count = 0, .ll_initialised = 1};
    return 0;
}

uint32_t l2fm_edm_table_ll_insert(l2fm_edm_mac_t *mac)
{
    l2fm_edm_ll_link_t *link = &mac->list_link;
    l2fm_edm_ll_link_t *tail = root.ll_root.ll_last;
    *link = {.next = list_end(), .prev = tail};
    next_of(tail) = link;
    root.ll_root.ll_last = link;
    root.ll_root.ll_count++;
    return 0;
}

l2fm_edm_ll_link_t *l2fm_edm_table_ll_remove(l2fm_edm_mac_t *mac)
{
    l2fm_edm_ll_link_t *link = &mac->list_link;
    const bool is_on_list = link->next != nullptr && link->next != link;
    if (is_on_list) {
        next_of(link->prev) = link->next;
        prev_of(link->next) = link->prev;
        *link = {.next = link, .prev = link};
        root.ll_root.ll_count--;
    }
    return link;
}
