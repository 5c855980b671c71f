// SPDX-License-Identifier: Apache-2.0

#include "table/address_index.h"

#include <cstring>

#include "table/growing_index.h"
#include "table/index_trust.h"

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

// The place of each address holds the head of its chain.
constinit edm::growing_index<by_address> heads{};
constinit uint64_t missing = 0;

// The address that was last looked for in vain, until the next entry is linked: whoever creates an entry has looked for
// its address just before, and need not look again. Addresses are 48 bits wide, so `no_address` is none.
constexpr uint64_t no_address = UINT64_MAX;
constinit uint64_t known_absent = no_address;

// One address on very many ports: a search in the ports of one bridge domain is cheaper from here on.
constexpr uint32_t longest_chain_followed = 64;

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

// A missing entry is its own predecessor, which no entry in a chain is.
bool is_missing(const l2fm_edm_mac_t *mac)
{
    return chain_prev(mac) == mac;
}

// Puts an entry behind the head of its chain.
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

// Takes the head of a chain out; its place goes to the next entry, or away.
void remove_head(l2fm_edm_mac_t *mac)
{
    const edm::index_place place = edm::index_find(heads, by_address::key_of(*mac));
    if (edm::index_record(heads, place) != mac) {
        return; // was never linked
    }
    l2fm_edm_mac_t *next = chain_next(mac);
    if (next == nullptr) {
        edm::index_erase(heads, place);
        return;
    }
    set_chain_prev(next, nullptr);
    edm::index_replace(place, next);
}

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
        if (bp == nullptr || followed == longest_chain_followed) {
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
