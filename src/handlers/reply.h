// SPDX-License-Identifier: Apache-2.0

// Reply records (platform/parcel.h), filled from the cache.
//
// Texts of a filled MAC info record are heap copies. The caller encodes the record (request.h), which releases them. If
// memory is short, a text stays null and the reply lacks it.
//
// Threads: Mac-Edm-Thread.
#pragma once

#include "handlers/item_key.h"
#include "handlers/request.h"
#include "l2fm_edm_table.h"
#include "platform/l2fib.h"

extern "C" {
// Clears and fills a MAC info record. If the entry is null, has no port, or its port has no bridge domain, it leaves
// the record untouched and returns EDM_ERR_BAD_REQUEST.
uint32_t l2fib_hw_edm_fill_mac_parcel(l2fib_mac_info_t *record, const l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;

// Fills a VTEP info record. Returns EDM_ERR_BAD_REQUEST for a null argument, or if the port is not EDM_BP_TYPE_VXLAN.
uint32_t l2fib_hw_vtep_fill_parcel(l2fib_vtep_info_t *record, const l2fm_edm_vtep_t *vtep,
                                   const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;

// Callback of counting walks: counts an entry into the edm_mac_counters_t at `counters`. It counts an entry that is
// both static and local as local only. It stops the walk if an argument is null.
uint32_t l2fib_hw_mac_cnt_walk_cb(l2fm_edm_mac_t *mac, void *counters);
}

namespace edm {

// The flagged bits of all handlers but one: EDM_REQ_ONLY_FLAGGED asks for entries with one of them.
constexpr uint16_t flagged_entries = EDM_MAC_ON_DUMMY_PORT | EDM_MAC_4000 | EDM_MAC_LOCKED;

// Returns the flags of which an entry must have one, or 0 if the request asks for all entries.
inline uint16_t wanted_flags(uint32_t request_flags, uint16_t flagged)
{
    return (request_flags & EDM_REQ_ONLY_FLAGGED) != 0 ? flagged : uint16_t{0};
}

inline bool has_wanted_flags(const l2fm_edm_mac_t *mac, uint16_t wanted)
{
    return wanted == 0 || (mac->flags & wanted) != 0;
}

// Adds an entry of `bd` to a list, or with its record to a datalist. On failure it leaves the entry out and returns
// false. It traces a failure to encode or to add, but not an entry that fills no record.
bool add_mac(list_reply &reply, mac_item_names &names, const l2fm_edm_bd_t *bd,
             const l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;

} // namespace edm
