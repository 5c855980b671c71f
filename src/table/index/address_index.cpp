// SPDX-License-Identifier: Apache-2.0

#include "table/index/address_index.h"

#include "table/index/index_trust.h"

namespace {

using edm::addresses;
using edm::by_address;

// An address has 48 bits, so none equals `no_address`.
constexpr uint64_t no_address = UINT64_MAX;

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

bool is_head(const l2fm_edm_mac_t *mac)
{
    return chain_prev(mac) == nullptr;
}

// A missing entry is its own predecessor. No entry in a chain is.
bool is_missing(const l2fm_edm_mac_t *mac)
{
    return chain_prev(mac) == mac;
}

// Inserts an entry behind the head of its chain, which needs no search for the chain's end.
void join_chain(edm::index_place place, l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_mac_t *head = edm::index_record(addresses.heads, place);
    l2fm_edm_mac_t *next = chain_next(head);
    set_chain_next(mac, next);
    set_chain_prev(mac, head);
    if (next != nullptr) {
        set_chain_prev(next, mac);
    }
    set_chain_next(head, mac);
    edm::index_set_mark(place, true);
}

// Removes the head of a chain. The next entry becomes the head; without a next entry the address leaves the index.
void remove_head(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    const edm::address_probe probe = edm::probe_of(mac->mac_addr);
    const edm::index_place place = edm::index_find(addresses.heads, probe.address, probe.hash);
    if (edm::index_record(addresses.heads, place) != mac) {
        return; // the entry was never linked
    }
    l2fm_edm_mac_t *next = chain_next(mac);
    if (next == nullptr) {
        edm::index_erase(addresses.heads, place, probe.hash);
        return;
    }
    set_chain_prev(next, nullptr);
    edm::index_replace(place, next);
    edm::index_set_mark(place, chain_next(next) != nullptr);
}

// Removes an entry behind `prev` from its chain.
[[gnu::noinline]] void remove_behind(l2fm_edm_mac_t *prev, l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_mac_t *next = chain_next(mac);
    set_chain_next(prev, next);
    if (next != nullptr) {
        set_chain_prev(next, prev);
    } else if (is_head(prev)) {
        if (const edm::index_place place = edm::index_find(addresses.heads, by_address::key_of(*prev))) {
            edm::index_set_mark(place, false);
        }
    }
}

} // namespace

namespace edm {

// `known_absent` is the address that the latest unsuccessful search was for, until the next entry is linked. A feed
// searches an address just before it creates the entry, so address_index_link need not search it again.
constinit address_index addresses = {.heads = {}, .missing = 0, .known_absent = no_address};

void address_index_prepare()
{
    index_prepare(addresses.heads);
}

void address_index_link(l2fm_edm_mac_t *mac)
{
    if (!indexes_trusted()) {
        return;
    }
    const uint64_t address = by_address::key_of(*mac);
    const index_place place = address != addresses.known_absent ? index_find(addresses.heads, address) : index_place{};
    addresses.known_absent = no_address;
    if (place) {
        join_chain(place, mac);
    } else if (!index_insert(addresses.heads, mac)) {
        set_chain_prev(mac, mac);
        addresses.missing++;
    }
}

void address_index_unlink(l2fm_edm_mac_t *mac)
{
    if (!indexes_trusted()) {
        return;
    }
    l2fm_edm_mac_t *prev = chain_prev(mac);
    if (is_missing(mac)) {
        addresses.missing--;
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
    index_release(addresses.heads);
    addresses.missing = 0;
    addresses.known_absent = no_address;
}

address_answer address_index_find(const address_probe &probe, const l2fm_edm_bp_t *preferred, const l2fm_edm_bd_t *bd)
{
    if (addresses.missing != 0) {
        return {false, nullptr};
    }
    l2fm_edm_mac_t *mac = index_record(addresses.heads, index_find(addresses.heads, probe.address, probe.hash));
    if (mac == nullptr) {
        addresses.known_absent = probe.address;
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
