// Typed access to the table's trees: each kind of record, and by what it is found. The caller holds the table lock.
#pragma once

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

} // namespace edm
