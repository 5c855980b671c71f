// SPDX-License-Identifier: Apache-2.0

#include "table/search/walk.h"

// The six walks. Each is one critical section. A walk finds the successor of an item before it calls the callback, so
// the callback may destroy the item.
#include "table/element.h"
#include "table/index/address_index.h"
#include "table/index/index_trust.h"
#include "table/root.h"
#include "table/scoped_lock.h"

namespace {

using edm::to_element;

// A piece of a port's entries: those that a walk visits next, and the one behind them.
constexpr uint32_t piece_size = 32;

struct walk_piece {
    ordtree_link_t *node[piece_size + 1];
    uint32_t count; // entries to visit
    bool is_last;   // no entry is behind them; otherwise node[count] is
};

bool can_gather(const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    return &ordtree_gather != nullptr && edm::is_watched(&bp->mac_tree);
}

// Makes the piece of a single entry.
void take_one(const l2fm_edm_bp_t *bp, const l2fm_edm_mac_t *mac, walk_piece &piece) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_mac_t *next = l2fm_edm_table_bp_mac_get_next(bp, mac);
    piece.is_last = next == nullptr;
    piece.node[1] = piece.is_last ? nullptr : &to_element(next)->mac_link;
    piece.count = 1;
}

// Makes a piece of as many entries as it has room for.
void take_many(const l2fm_edm_bp_t *bp, walk_piece &piece) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint32_t behind = ordtree_gather(&bp->mac_tree, piece.node[0], 0, piece.node + 1, piece_size);
    piece.is_last = behind < piece_size;
    piece.count = piece.is_last ? behind + 1 : behind;
}

// Visits the entries of a piece until a tree changes. Returns how many it visited, 0 if the callback stops the walk.
uint32_t visit_piece(const walk_piece &piece, l2fm_edm_mac_walk_fn callback, void *cookie) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint64_t changes = edm::tree_changes.all;
    ordtree_link_t *const *const end = piece.node + piece.count;
    ordtree_link_t *const *at = piece.node;
    do {
        auto *element = reinterpret_cast<mac_element *>(*at);
        if (callback(&element->record, cookie) == EDM_WALK_STOP) {
            return 0;
        }
        at++;
    } while (at != end && edm::tree_changes.all == changes);
    return static_cast<uint32_t>(at - piece.node);
}

// Calls the callback for each entry of a port, by address. Returns false if the callback stops the walk.
//
// The walk gathers entries, but it visits those that it would find one by one. When a callback changes a tree, it
// gathers again from the next entry on, which it knew before the callback, and then a single one.
bool visit_macs(const l2fm_edm_bp_t *bp, l2fm_edm_mac_walk_fn callback, void *cookie) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get_first(bp);
    if (mac == nullptr) {
        return true;
    }
    walk_piece piece; // NOLINT(cppcoreguidelines-pro-type-member-init)
    piece.node[0] = &to_element(mac)->mac_link;
    bool gathers = can_gather(bp);
    for (;;) {
        gathers ? take_many(bp, piece) : take_one(bp, edm::to_record<l2fm_edm_mac_t>(piece.node[0]), piece);
        const uint64_t changes = edm::tree_changes.all;
        const uint32_t visited = visit_piece(piece, callback, cookie);
        if (visited == 0) {
            return false;
        }
        if (visited == piece.count && piece.is_last) {
            return true;
        }
        gathers = edm::tree_changes.all == changes && can_gather(bp);
        piece.node[0] = piece.node[visited];
    }
}

// The same for the VTEPs of a port. A port of another kind has none.
bool visit_vteps(l2fm_edm_bp_t *bp, l2fm_edm_vtep_walk_fn callback) L2FIB_REQUIRES_TABLE_LOCK
{
    if (bp->bp_type != EDM_BP_TYPE_VXLAN || ordtree_running(&bp->vtep_tree) == 0) {
        return true;
    }
    l2fm_edm_vtep_t *vtep = l2fm_edm_table_bp_vtep_get_first(bp);
    while (vtep != nullptr) {
        l2fm_edm_vtep_t *next = l2fm_edm_table_bp_vtep_get_next(bp, vtep);
        if (callback(vtep, bp) == EDM_WALK_STOP) {
            return false;
        }
        vtep = next;
    }
    return true;
}

// Calls `visit` for each port of a bridge domain, by xcid, until it returns false. Returns false then.
template <typename Visit>
bool visit_ports(const l2fm_edm_bd_t *bd, Visit visit) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    while (bp != nullptr) {
        l2fm_edm_bp_t *next = l2fm_edm_table_bd_bp_get_next(bd, bp);
        if (!visit(bp)) {
            return false;
        }
        bp = next;
    }
    return true;
}

bool visit_macs_of_bd(const l2fm_edm_bd_t *bd, l2fm_edm_mac_walk_fn callback, void *cookie) L2FIB_REQUIRES_TABLE_LOCK
{
    const auto visit = [=](const l2fm_edm_bp_t *bp)
                           L2FIB_REQUIRES_TABLE_LOCK { return visit_macs(bp, callback, cookie); };
    return visit_ports(bd, visit);
}

bool visit_vteps_of_bd(const l2fm_edm_bd_t *bd, l2fm_edm_vtep_walk_fn callback) L2FIB_REQUIRES_TABLE_LOCK
{
    return visit_ports(bd, [=](l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK { return visit_vteps(bp, callback); });
}

// A sweep of more entries than the caches hold waits for memory at each destruction. It prefetches this many entries
// ahead what a destruction needs.
constexpr uint32_t sweep_distance = 6;

// Runs some entries ahead of a sweep. Stays at the end of the list.
struct sweep_scout {
    l2fm_edm_ll_link_t *at;
};

void run_ahead(sweep_scout &scout) L2FIB_REQUIRES_TABLE_LOCK
{
    if (scout.at == edm::list_end()) {
        return;
    }
    const l2fm_edm_mac_t *mac = edm::mac_of_list_link(scout.at);
    edm::address_index_expect(edm::probe_of(mac->mac_addr));
    if (&ordtree_expect != nullptr) {
        ordtree_expect(&mac->bp->mac_tree, &to_element(mac)->mac_link, 0);
    }
    scout.at = scout.at->next;
    __builtin_prefetch(scout.at);
}

sweep_scout start_scout() L2FIB_REQUIRES_TABLE_LOCK
{
    const l2fm_edm_ll_root_t &list = edm::root.ll_root;
    sweep_scout scout = {edm::exceeds_caches() && edm::indexes_trusted() ? list.ll_first : edm::list_end()};
    for (uint32_t ahead = 0; ahead < sweep_distance; ahead++) {
        run_ahead(scout);
    }
    return scout;
}

// Calls the callback for each entry, from the oldest one to the newest one at the start of the walk.
bool visit_list(l2fm_edm_mac_walk_fn callback, void *cookie, sweep_scout scout) L2FIB_REQUIRES_TABLE_LOCK
{
    const l2fm_edm_ll_root_t &list = edm::root.ll_root;
    if (list.ll_count == 0) {
        return true;
    }
    l2fm_edm_ll_link_t *link = list.ll_first;
    const l2fm_edm_ll_link_t *const tail = list.ll_last;
    for (;;) {
        l2fm_edm_ll_link_t *next = link->next;
        __builtin_prefetch(next);
        run_ahead(scout);
        const bool is_tail = link == tail;
        if (callback(edm::mac_of_list_link(link), cookie) == EDM_WALK_STOP) {
            return false;
        }
        if (is_tail) {
            return true;
        }
        link = next;
    }
}

// The frame of every walk: it rejects a null callback, holds the lock, and reports whether the callback stopped the
// walk.
template <typename Callback, typename Visit>
uint32_t walk(Callback callback, Visit visit)
{
    if (callback == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    const edm::scoped_lock lock;
    return visit() ? 0 : EDM_ERR_STOPPED;
}

} // namespace

uint32_t l2fm_edm_table_walk_all_macs(l2fm_edm_mac_walk_fn callback, void *cookie)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK { return visit_list(callback, cookie, {edm::list_end()}); });
}

uint32_t edm::walk_all_macs_to_destroy(l2fm_edm_mac_walk_fn callback)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK { return visit_list(callback, nullptr, start_scout()); });
}

uint32_t l2fm_edm_table_walk_all_macs_under_bd(l2fm_edm_mac_walk_fn callback, void *cookie, uint32_t bridge_id)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        return visit_macs_of_bd(l2fm_edm_table_bd_get_by_bridgeid(bridge_id), callback, cookie);
    });
}

uint32_t l2fm_edm_table_walk_all_macs_under_bp(l2fm_edm_mac_walk_fn callback, void *cookie, uint32_t xcid)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        return visit_macs(l2fm_edm_table_bp_get_by_xcid(xcid), callback, cookie);
    });
}

uint32_t l2fm_edm_table_walk_all_vteps(l2fm_edm_vtep_walk_fn callback)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_first_by_name();
        while (bd != nullptr && visit_vteps_of_bd(bd, callback)) {
            bd = l2fm_edm_table_bd_get_next_by_name(bd);
        }
        return bd == nullptr;
    });
}

uint32_t l2fm_edm_table_walk_all_vteps_under_bd(l2fm_edm_vtep_walk_fn callback, void *, uint32_t bridge_id)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        return visit_vteps_of_bd(l2fm_edm_table_bd_get_by_bridgeid(bridge_id), callback);
    });
}

uint32_t l2fm_edm_table_walk_all_vteps_under_bp(l2fm_edm_vtep_walk_fn callback, void *, uint32_t xcid)
{
    return walk(callback, [=]() L2FIB_REQUIRES_TABLE_LOCK {
        l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
        return bp == nullptr || visit_vteps(bp, callback);
    });
}
