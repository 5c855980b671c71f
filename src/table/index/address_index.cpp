// SPDX-License-Identifier: Apache-2.0

#include "table/index/address_index.h"

#include <cstring>

#include "table/index/growing_index.h"
#include "table/index/index_trust.h"

namespace {

struct by_address {
    using record_t = l2fm_edm_mac_t;
    using key_t = uint64_t;

    static uint64_t key(const uint8_t *mac_addr)
    {
        uint32_t high = 0;
        uint16_t low = 0;
        std::memcpy(&high, mac_addr, sizeof(high));
        std::memcpy(&low, mac_addr + sizeof(high), sizeof(low));
        return uint64_t{high} << 16 | low;
    }

    static uint64_t key_of(const l2fm_edm_mac_t &mac) { return key(mac.mac_addr); }
};

// The head of the chain of each address.
constinit edm::growing_index<by_address> heads L2FIB_GUARDED_BY_TABLE_LOCK{};
// How many entries are not in the index.
constinit uint64_t missing L2FIB_GUARDED_BY_TABLE_LOCK = 0;

// The address that the latest unsuccessful search was for, until the next entry is linked. A feed searches an address
// just before it creates the entry, so address_index_link need not search it again. An address has 48 bits, so none
// equals `no_address`.
constexpr uint64_t no_address = UINT64_MAX;
constinit uint64_t known_absent L2FIB_GUARDED_BY_TABLE_LOCK = no_address;

// How many entries of a chain a search visits. In a longer chain, a search in the ports of one bridge domain is
// cheaper.
constexpr uint32_t max_chain_followed = 64;

l2fm_edm_mac_t *chain_prev(const l2fm_edm_mac_t *mac)
{
    return reinterpret_cast<l2fm_edm_mac_t *>(mac->same_addr_prev & ~edm::kind_mask);
}

void set_chain_prev(l2fm_edm_mac_t *mac, l2fm_edm_mac_t *prev)
{
    mac->same_addr_prev = reinterpret_cast<uintptr_t>(prev) | (mac->same_addr_prev & edm::kind_mask);
}

l2fm_edm_mac_t *chain_next(const l2fm_edm_mac_t *mac)
{
    return reinterpret_cast<l2fm_edm_mac_t *>(mac->same_addr_next & ~edm::counted_mask);
}

void set_chain_next(l2fm_edm_mac_t *mac, l2fm_edm_mac_t *next)
{
    mac->same_addr_next = reinterpret_cast<uintptr_t>(next) | (mac->same_addr_next & edm::counted_mask);
}

// A missing entry is its own predecessor. No entry in a chain is.
bool is_missing(const l2fm_edm_mac_t *mac)
{
    return chain_prev(mac) == mac;
}

// Inserts an entry behind the head of its chain, which needs no search for the chain's end.
void join_chain(l2fm_edm_mac_t *head, l2fm_edm_mac_t *mac)
{
    l2fm_edm_mac_t *next = chain_next(head);
    set_chain_next(mac, next);
    set_chain_prev(mac, head);
    if (next != nullptr) {
        set_chain_prev(next, mac);
    }
    set_chain_next(head, mac);
}

// Removes the head of a chain. The next entry becomes the head; without a next entry the address leaves the index.
void remove_head(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    const edm::index_place place = edm::index_find(heads, by_address::key_of(*mac));
    if (edm::index_record(heads, place) != mac) {
        return; // the entry was never linked
    }
    l2fm_edm_mac_t *next = chain_next(mac);
    if (next == nullptr) {
        edm::index_erase(heads, place);
        return;
    }
    set_chain_prev(next, nullptr);
    edm::index_replace(place, next);
}

// Removes an entry behind `prev` from its chain.
void remove_behind(l2fm_edm_mac_t *prev, l2fm_edm_mac_t *mac)
{
    l2fm_edm_mac_t *next = chain_next(mac);
    set_chain_next(prev, next);
    if (next != nullptr) {
        set_chain_prev(next, prev);
    }
}

} // namespace

namespace edm {

void address_index_link(l2fm_edm_mac_t *mac)
{
    if (!indexes_trusted()) {
        return;
    }
    const uint64_t address = by_address::key_of(*mac);
    const index_place place = address != known_absent ? index_find(heads, address) : index_place{};
    known_absent = no_address;
    if (place) {
        join_chain(index_record(heads, place), mac);
    } else if (!index_insert(heads, mac)) {
        set_chain_prev(mac, mac);
        missing++;
    }
}

void address_index_unlink(l2fm_edm_mac_t *mac)
{
    if (!indexes_trusted()) {
        return;
    }
    l2fm_edm_mac_t *prev = chain_prev(mac);
    if (is_missing(mac)) {
        missing--;
    } else if (prev != nullptr) {
        remove_behind(prev, mac);
    } else {
        remove_head(mac);
    }
    set_chain_next(mac, nullptr);
    set_chain_prev(mac, nullptr);
}

void address_index_release()
{
    index_release(heads);
    missing = 0;
    known_absent = no_address;
}

void address_index_expect(const uint8_t *mac_addr)
{
    index_expect(heads, by_address::key(mac_addr));
}

address_answer address_index_find(const uint8_t *mac_addr, const l2fm_edm_bp_t *preferred, const l2fm_edm_bd_t *bd)
{
    if (missing != 0) {
        return {false, nullptr};
    }
    const uint64_t address = by_address::key(mac_addr);
    l2fm_edm_mac_t *mac = index_record(heads, index_find(heads, address));
    if (mac == nullptr) {
        known_absent = address;
    }
    l2fm_edm_mac_t *lowest = nullptr;
    for (uint32_t followed = 0; mac != nullptr; mac = chain_next(mac), followed++) {
        const l2fm_edm_bp_t *bp = mac->bp;
        if (bp == nullptr || followed == max_chain_followed) {
            return {false, nullptr};
        }
        if (bp == preferred) {
            return {true, mac};
        }
        if (bd != nullptr && bp->bd == bd && (lowest == nullptr || bp->xcid < lowest->bp->xcid)) {
            lowest = mac;
        }
    }
    return {true, lowest};
}

} // namespace edm
