// SPDX-License-Identifier: Apache-2.0

// The records that requests are answered with (platform/parcel.h), filled from the cache.
//
// Texts of a filled MAC info record are heap copies; whoever filled the record encodes it (request.h), which releases
// them. A text for which there is no memory is left out.
//
// Threads: fillers read cache records and need the table lock, save l2fib_hw_mac_addr_cnt_fill.
#pragma once

#include "handlers/item_key.h"
#include "handlers/request.h"
#include "l2fm_edm_table.h"
#include "platform/l2fib.h"

extern "C" {
// Clears and fills a MAC info record. EDM_ERR_BAD_REQUEST, the record untouched, for an entry that is null, is on no
// port, or on a port of no bridge domain.
uint32_t l2fib_hw_edm_fill_mac_parcel(l2fib_mac_info_t *record, const l2fm_edm_mac_t *mac);

// Fills a VTEP info record. EDM_ERR_BAD_REQUEST for a null argument, or a port that is not of kind 4.
uint32_t l2fib_hw_vtep_fill_parcel(l2fib_vtep_info_t *record, const l2fm_edm_vtep_t *vtep, const l2fm_edm_bp_t *bp);

// Counts an entry into the edm_mac_counters_t at `counters`; the callback of counting walks. One that is both static
// and local counts as local alone. Stops the walk for a null argument.
uint32_t l2fib_hw_mac_cnt_walk_cb(l2fm_edm_mac_t *mac, void *counters);
}

namespace edm {

// Entries that EDM_REQ_ONLY_FLAGGED asks for, except in one handler.
constexpr uint16_t flagged_entries = 0xc668;

// The flags of which an entry has to have one; 0 when all entries are asked for.
inline uint16_t wanted_flags(uint32_t request_flags, uint16_t flagged)
{
    return (request_flags & EDM_REQ_ONLY_FLAGGED) != 0 ? flagged : uint16_t{0};
}

inline bool has_wanted_flags(const l2fm_edm_mac_t *mac, uint16_t wanted)
{
    return wanted == 0 || (mac->flags & wanted) != 0;
}

// Adds an entry of `bd` to a list, with its record to a datalist. One that cannot be added is left out, and false is
// returned; that it was encoding or adding that failed is traced.
bool add_mac(list_reply &reply, mac_item_names &names, const l2fm_edm_bd_t *bd, const l2fm_edm_mac_t *mac);

} // namespace edm
