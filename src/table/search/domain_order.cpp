// SPDX-License-Identifier: Apache-2.0

#include "table/search/domain_order.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "table/element.h"

namespace {

using edm::domain_order;

constexpr uint32_t max_ports = 4096;
constexpr uint32_t max_reported = 64; // ports; to search more of them again saves little
constexpr uint32_t slot_bits = 16;
constexpr uint64_t no_address = UINT64_MAX;

static_assert(max_ports <= 1U << slot_bits);

struct port_order {
    uint64_t behind; // every candidate has the smallest address of its port that is greater than this one
    uint32_t ports;
    uint32_t width; // `ports` rounded up to a power of two
    uint32_t reported_ports;
    std::array<const l2fm_edm_bp_t *, max_reported> reported;
    std::array<const l2fm_edm_bp_t *, max_ports> port; // by slot
    std::array<l2fm_edm_mac_t *, max_ports> candidate; // by slot
    // The tree of minima. 1 is the top, 2i and 2i + 1 are below i, and `width` + slot is the candidate of the slot: its
    // address and the slot, or `no_address`.
    std::array<uint64_t, size_t{2} * max_ports> least;
};

constinit port_order order L2FIB_GUARDED_BY_TABLE_LOCK{};

// Returns an address as a number that orders as the addresses do.
uint64_t number_of(const uint8_t *mac_addr)
{
    uint64_t word = 0;
    std::memcpy(&word, mac_addr, edm::mac_addr_size);
    return (std::endian::native == std::endian::little ? __builtin_bswap64(word) : word) >> slot_bits;
}

uint64_t key_of(const l2fm_edm_mac_t *mac, uint32_t slot)
{
    return mac == nullptr ? no_address : number_of(mac->mac_addr) << slot_bits | slot;
}

void renew_least(uint32_t at) L2FIB_REQUIRES_TABLE_LOCK
{
    const size_t left = size_t{2} * at;
    order.least[at] = std::min(order.least[left], order.least[left + 1]);
}

void put_candidate(uint32_t slot, l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    order.candidate[slot] = mac;
    order.least[order.width + slot] = key_of(mac, slot);
}

void replace_candidate(uint32_t slot, l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    put_candidate(slot, mac);
    for (uint32_t at = (order.width + slot) / 2; at > 0; at /= 2) {
        renew_least(at);
    }
}

void address_of(uint64_t number, uint8_t *mac_addr)
{
    for (uint32_t i = edm::mac_addr_size; i > 0; i--) {
        mac_addr[i - 1] = static_cast<uint8_t>(number);
        number >>= 8;
    }
}

// Lists the ports of a bridge domain. False if there are too many.
bool list_ports(const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK
{
    order.ports = 0;
    const l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    for (; bp != nullptr && order.ports < max_ports; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
        order.port[order.ports++] = bp;
    }
    return bp == nullptr;
}

// Searches all ports of a bridge domain. False if there are too many.
bool search_all(const l2fm_edm_bd_t *bd, const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK
{
    edm::domain_order_forget();
    if (!list_ports(bd)) {
        return false;
    }
    order.behind = number_of(mac_addr);
    order.width = std::bit_ceil(order.ports);
    for (uint32_t slot = 0; slot < order.ports; slot++) {
        put_candidate(slot, l2fm_edm_table_bp_macaddr_get_next(&order.port[slot]->mac_tree, mac_addr));
    }
    std::fill_n(order.least.begin() + order.width + order.ports, order.width - order.ports, no_address);
    for (uint32_t at = order.width - 1; at > 0; at--) {
        renew_least(at);
    }
    domain_order = {bd, edm::tree_changes.all};
    return true;
}

// The ports stand in the order of xcid, and every reported port is one of them.
uint32_t slot_of(const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    auto *const end = order.port.begin() + order.ports;
    auto *const found = std::lower_bound(order.port.begin(), end, bp->xcid,
                                         [](const l2fm_edm_bp_t *at, uint32_t xcid) { return at->xcid < xcid; });
    return static_cast<uint32_t>(found - order.port.begin());
}

void search_reported() L2FIB_REQUIRES_TABLE_LOCK
{
    uint8_t behind[edm::mac_addr_size];
    address_of(order.behind, behind);
    for (uint32_t i = 0; i < order.reported_ports; i++) {
        const l2fm_edm_bp_t *bp = order.reported[i];
        replace_candidate(slot_of(bp), l2fm_edm_table_bp_macaddr_get_next(&bp->mac_tree, behind));
    }
    order.reported_ports = 0;
}

uint32_t slot_in(uint64_t least)
{
    return static_cast<uint32_t>(least & ((1U << slot_bits) - 1));
}

// Moves all candidates behind an address.
void advance(const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK
{
    order.behind = number_of(mac_addr);
    for (uint64_t least = order.least[1]; least != no_address && least >> slot_bits <= order.behind;
         least = order.least[1]) {
        const uint32_t slot = slot_in(least);
        const l2fm_edm_bp_t *bp = order.port[slot];
        const bool is_direct = least >> slot_bits == order.behind;
        replace_candidate(slot, is_direct ? l2fm_edm_table_bp_mac_get_next(bp, order.candidate[slot])
                                          : l2fm_edm_table_bp_macaddr_get_next(&bp->mac_tree, mac_addr));
    }
}

bool remembers(const l2fm_edm_bd_t *bd, const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK
{
    return domain_order.bd == bd && domain_order.changes == edm::tree_changes.all
           && number_of(mac_addr) >= order.behind;
}

} // namespace

namespace edm {

constinit domain_order_state domain_order{};

domain_answer next_in_domain(const l2fm_edm_bd_t *bd, const uint8_t *mac_addr)
{
    if (bd == nullptr || !indexes_cover(&bd->bp_tree)) {
        return {false, nullptr};
    }
    if (remembers(bd, mac_addr)) {
        search_reported();
        advance(mac_addr);
    } else if (!search_all(bd, mac_addr)) {
        return {false, nullptr};
    }
    const uint64_t least = order.least[1];
    return {true, least == no_address ? nullptr : order.candidate[slot_in(least)]};
}

void domain_order_forget()
{
    domain_order = {};
    order.reported_ports = 0;
}

void domain_order_note(const l2fm_edm_bp_t *bp)
{
    auto *const end = order.reported.begin() + order.reported_ports;
    if (std::find(order.reported.begin(), end, bp) != end) {
        return;
    }
    if (order.reported_ports == max_reported) {
        domain_order_forget();
        return;
    }
    order.reported[order.reported_ports++] = bp;
}

} // namespace edm
