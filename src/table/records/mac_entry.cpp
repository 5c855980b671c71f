// SPDX-License-Identifier: Apache-2.0

// MAC entries: creation, update in place or by replacement, eviction, destruction.
//
// What an update does. The first matching row decides. "Replace" destroys the cached entry and creates a new one, which
// becomes the newest.
//
//      EDM_MAC_PBB or EDM_MAC_VNI differs               replace: the variant never changes in place
//      reported with one of EDM_MAC_BD_KINDS:
//          either port is not a dummy port              refuse
//          other bridge id                              create a second entry
//          reported with EDM_MAC_BD_FIXED               replace
//          cached with EDM_MAC_BD_FIXED                 leave unchanged
//          else                                         in place; time stamp and node stay
//      else:
//          bridge id or port differs, not both          replace: the address has moved
//          else                                         in place
//
// Example: the cache has 02:00:00:00:0a:01 in bridge domain 7 on port 10. A feed for bridge domain 7 and port 11
// replaces the entry. A feed for port 10 updates it in place.
#include "table/records/mac_entry.h"

#include <cstring>

#include "platform/utility.h"
#include "table/element.h"
#include "table/index/address_index.h"
#include "table/index/index_trust.h"
#include "table/pool.h"
#include "table/records/mac_limit.h"
#include "table/root.h"
#include "table/search/domain_order.h"
#include "table/shared_cell.h"
#include "table/trace_point.h"

namespace {

using edm::root;
using edm::to_element;
using edm::trace_word;

constexpr char update_operation[] = "l2fm_edm_table_mac_update";

// ---- Counting ----

// The kind of an entry: by which flags it is counted. The entry remembers it as a number of three bits.
constexpr uint32_t kind_static = 1;
constexpr uint32_t kind_local = 2;
constexpr uint32_t kind_bridge = 4;
constexpr uint32_t kinds = 8;

constexpr uint32_t kind_of_flags(uint32_t flags)
{
    return ((flags & EDM_MAC_STATIC) != 0 ? kind_static : 0) | ((flags & EDM_MAC_LOCAL) != 0 ? kind_local : 0)
           | ((flags & (EDM_MAC_BD_OWN | EDM_MAC_BD_40)) != 0 ? kind_bridge : 0);
}

// Which counters an entry of a kind adds one to, besides mac_cnt_total.
struct contribution {
    bool to_sum, to_plain, to_static, to_local, to_bridge;
};

constexpr contribution contribution_of(uint32_t kind)
{
    const bool is_static = (kind & kind_static) != 0;
    const bool is_local = (kind & kind_local) != 0;
    const bool is_plain = !is_static && !is_local;
    return {
        .to_sum = is_static || is_plain,
        .to_plain = is_plain,
        .to_static = is_static,
        .to_local = is_local,
        .to_bridge = (kind & kind_bridge) != 0,
    };
}

constexpr contribution contributions[kinds] = {
    contribution_of(0), contribution_of(1), contribution_of(2), contribution_of(3),
    contribution_of(4), contribution_of(5), contribution_of(6), contribution_of(7),
};

void raise(uint32_t &counter, bool by_one) L2FIB_REQUIRES_TABLE_LOCK
{
    if (by_one) {
        edm::add(counter, 1);
    }
}
void lower(uint32_t &counter, bool by_one) L2FIB_REQUIRES_TABLE_LOCK
{
    if (by_one) {
        edm::add(counter, static_cast<uint32_t>(-1));
    }
}
void lower_to_zero(uint32_t &counter, bool by_one) L2FIB_REQUIRES_TABLE_LOCK
{
    lower(counter, by_one && counter != 0);
}

[[gnu::always_inline]] inline void count_kind(l2fm_edm_mac_t *mac, uint32_t kind) L2FIB_REQUIRES_TABLE_LOCK
{
    const contribution &adds = contributions[kind];
    raise(root.counters.mac_cnt_sum, adds.to_sum);
    raise(root.counters.mac_cnt_plain, adds.to_plain);
    raise(root.counters.mac_cnt_static, adds.to_static);
    raise(root.counters.mac_cnt_local, adds.to_local);
    raise(root.counters.mac_cnt_bridge, adds.to_bridge);
    edm::set_counted_as(mac, kind);
}

void uncount_kind(const l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    const contribution &added = contributions[edm::counted_as(mac)];
    lower_to_zero(root.counters.mac_cnt_sum, added.to_sum);
    lower_to_zero(root.counters.mac_cnt_plain, added.to_plain);
    lower_to_zero(root.counters.mac_cnt_static, added.to_static);
    lower_to_zero(root.counters.mac_cnt_local, added.to_local);
    lower(root.counters.mac_cnt_bridge, added.to_bridge);
}

void count(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    count_kind(mac, kind_of_flags(mac->flags));
    edm::add(root.counters.mac_cnt_total, 1);
}

// Uncounts an entry by the kind as which it was counted, because its flags may have changed since. An entry that the
// hosting process has put into the table itself was never counted.
void uncount(const l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    if (edm::is_counted(mac) && root.counters.mac_cnt_total != 0) {
        uncount_kind(mac);
        edm::add(root.counters.mac_cnt_total, static_cast<uint32_t>(-1));
    }
}

[[gnu::noinline]] void recount_as(l2fm_edm_mac_t *mac, uint32_t kind) L2FIB_REQUIRES_TABLE_LOCK
{
    if (edm::is_counted(mac)) {
        uncount_kind(mac);
        count_kind(mac, kind);
    }
}

void recount(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint32_t kind = kind_of_flags(mac->flags);
    if (kind != edm::counted_as(mac)) {
        recount_as(mac, kind);
    }
}

// ---- Steps of the operations ----

// Traces a point about an entry: one value of the point's own, then the bridge id and the address. Not inlined, because
// it is called only on failure.
[[gnu::cold, gnu::noinline]] void trace_entry(const char *operation, uint32_t id, uint32_t value,
                                              const l2fib_mac_edm_entry_t *entry)
{
    EDM_TRACE_AS(operation, id, value, entry->bridge_id, trace_word(entry->mac_addr), trace_word(entry->mac_addr + 2),
                 trace_word(entry->mac_addr + 4));
}

// Always inlined, because each feed calls it.
[[gnu::always_inline]] inline uint32_t node_of(const char *operation, const l2fm_edm_bp_t *bp,
                                               const l2fib_mac_edm_entry_t *entry)
{
    uint32_t node_id = EDM_NODE_UNKNOWN;
    uint32_t status = 0;
    if ((entry->flags & EDM_MAC_OF_THIS_NODE) != 0 || bp->bp_type == EDM_BP_TYPE_PSEUDOWIRE) {
        status = platform_get_my_nodeid(&node_id);
    } else if (bp->bp_type == EDM_BP_TYPE_INTERFACE) {
        status = platform_ifhandle_parse_ifhandle(bp->seg_info1, &node_id);
    }
    if (status != 0) {
        trace_entry(operation, EDM_TRACE_NODE_UNKNOWN, entry->xcid, entry);
    }
    return node_id;
}

uint32_t make_room(uint32_t limit) L2FIB_REQUIRES_TABLE_LOCK
{
    return root.counters.mac_cnt_total >= limit ? l2fm_edm_table_mac_destroy_old_mac() : 0;
}

void register_vtep(const char *operation, const l2fib_mac_edm_entry_t *entry,
                   l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    if (l2fm_edm_table_vtep_create_modify(entry, bp) != 0) {
        EDM_TRACE_AS(operation, EDM_TRACE_VTEP_NOT_REGISTERED, bp->xcid);
    }
}

// Destroys the cached entry and creates one from the descriptor. Returns the status of the creation.
uint32_t replace(const char *operation, l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac,
                 const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint32_t xcid = mac->xcid;
    if (const uint32_t status = l2fm_edm_table_mac_destroy(mac); status != 0) {
        EDM_TRACE_AS(operation, EDM_TRACE_MAC_NOT_REPLACED, xcid, status);
    }
    const uint32_t status = l2fm_edm_table_mac_create(bp, entry);
    if (status != 0) {
        EDM_TRACE_AS(operation, EDM_TRACE_MAC_NOT_REPLACED, xcid, status);
    }
    return status;
}

bool is_on_dummy_port(const l2fm_edm_bp_t *bp)
{
    return bp->xcid == EDM_XCID_DUMMY;
}

void copy_bmac(l2fm_edm_mac_t *mac, const l2fib_mac_edm_entry_t *entry)
{
    std::memcpy(edm::bmac_addr(mac), entry->bmac_addr, edm::mac_addr_size);
}

void update_bd_mac_in_place(l2fm_edm_mac_t *mac, const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    if ((mac->flags & entry->flags & EDM_MAC_PBB) != 0) {
        copy_bmac(mac, entry);
    }
    mac->ext_attr = entry->ext_attr;
    mac->flags = entry->flags;
    mac->ext_flags = entry->ext_flags;
    recount(mac);
}

uint32_t l2fm_edm_table_mac_update_bdmac(l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac,
                                         const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    if (!is_on_dummy_port(mac->bp) || !is_on_dummy_port(bp)) {
        trace_entry(__func__, EDM_TRACE_BD_MAC_NOT_UPDATED, entry->flags, entry);
        return EDM_ERR_STOPPED;
    }
    if (mac->bridge_id != entry->bridge_id) {
        const uint32_t status = l2fm_edm_table_mac_create(bp, entry);
        if (status != 0) {
            EDM_TRACE(EDM_TRACE_MAC_NOT_REPLACED, entry->xcid, status);
        }
        return status;
    }
    if ((entry->flags & EDM_MAC_BD_FIXED) != 0) {
        return replace(__func__, bp, mac, entry);
    }
    if ((mac->flags & EDM_MAC_BD_FIXED) == 0) {
        update_bd_mac_in_place(mac, entry);
    }
    return 0;
}

[[gnu::noinline]] void update_vtep(l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac,
                                   const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    if (std::memcmp(edm::vtep_addr(mac), entry->vtep_addr, edm::vtep_addr_size) != 0) {
        std::memcpy(edm::vtep_addr(mac), entry->vtep_addr, edm::vtep_addr_size);
    }
    register_vtep(update_operation, entry, bp);
}

uint32_t update_in_place(l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac,
                         const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint32_t node_id = node_of(update_operation, bp, entry);
    const uint16_t flags = entry->flags;
    if ((flags & EDM_MAC_VNI) != 0) {
        update_vtep(bp, mac, entry);
    }
    mac->node_id = node_id;
    if ((flags & EDM_MAC_PBB) != 0) {
        copy_bmac(mac, entry);
    }
    mac->ext_attr = entry->ext_attr;
    mac->flags = static_cast<uint16_t>(flags & ~EDM_MAC_STALE);
    mac->ext_flags = entry->ext_flags;
    mac->hw_timestamp = entry->hw_timestamp;
    recount(mac);
    mac->update_stamp = fts_get_stamp_fast();
    return 0;
}

// Removes an entry from its port's tree. An entry whose port is unknown is in no tree.
uint32_t delete_from_port(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = mac->bp != nullptr ? mac->bp : l2fm_edm_table_bp_get_by_xcid(mac->xcid);
    if (bp == nullptr || !edm::runs(&bp->mac_tree)) {
        return 0;
    }
    if (edm::delete_node(&bp->mac_tree, &to_element(mac)->mac_link) != nullptr) {
        edm::domain_order_report(bp);
        return 0;
    }
    EDM_TRACE_AS("l2fm_edm_table_mac_destroy", EDM_TRACE_MAC_NOT_IN_TREE, EDM_ERR_INVALID_ARGS);
    return EDM_ERR_INVALID_ARGS;
}

// Returns a new entry that is linked nowhere, or null.
l2fm_edm_mac_t *make_mac(const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    auto *mac = edm::to_record<l2fm_edm_mac_t>(l2fm_edm_table_malloc(edm::pool_of_flags(entry->flags)));
    if (mac == nullptr) {
        return nullptr;
    }
    mac->flags = entry->flags;
    mac->ext_flags = entry->ext_flags;
    mac->bridge_id = entry->bridge_id;
    mac->node_id = entry->node_id;
    mac->xcid = entry->xcid;
    mac->ext_attr = entry->ext_attr;
    mac->update_stamp = fts_get_stamp_fast();
    mac->hw_timestamp = entry->hw_timestamp;
    mac->list_link = {.next = &mac->list_link, .prev = &mac->list_link};
    std::memcpy(mac->mac_addr, entry->mac_addr, edm::mac_addr_size);
    if ((entry->flags & EDM_MAC_PBB) != 0) {
        copy_bmac(mac, entry);
    }
    if ((entry->flags & EDM_MAC_VNI) != 0) {
        std::memcpy(edm::vtep_addr(mac), entry->vtep_addr, edm::vtep_addr_size);
    }
    return mac;
}

} // namespace

l2fm_edm_mac_t *l2fm_edm_table_mac_alloc_and_fill(const l2fib_mac_edm_entry_t *entry)
{
    return entry == nullptr ? nullptr : make_mac(entry);
}

uint32_t l2fm_edm_table_mac_create(l2fm_edm_bp_t *bp, const l2fib_mac_edm_entry_t *entry)
{
    if (bp == nullptr || !edm::runs(&bp->mac_tree)) {
        EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        return EDM_ERR_INVALID_ARGS;
    }
    const std::optional<uint32_t> limit = edm::mac_limit();
    if (entry == nullptr || !limit) {
        EDM_TRACE(EDM_TRACE_NO_ROOM);
        return EDM_ERR_NO_RESOURCE;
    }
    const uint32_t node_id = node_of(__func__, bp, entry);
    l2fm_edm_mac_t *mac = make_room(*limit) == 0 ? make_mac(entry) : nullptr;
    if (mac == nullptr) {
        EDM_TRACE(EDM_TRACE_NO_ROOM);
        return EDM_ERR_NO_RESOURCE;
    }
    mac->node_id = node_id;
    const bool inserted = edm::insert_node(&bp->mac_tree, &to_element(mac)->mac_link) != nullptr;
    mac->bp = bp;
    if (!inserted) {
        EDM_TRACE(EDM_TRACE_MAC_NOT_INSERTED, bp->xcid);
        EDM_TRACE(EDM_TRACE_MAC_NOT_INSERTED, EDM_ERR_NO_RESOURCE);
        l2fib_mac_edm_mac_free(mac);
        return EDM_ERR_NO_RESOURCE;
    }
    edm::domain_order_report(bp);
    edm::address_index_link(mac);
    l2fm_edm_table_ll_insert(mac);
    mac->flags = static_cast<uint16_t>(mac->flags & ~EDM_MAC_STALE);
    count(mac);
    if ((entry->flags & EDM_MAC_VNI) != 0) {
        register_vtep(__func__, entry, bp);
    }
    return 0;
}

uint32_t edm::update_mac(l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac, const l2fib_mac_edm_entry_t *entry)
{
    if (mac->bp == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    if (((mac->flags ^ entry->flags) & (EDM_MAC_PBB | EDM_MAC_VNI)) != 0) {
        return replace(update_operation, bp, mac, entry);
    }
    if ((entry->flags & EDM_MAC_BD_KINDS) != 0) {
        return l2fm_edm_table_mac_update_bdmac(bp, mac, entry);
    }
    const bool other_bd = mac->bridge_id != entry->bridge_id;
    const bool other_port = mac->bp->xcid != entry->xcid;
    if (other_bd != other_port) {
        return replace(update_operation, bp, mac, entry);
    }
    return update_in_place(bp, mac, entry);
}

uint32_t l2fm_edm_table_mac_update(l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac, const l2fib_mac_edm_entry_t *entry)
{
    if (mac == nullptr || entry == nullptr || bp == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    return edm::update_mac(bp, mac, entry);
}

uint32_t l2fm_edm_table_mac_destroy(l2fm_edm_mac_t *mac)
{
    if (mac == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    l2fm_edm_table_ll_remove(mac);
    edm::address_index_unlink(mac);
    const uint32_t status = delete_from_port(mac);
    uncount(mac);
    l2fib_mac_edm_mac_free(mac);
    return status;
}

void edm::destroy_drained_mac(l2fm_edm_mac_t *mac)
{
    l2fm_edm_table_ll_remove(mac);
    edm::address_index_unlink(mac);
    uncount(mac);
    l2fib_mac_edm_mac_free(mac);
}

uint32_t l2fm_edm_table_mac_destroy_old_mac(void)
{
    l2fm_edm_ll_root_t &list = root.ll_root;
    if (list.ll_count == 0) {
        return EDM_ERR_NOT_FOUND;
    }
    return l2fm_edm_table_mac_destroy(edm::mac_of_list_link(list.ll_last));
}

void l2fib_mac_edm_mac_free(l2fm_edm_mac_t *mac)
{
    if (mac != nullptr) {
        mac->bp = nullptr;
        l2fm_edm_table_free(edm::pool_of_flags(mac->flags), to_element(mac));
    }
}
