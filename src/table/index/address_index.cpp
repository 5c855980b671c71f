// SPDX-License-Identifier: Apache-2.0

#include "table/index/address_index.h"

#include <sys/mman.h>

#include "table/index/index_trust.h"

namespace edm {

// The place of an entry in the chain of its address.
struct alignas(member_alignment) chain_member {
    l2fm_edm_mac_t *mac;
    chain_member *next; // also links the free members
    chain_member *prev; // null: its entry is the head
};

// Members come in blocks, which live until the index is released.
struct member_block {
    static constexpr size_t size = 4096; // bytes: a small page, so that no insertion touches more than one

    member_block *next;
    chain_member members[(size - member_alignment) / sizeof(chain_member)];
};

static_assert(sizeof(member_block) <= member_block::size);

} // namespace edm

namespace {

using edm::addresses;
using edm::by_address;
using edm::chain_member;
using edm::member_block;

// An address has 48 bits, so none equals `no_address`.
constexpr uint64_t no_address = UINT64_MAX;

// How many entries of a chain a search visits. In a longer chain, a search in the ports of one bridge domain is
// cheaper.
constexpr uint32_t max_chain_followed = 64;

// The member of each entry that is missing in the index.
constinit chain_member missing{};

chain_member *member_of(const l2fm_edm_mac_t *mac)
{
    return reinterpret_cast<chain_member *>(mac->same_addr & ~edm::count_mask);
}

void set_member(l2fm_edm_mac_t *mac, chain_member *member)
{
    mac->same_addr = reinterpret_cast<uintptr_t>(member) | (mac->same_addr & edm::count_mask);
}

// Returns the entry behind another one in the chain, or null.
l2fm_edm_mac_t *chain_next(const l2fm_edm_mac_t *mac)
{
    const chain_member *member = member_of(mac);
    return member != nullptr && member->next != nullptr ? member->next->mac : nullptr;
}

// ---- Members ----

void free_member(chain_member *member) L2FIB_REQUIRES_TABLE_LOCK
{
    member->next = addresses.free_members;
    addresses.free_members = member;
}

// Maps more members. False if memory is short.
bool add_block() L2FIB_REQUIRES_TABLE_LOCK
{
    void *memory = mmap(nullptr, member_block::size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    auto *block = static_cast<member_block *>(memory);
    block->next = addresses.blocks;
    addresses.blocks = block;
    for (chain_member &each : block->members) {
        free_member(&each);
    }
    return true;
}

// Gives an entry a member, unless it has one. Returns null if memory is short.
chain_member *take_member(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    if (chain_member *known = member_of(mac)) {
        return known;
    }
    if (addresses.free_members == nullptr && !add_block()) {
        return nullptr;
    }
    chain_member *member = addresses.free_members;
    addresses.free_members = member->next;
    *member = {mac, nullptr, nullptr};
    set_member(mac, member);
    return member;
}

void drop_member(chain_member *member) L2FIB_REQUIRES_TABLE_LOCK
{
    set_member(member->mac, nullptr);
    free_member(member);
}

// ---- Chains ----

// Inserts an entry behind the head of its chain, which needs no search for the chain's end. False if memory is short.
[[gnu::noinline]] bool join_chain(edm::index_place place, l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    chain_member *member = take_member(mac);
    chain_member *head = member != nullptr ? take_member(edm::index_record(addresses.heads, place)) : nullptr;
    if (head == nullptr) {
        if (member != nullptr) {
            drop_member(member);
        }
        return false;
    }
    member->next = head->next;
    member->prev = head;
    if (head->next != nullptr) {
        head->next->prev = member;
    }
    head->next = member;
    edm::index_set_mark(place, true);
    return true;
}

// Removes an entry that is alone with its address from the index.
void remove_only(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    const edm::address_probe probe = edm::probe_of(mac->mac_addr);
    const edm::index_place place = edm::index_find(addresses.heads, probe.address, probe.hash);
    if (edm::index_record(addresses.heads, place) == mac) { // otherwise the entry was never linked
        edm::index_erase(addresses.heads, place, probe.hash);
    }
}

// Removes an entry from a chain of several. If it was the head, the next one becomes the head. An entry that is left
// alone loses its member.
[[gnu::noinline]] void leave_chain(chain_member *leaving) L2FIB_REQUIRES_TABLE_LOCK
{
    const edm::index_place place = edm::index_find(addresses.heads, by_address::key_of(*leaving->mac));
    chain_member *next = leaving->next;
    chain_member *prev = leaving->prev;
    chain_member *neighbour = prev != nullptr ? prev : next;
    if (next != nullptr) {
        next->prev = prev;
    }
    if (prev != nullptr) {
        prev->next = next;
    } else {
        edm::index_replace(place, next->mac);
        edm::index_set_mark(place, true);
    }
    if (neighbour->next == nullptr && neighbour->prev == nullptr) {
        edm::index_set_mark(place, false);
        drop_member(neighbour);
    }
    drop_member(leaving);
}

} // namespace

namespace edm {

// `known_absent` is the address that the latest unsuccessful search was for, until the next entry is linked. A feed
// searches an address just before it creates the entry, so address_index_link need not search it again.
constinit address_index addresses = {
    .heads = {}, .free_members = nullptr, .blocks = nullptr, .missing = 0, .known_absent = no_address};

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
    if (!(place ? join_chain(place, mac) : index_insert(addresses.heads, mac))) {
        set_member(mac, &missing);
        addresses.missing++;
    }
}

void address_index_unlink(l2fm_edm_mac_t *mac)
{
    if (!indexes_trusted()) {
        return;
    }
    chain_member *member = member_of(mac);
    if (member == nullptr) {
        remove_only(mac);
    } else if (member != &missing) {
        leave_chain(member);
    } else {
        addresses.missing--;
        set_member(mac, nullptr);
    }
}

void address_index_release()
{
    index_release(addresses.heads);
    addresses.free_members = nullptr;
    while (member_block *block = addresses.blocks) {
        addresses.blocks = block->next;
        munmap(block, member_block::size);
    }
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
