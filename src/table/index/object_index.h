// SPDX-License-Identifier: Apache-2.0

// Indexes of bridge domains by id and of ports by xcid. They save the feed a search in a tree.
//
// They are hints beside the trees: a record may be in its tree and not here, so null means "search the tree". The
// module removes a record here before it removes it from its tree. Callers use the answers only while
// edm::indexes_trusted(): afterwards an index may name records that no longer exist.
#pragma once

#include <array>

#include "l2fm_edm_table.h"

namespace edm {

// One slot per bridge id. The pages of the array that nobody touches use no memory.
extern std::array<l2fm_edm_bd_t *, EDM_BRIDGE_ID_MASK + 1> bd_by_id L2FIB_GUARDED_BY_TABLE_LOCK;

void bd_index_link(l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;
void bd_index_unlink(const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;

inline l2fm_edm_bd_t *bd_index_find(uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK
{
    return bridge_id < bd_by_id.size() ? bd_by_id[bridge_id] : nullptr;
}

void bp_index_link(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
void bp_index_unlink(const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
l2fm_edm_bp_t *bp_index_find(uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK;

// Empties both indexes and releases their memory.
void object_index_release() L2FIB_REQUIRES_TABLE_LOCK;

} // namespace edm
