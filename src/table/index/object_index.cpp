// SPDX-License-Identifier: Apache-2.0

#include "table/index/object_index.h"

#include "table/index/growing_index.h"
#include "table/index/index_trust.h"

namespace {

struct by_xcid {
    using record_t = l2fm_edm_bp_t;
    using key_t = uint32_t;
    static uint32_t key_of(const l2fm_edm_bp_t &bp) { return bp.xcid; }
};

constinit edm::growing_index<by_xcid> bp_by_xcid L2FIB_GUARDED_BY_TABLE_LOCK{};

} // namespace

namespace edm {

constinit std::array<l2fm_edm_bd_t *, EDM_BRIDGE_ID_MASK + 1> bd_by_id{};
constinit std::array<l2fm_edm_bp_t *, recent_bps> recent_bp{};

void object_index_prepare()
{
    index_prepare(bp_by_xcid);
}

void bd_index_link(l2fm_edm_bd_t *bd)
{
    if (bd->bridge_id < bd_by_id.size()) {
        bd_by_id[bd->bridge_id] = bd;
    }
}

void bd_index_unlink(const l2fm_edm_bd_t *bd)
{
    if (bd_index_find(bd->bridge_id) == bd) {
        bd_by_id[bd->bridge_id] = nullptr;
    }
}

void bp_index_link(l2fm_edm_bp_t *bp)
{
    if (indexes_trusted() && bp_index_find(bp->xcid) == nullptr && index_insert(bp_by_xcid, bp)) {
        recent_bp[bp->xcid % recent_bps] = bp;
    }
}

void bp_index_unlink(const l2fm_edm_bp_t *bp)
{
    if (!indexes_trusted()) {
        return;
    }
    l2fm_edm_bp_t *&recent = recent_bp[bp->xcid % recent_bps];
    recent = recent == bp ? nullptr : recent;
    const index_place place = index_find(bp_by_xcid, bp->xcid);
    if (index_record(bp_by_xcid, place) == bp) {
        index_erase(bp_by_xcid, place, index_hash(bp_by_xcid, bp->xcid));
    }
}

l2fm_edm_bp_t *bp_index_search(uint32_t xcid)
{
    return index_record(bp_by_xcid, index_find(bp_by_xcid, xcid));
}

void object_index_release()
{
    bd_by_id.fill(nullptr);
    recent_bp.fill(nullptr);
    index_release(bp_by_xcid);
}

} // namespace edm
