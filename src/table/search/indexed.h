// SPDX-License-Identifier: Apache-2.0

// Lookups that ask the indexes first, inlined for the feed. The exported lookups of lookup.cpp give the same answers.
#pragma once

#include "table/index/address_index.h"
#include "table/index/index_trust.h"
#include "table/index/object_index.h"

namespace edm {

// What a feed finds in one look at the indexes.
struct fed_place {
    l2fm_edm_bp_t *bp;   // the port, up to date; null: not decided
    l2fm_edm_mac_t *mac; // the entry to update; null if the address is new to the bridge domain
};

// The port of a descriptor if an index knows it and it needs no refresh, else null. The caller has checked that the
// indexes are trusted.
[[gnu::always_inline]] inline l2fm_edm_bp_t *look_for_bp(const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    if ((entry->flags & EDM_MAC_ON_DUMMY_PORT) != 0) {
        return nullptr;
    }
    l2fm_edm_bp_t *bp = recent_bp_of(entry->xcid);
    return bp != nullptr && bp->refresh_pending == 0 ? bp : nullptr;
}

// The port and the entry of a descriptor whose bridge domain, port and address the indexes know. `Look` asks for the
// address: address_index_look decides nearly always, address_index_find also while the index grows and for addresses
// with several entries.
template <auto Look>
[[gnu::always_inline]] inline fed_place look_for_fed(const address_probe &probe,
                                                     const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    if (!indexes_trusted()) {
        return {};
    }
    const l2fm_edm_bd_t *bd = bd_index_find(entry->bridge_id);
    l2fm_edm_bp_t *bp = bd != nullptr ? look_for_bp(entry) : nullptr;
    if (bp == nullptr) {
        return {};
    }
    const address_answer answer = Look(probe, bp, bd);
    return answer.known ? fed_place{bp, answer.mac} : fed_place{};
}

} // namespace edm
