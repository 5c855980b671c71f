// SPDX-License-Identifier: Apache-2.0

// Short cuts to bridge domains by id and to ports by xcid, for the feed: one access instead of a search.
//
// They are hints beside the trees: a record that is not here may still be in its tree, so null means "search". A record
// is taken out here before it leaves its tree. They may be asked while edm::indexes_trusted(); after that they may name
// records that are gone. The caller holds the table lock.
#pragma once

#include <array>

#include "l2fm_edm_table.h"

namespace edm {

// Bridge ids are 16 bits wide, so a plain array holds them all; untouched pages of it cost nothing.
extern std::array<l2fm_edm_bd_t *, 65536> bd_by_id;

void bd_index_link(l2fm_edm_bd_t *bd);
void bd_index_unlink(const l2fm_edm_bd_t *bd);

inline l2fm_edm_bd_t *bd_index_find(uint32_t bridge_id)
{
    return bridge_id < bd_by_id.size() ? bd_by_id[bridge_id] : nullptr;
}

void bp_index_link(l2fm_edm_bp_t *bp);
void bp_index_unlink(const l2fm_edm_bp_t *bp);
l2fm_edm_bp_t *bp_index_find(uint32_t xcid);

// Gives all memory back and forgets every record.
void object_index_release();

} // namespace edm
