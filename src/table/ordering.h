// SPDX-License-Identifier: Apache-2.0

// The orders of the table's trees: comparators, the conversion of nodes, and what the trees may know of the keys.
//
// Comparators take links and answer ORDTREE_LESS, ORDTREE_EQUAL or ORDTREE_GREATER for the first; null is less than any
// link. They compare keys and touch nothing else, so a probe needs only its key set.
#pragma once

#include "platform/ordtree.h"

extern "C" {

uint32_t l2fm_edm_table_bd_name_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_bd_bridgeid_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_bp_xcid_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_bd_bp_xcid_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_mac_addr_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_vtep_addr_cmp(const ordtree_link_t *first, const ordtree_link_t *second);

// The global port tree's node is the second link of an element; a bridge domain's port tree's node is the first.
void *l2fm_edm_table_bp_node_to_entry(ordtree_link_t *node);
void *l2fm_edm_table_node_identity(ordtree_link_t *node);

} // extern "C"

namespace edm {

// Tells the platform's trees where the keys lie, where it can make use of that. Before the trees are started.
void describe_keys();

} // namespace edm
