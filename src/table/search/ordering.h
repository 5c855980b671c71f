// SPDX-License-Identifier: Apache-2.0

// The orders of the table's trees: comparators, the conversion of nodes, and the description of the keys.
//
// A comparator takes two links and returns ORDTREE_LESS, ORDTREE_EQUAL or ORDTREE_GREATER for the first one. Null is
// less than any link. It reads the keys only, so a probe needs no other value.
//
// Threads: any, for the keys of records that do not change meanwhile.
#pragma once

#include "platform/ordtree.h"

extern "C" {

uint32_t l2fm_edm_table_bd_name_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_bd_bridgeid_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_bp_xcid_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_bd_bp_xcid_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_mac_addr_cmp(const ordtree_link_t *first, const ordtree_link_t *second);
uint32_t l2fm_edm_table_vtep_addr_cmp(const ordtree_link_t *first, const ordtree_link_t *second);

// Convert a node into the start of its element. A node of the global port tree is the second link of its element, a
// node of a bridge domain's port tree is the first one.
void *l2fm_edm_table_bp_node_to_entry(ordtree_link_t *node);
void *l2fm_edm_table_node_identity(ordtree_link_t *node);

} // extern "C"

namespace edm {

// Describes the keys to the platform's trees (ordtree_describe_key), if the platform can use that. The start of the
// table calls it before it starts the trees.
void describe_keys();

} // namespace edm
