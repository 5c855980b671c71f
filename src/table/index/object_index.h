// SPDX-License-Identifier: Apache-2.0

// Indexes of bridge domains by id and of ports by xcid. They save the feed a search in a tree.
//
// They are hints beside the trees: a record may be in its tree and not here, so null means "search the tree". The
// module removes a record here before it removes it from its tree. Callers use the answers only while
// edm::indexes_trusted(): afterwards an index may name records that no longer exist.
//
// Most ports are found by the low bits of their xcid alone. Of several ports with the same low bits the newest has the
// place, and the others are in the growing index only:
//
//      recent_bp[5]   --->  port 4101     bp_index_find(4101): one access
//                                         bp_index_find(5):    recent_bp[5] has another xcid, so the growing index
#pragma once

#include <array>

#include "l2fm_edm_table.h"

namespace edm {

// One slot per bridge id. The pages of the array that nobody touches use no memory.
extern std::array<l2fm_edm_bd_t *, EDM_BRIDGE_ID_MASK + 1> bd_by_id L2FIB_GUARDED_BY_TABLE_LOCK;

// Comes before all other uses, once.
void object_index_prepare() L2FIB_REQUIRES_TABLE_LOCK;

void bd_index_link(l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;
void bd_index_unlink(const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;

inline l2fm_edm_bd_t *bd_index_find(uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK
{
    return bridge_id < bd_by_id.size() ? bd_by_id[bridge_id] : nullptr;
}

// The newest port of each value of the low bits. A power of two, enough for the ports of one line card.
constexpr uint32_t recent_bps = 4096;
extern std::array<l2fm_edm_bp_t *, recent_bps> recent_bp L2FIB_GUARDED_BY_TABLE_LOCK;

void bp_index_link(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
void bp_index_unlink(const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;

// The rest of bp_index_find.
l2fm_edm_bp_t *bp_index_search(uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK;

// Returns the port if it is the newest one of its low bits, else null.
inline l2fm_edm_bp_t *recent_bp_of(uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *recent = recent_bp[xcid % recent_bps];
    return recent != nullptr && recent->xcid == xcid ? recent : nullptr;
}

inline l2fm_edm_bp_t *bp_index_find(uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *recent = recent_bp_of(xcid);
    return recent != nullptr ? recent : bp_index_search(xcid);
}

// Empties the indexes and releases their memory.
void object_index_release() L2FIB_REQUIRES_TABLE_LOCK;

} // namespace edm
