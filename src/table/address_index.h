// SPDX-License-Identifier: Apache-2.0

// The index of all MAC entries by address: one access answers whether an address is cached, and where.
//
// Without it, finding out whether an address has moved to another port of its bridge domain means a search in every
// port of it, for every new entry. Entries of one address, on whatever ports, form a chain. Nothing in it depends on
// bridge domains, so a port that moves to another one needs no attention here.
//
// If there is no memory for an entry, it stays out of the index and is remembered as missing. While any entry is
// missing, or if a chain is long, the answer is "unknown" and the caller searches the trees.
//
// The creation and the destruction of an entry update the index. It may be asked while edm::indexes_trusted(); after
// that nothing updates it, and it may name entries that are gone. The caller holds the table lock.
#pragma once

#include "l2fm_edm_table.h"

namespace edm {

void address_index_link(l2fm_edm_mac_t *mac);
void address_index_unlink(l2fm_edm_mac_t *mac);

// Gives all memory back; no entry is linked any more.
void address_index_release();

// An address is about to be looked for: memory may answer while something else is done.
void address_index_expect(const uint8_t *mac_addr);

struct address_answer {
    bool known;          // false: search the trees
    l2fm_edm_mac_t *mac; // null: there is none
};

// The entry with this address on the port `preferred` (which may be null), else on the port of the lowest xcid of the
// bridge domain `bd` (which may be null: then on no other port).
address_answer address_index_find(const uint8_t *mac_addr, const l2fm_edm_bp_t *preferred, const l2fm_edm_bd_t *bd);

// How an entry was counted last, see mac_entry.cpp. The low bits of the chain's two pointers hold it: three bits beside
// the predecessor say as what, one bit beside the successor says whether it was counted at all.
constexpr uintptr_t kind_mask = 7;
constexpr uintptr_t counted_mask = 1;
static_assert(alignof(l2fm_edm_mac_t) > kind_mask);

inline bool is_counted(const l2fm_edm_mac_t *mac)
{
    return (mac->same_addr_next & counted_mask) != 0;
}

inline uint32_t counted_as(const l2fm_edm_mac_t *mac)
{
    return static_cast<uint32_t>(mac->same_addr_prev & kind_mask);
}

inline void set_counted_as(l2fm_edm_mac_t *mac, uint32_t kind)
{
    mac->same_addr_next |= counted_mask;
    mac->same_addr_prev = (mac->same_addr_prev & ~kind_mask) | (kind & kind_mask);
}

} // namespace edm
