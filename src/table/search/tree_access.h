// SPDX-License-Identifier: Apache-2.0

// Typed access to the table's trees.
#pragma once

#include <cstring>

#include "table/element.h"

namespace edm {

// Return the first record of a tree, the record behind a node, or the record with a probe's key; null if there is none.
// `node` belongs to the element of a record or to that of a probe.

template <typename Record>
Record *first(const ordtree_t *tree, uint32_t index = 0) L2FIB_REQUIRES_TABLE_LOCK
{
    return to_record<Record>(l2fm_edm_table_get_first(tree, index));
}

template <typename Record>
Record *next(const ordtree_t *tree, const ordtree_link_t *node, uint32_t index = 0) L2FIB_REQUIRES_TABLE_LOCK
{
    return to_record<Record>(l2fm_edm_table_get_next(tree, node, index));
}

template <typename Record>
Record *find(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index = 0) L2FIB_REQUIRES_TABLE_LOCK
{
    return to_record<Record>(l2fm_edm_table_get(tree, probe, index));
}

// Returns a probe for an address. All other members stay uninitialised on purpose: a search reads only the link and the
// address, and clearing the rest would cost more than a step of the search.
inline mac_element mac_probe(const uint8_t *mac_addr)
{
    mac_element probe; // NOLINT(cppcoreguidelines-pro-type-member-init)
    probe.mac_link = {};
    std::memcpy(probe.record.mac_addr, mac_addr, mac_addr_size);
    return probe;
}

// Hints that the caller will soon insert an address into a port's tree, which may prefetch memory.
inline void expect_mac(const l2fm_edm_bp_t *bp, const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK
{
    if (&ordtree_expect != nullptr) {
        const mac_element probe = mac_probe(mac_addr);
        ordtree_expect(&bp->mac_tree, &probe.mac_link, 0);
    }
}

} // namespace edm
