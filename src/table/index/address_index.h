// SPDX-License-Identifier: Apache-2.0

// The index of all MAC entries by address. One access answers whether an address is cached, and where.
//
// Without it each new entry would need a search in all ports of its bridge domain, to find out whether its address has
// moved. Entries with the same address, on all ports, form a chain, and the index names the head of the chain:
//
//      index                    port 10               port 11               port 20
//      02:00:00:00:0a:01  --->  entry                 entry                 entry
//                                 |  ^                  |  ^                  |  ^
//                                 v  |                  v  |                  v  |
//                               member  <---------->  member  <---------->  member
//
// An entry that is alone with its address, as nearly all are, has no member. So a record pays one word for the chain.
//
// The chain does not depend on bridge domains. A port that moves to another bridge domain needs no change here. A head
// with a successor is marked in the index, so a search for any other address reads one line of the index and one of the
// entry.
//
// If memory is short, an entry stays out of the index and counts as missing. While an entry is missing, or if a chain
// is long, the answer is "unknown" and the caller searches the trees.
//
// The creation and the destruction of an entry update the index. Callers search it only while edm::indexes_trusted():
// afterwards nobody updates it, and it may name entries that no longer exist or have no port.
#pragma once

#include <cstring>

#include "l2fm_edm_table.h"
#include "table/index/growing_index.h"

namespace edm {

struct by_address {
    using record_t = l2fm_edm_mac_t;
    using key_t = uint64_t;

    static uint64_t key(const uint8_t *mac_addr)
    {
        uint32_t high = 0;
        uint16_t low = 0;
        std::memcpy(&high, mac_addr, sizeof(high));
        std::memcpy(&low, mac_addr + sizeof(high), sizeof(low));
        return uint64_t{low} << 32 | high;
    }

    static uint64_t key_of(const l2fm_edm_mac_t &mac) { return key(mac.mac_addr); }
};

struct chain_member;
struct member_block;

// The index itself, for the functions below. Only they and address_index.cpp use it.
struct address_index {
    growing_index<by_address> heads; // the head of the chain of each address
    chain_member *free_members;
    member_block *blocks;  // the memory of all members
    uint64_t missing;      // how many entries are not in the index
    uint64_t known_absent; // see address_index.cpp
};

extern address_index addresses L2FIB_GUARDED_BY_TABLE_LOCK;

// Comes before all other uses, once.
void address_index_prepare() L2FIB_REQUIRES_TABLE_LOCK;

void address_index_link(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;
void address_index_unlink(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;

// Empties the index and releases its memory.
void address_index_release() L2FIB_REQUIRES_TABLE_LOCK;

// An address with its hash, so that the steps of a search compute them once. Stays valid.
struct address_probe {
    uint64_t address;
    uint64_t hash;
};

[[gnu::always_inline]] inline address_probe probe_of(const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint64_t address = by_address::key(mac_addr);
    return {address, index_hash(addresses.heads, address)};
}

// Hints that the caller will soon look for an address. The processor fetches memory meanwhile.
[[gnu::always_inline]] inline void address_index_expect(const address_probe &probe) L2FIB_REQUIRES_TABLE_LOCK
{
    index_expect(addresses.heads, probe.hash);
}

// Prefetches the entry that probably has the address. False if there is probably none. The bucket is in the cache.
[[gnu::always_inline]] inline bool address_index_expect_entry(const address_probe &probe) L2FIB_REQUIRES_TABLE_LOCK
{
    const index_place place = index_guess(addresses.heads, probe.hash);
    if (!place) {
        return false;
    }
    const auto *entry = reinterpret_cast<const char *>(index_record(addresses.heads, place));
    __builtin_prefetch(entry, 1);
    __builtin_prefetch(entry + sizeof(l2fm_edm_mac_t) - 1, 1);
    return true;
}

struct address_answer {
    bool known;          // false: search the trees
    l2fm_edm_mac_t *mac; // null: no entry has the address
};

// Returns the entry with this address on the port `preferred`, else the one on the port with the lowest xcid of the
// bridge domain `bd`. With a null `preferred` it looks at the bridge domain only, with a null `bd` at `preferred` only.
address_answer address_index_find(const address_probe &probe, const l2fm_edm_bp_t *preferred,
                                  const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;

// The same for an address with at most one entry, without a call. Otherwise it does not know the answer, and the caller
// asks address_index_find. Always inlined: most callers pass a null that removes a part of it, and a caller that calls
// nothing saves no registers.
[[gnu::always_inline]] inline address_answer address_index_look(const address_probe &probe,
                                                                const l2fm_edm_bp_t *preferred,
                                                                const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK
{
    const uintptr_t record = index_look(addresses.heads, probe.address, probe.hash);
    // An undecided answer looks like a marked one.
    if (!index_is_unmarked(record) || addresses.missing != 0) {
        return {false, nullptr};
    }
    if (record == index_absent) {
        addresses.known_absent = probe.address;
        return {true, nullptr};
    }
    auto *mac = reinterpret_cast<l2fm_edm_mac_t *>(record);
    const bool is_wanted = (preferred != nullptr && mac->bp == preferred) || (bd != nullptr && mac->bp->bd == bd);
    return {true, is_wanted ? mac : nullptr};
}

// How an entry was counted last (table/records/mac_entry.cpp). Members are aligned to 16 bytes, so the low bits of the
// pointer to an entry's member are free for it:
//
//      same_addr    | member or null                     | 1 bit: counted | 3 bits: kind |
constexpr uintptr_t kind_mask = 7;
constexpr uintptr_t counted_mask = 8;
constexpr uintptr_t member_alignment = 16;
constexpr uintptr_t count_mask = member_alignment - 1;
static_assert((counted_mask | kind_mask) == count_mask);

inline bool is_counted(const l2fm_edm_mac_t *mac)
{
    return (mac->same_addr & counted_mask) != 0;
}

inline uint32_t counted_as(const l2fm_edm_mac_t *mac)
{
    return static_cast<uint32_t>(mac->same_addr & kind_mask);
}

inline void set_counted_as(l2fm_edm_mac_t *mac, uint32_t kind)
{
    mac->same_addr = (mac->same_addr & ~count_mask) | counted_mask | (kind & kind_mask);
}

} // namespace edm
