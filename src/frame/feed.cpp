// SPDX-License-Identifier: Apache-2.0

// The hardware MAC feed: files what the platform reports. One call is one critical section, so that nobody sees a
// half-filed entry.
#include "l2fm_edm_table.h"
#include "table/address_index.h"
#include "table/element.h"
#include "table/scoped_lock.h"
#include "table/trace_point.h"
#include "table/tree_access.h"

namespace {

using edm::trace_word;

constexpr char operation[] = "l2fib_mac_edm_add";

// Whether the last feed made an entry: feeds come in runs, of new addresses or of known ones. Under the table lock.
constinit bool is_filling = false;

// Each of the following finds or makes one thing that the entry needs, and traces why it cannot be had.

l2fm_edm_bd_t *bridge_domain_of(const l2fib_mac_edm_entry_t *entry)
{
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(entry->bridge_id);
    if (bd == nullptr) {
        bd = l2fm_edm_table_bd_create(entry->bridge_id);
    }
    if (bd == nullptr) {
        EDM_TRACE_AS(operation, 1915, entry->bridge_id);
    }
    return bd;
}

l2fm_edm_bp_t *dummy_port_of(l2fm_edm_bd_t *bd)
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get(bd, EDM_XCID_DUMMY);
    if (bp == nullptr) {
        bp = l2fm_edm_table_bp_create_dummy(bd, EDM_XCID_DUMMY);
    }
    if (bp == nullptr) {
        EDM_TRACE_AS(operation, 1965, EDM_XCID_DUMMY);
    }
    return bp;
}

l2fm_edm_bp_t *ordinary_port_of(l2fm_edm_bd_t *bd, const l2fib_mac_edm_entry_t *entry)
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(entry->xcid);
    if (bp == nullptr) {
        bp = l2fm_edm_table_bp_create(bd, entry->xcid);
        if (bp == nullptr) {
            EDM_TRACE_AS(operation, 1913, entry->xcid);
        }
        return bp;
    }
    const uint32_t status = bp->refresh_pending != 0 ? l2fm_edm_table_bp_update(bp, entry->bridge_id) : 0;
    if (status != 0) {
        EDM_TRACE_AS(operation, 1915, bp->xcid, status);
        return nullptr;
    }
    return bp;
}

l2fm_edm_bp_t *port_of(l2fm_edm_bd_t *bd, const l2fib_mac_edm_entry_t *entry)
{
    return (entry->flags & EDM_MAC_ON_DUMMY_PORT) != 0 ? dummy_port_of(bd) : ordinary_port_of(bd, entry);
}

uint32_t file_entry(const l2fm_edm_bd_t *bd, l2fm_edm_bp_t *bp, const l2fib_mac_edm_entry_t *entry)
{
    if (is_filling) {
        edm::expect_mac(bp, entry->mac_addr);
    }
    l2fm_edm_mac_t *mac = l2fm_edm_table_mac_lookup(entry, bd, bp);
    is_filling = mac == nullptr;
    const uint32_t status =
        mac != nullptr ? l2fm_edm_table_mac_update(bp, mac, entry) : l2fm_edm_table_mac_create(bp, entry);
    if (status != 0) {
        EDM_TRACE_AS(operation, 1916, entry->flags, entry->xcid, entry->bridge_id, trace_word(entry->mac_addr),
                     trace_word(entry->mac_addr + 2), trace_word(entry->mac_addr + 4));
        EDM_TRACE_AS(operation, 1960, status);
    }
    return status;
}

} // namespace

uint32_t l2fib_mac_edm_add(const l2fib_mac_edm_entry_t *entry)
{
    if (entry == nullptr) {
        EDM_TRACE(1914);
        return EDM_ERR_INVALID_ARGS;
    }
    const edm::scoped_lock lock;
    edm::address_index_expect(entry->mac_addr);
    l2fm_edm_bd_t *bd = bridge_domain_of(entry);
    l2fm_edm_bp_t *bp = bd != nullptr ? port_of(bd, entry) : nullptr;
    return bp != nullptr ? file_entry(bd, bp, entry) : EDM_ERR_NO_RESOURCE;
}
