// The index of all MAC entries by address: one access answers whether an address is cached, and where.
//
// Without it, finding out whether an address has moved to another port of its bridge domain means a search in every
// port of it, for every new entry. Entries of one address, on whatever ports, form a chain. Nothing in it depends on
// bridge domains, so a port that moves to another one needs no attention here.
//
// Not obvious: an entry for which there was no memory is not in the index, and is remembered as missing. While any is
// missing, or a chain is long, the answer is "unknown" and the caller searches the trees.
//
// Whoever links an entry into its port's tree or takes it out keeps the index in step. The caller holds the table lock.
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

// How an entry was counted last, three bits; see mac_entry.cpp. They share a word with the chain.
constexpr uintptr_t counted_mask = 7;
static_assert(alignof(l2fm_edm_mac_t) > counted_mask);

inline uint32_t counted_as(const l2fm_edm_mac_t *mac)
{
    return static_cast<uint32_t>(mac->same_addr_prev & counted_mask);
}

inline void set_counted_as(l2fm_edm_mac_t *mac, uint32_t kind)
{
    mac->same_addr_prev = (mac->same_addr_prev & ~counted_mask) | (kind & counted_mask);
}

} // namespace edm
