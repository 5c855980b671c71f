// SPDX-License-Identifier: Apache-2.0

// The index of all MAC entries by address. One access answers whether an address is cached, and where.
//
// Without it each new entry would need a search in all ports of its bridge domain, to find out whether its address has
// moved. Entries with the same address, on all ports, form a chain, and the index names the head of the chain:
//
//      index                    port 10               port 11               port 20
//      02:00:00:00:0a:01  --->  entry  <----------->  entry  <----------->  entry
//
// The chain does not depend on bridge domains. A port that moves to another bridge domain needs no change here.
//
// If memory is short, an entry stays out of the index and counts as missing. While an entry is missing, or if a chain
// is long, the answer is "unknown" and the caller searches the trees.
//
// The creation and the destruction of an entry update the index. Callers use its answers only while
// edm::indexes_trusted(): afterwards nobody updates it, and it may name entries that no longer exist.
#pragma once

#include "l2fm_edm_table.h"

namespace edm {

void address_index_link(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;
void address_index_unlink(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;

// Empties the index and releases its memory.
void address_index_release() L2FIB_REQUIRES_TABLE_LOCK;

// Hints that the caller will soon look for an address. The processor fetches memory meanwhile.
void address_index_expect(const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK;

struct address_answer {
    bool known;          // false: search the trees
    l2fm_edm_mac_t *mac; // null: no entry has the address
};

// Returns the entry with this address on the port `preferred`, else the one on the port with the lowest xcid of the
// bridge domain `bd`. With a null `preferred` it looks at the bridge domain only, with a null `bd` at `preferred` only.
address_answer address_index_find(const uint8_t *mac_addr, const l2fm_edm_bp_t *preferred,
                                  const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;

// How an entry was counted last (table/records/mac_entry.cpp). Entries are aligned to 8 bytes, so the low bits of the
// chain's pointers are free for it:
//
//      same_addr_prev    | predecessor                      | 3 bits: kind |
//      same_addr_next    | successor                        | 0  0 | 1 bit: counted |
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
