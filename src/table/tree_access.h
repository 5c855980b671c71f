// SPDX-License-Identifier: Apache-2.0

// Typed access to the table's trees: each kind of record, and by what it is found. The caller holds the table lock.
#pragma once

#include <cstring>

#include "table/element.h"

namespace edm {

template <typename Record>
Record *first(const ordtree_t *tree, uint32_t index = 0)
{
    return to_record<Record>(l2fm_edm_table_get_first(tree, index));
}

// The record behind `node`, a node of a record's element or of a probe's.
template <typename Record>
Record *next(const ordtree_t *tree, const ordtree_link_t *node, uint32_t index = 0)
{
    return to_record<Record>(l2fm_edm_table_get_next(tree, node, index));
}

template <typename Record>
Record *find(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index = 0)
{
    return to_record<Record>(l2fm_edm_table_get(tree, probe, index));
}

// What an address is searched by. Clearing what nobody looks at would take longer than a step of the search.
inline mac_element mac_probe(const uint8_t *mac_addr)
{
    mac_element probe; // NOLINT(cppcoreguidelines-pro-type-member-init)
    probe.mac_link = {};
    std::memcpy(probe.record.mac_addr, mac_addr, mac_addr_size);
    return probe;
}

// An address is about to be put into a port's tree.
inline void expect_mac(const l2fm_edm_bp_t *bp, const uint8_t *mac_addr)
{
    if (&ordtree_expect != nullptr) {
        const mac_element probe = mac_probe(mac_addr);
        ordtree_expect(&bp->mac_tree, &probe.mac_link, 0);
    }
}

} // namespace edm
