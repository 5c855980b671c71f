// SPDX-License-Identifier: Apache-2.0

// The hardware MAC feed: stores in the table what the platform reports. One call is one critical section, so no other
// thread sees an entry half stored.
#include "l2fm_edm_table.h"
#include "table/element.h"
#include "table/scoped_lock.h"
#include "table/search/indexed.h"
#include "table/search/tree_access.h"
#include "table/trace_point.h"

namespace {

using edm::trace_word;

constexpr char operation[] = "l2fib_mac_edm_add";

// Whether the last feed created an entry. Feeds come in runs, of new addresses or of known ones, so it predicts the
// next.
constinit bool is_filling L2FIB_GUARDED_BY_TABLE_LOCK = false;

// Each of the following functions finds or creates one record that the entry needs. On failure it traces why.

l2fm_edm_bd_t *bridge_domain_of(const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bd_t *bd = edm::find_bd(entry->bridge_id);
    if (bd == nullptr) {
        bd = l2fm_edm_table_bd_create(entry->bridge_id);
    }
    if (bd == nullptr) {
        EDM_TRACE_AS(operation, EDM_TRACE_FEED_NO_BD, entry->bridge_id);
    }
    return bd;
}

l2fm_edm_bp_t *dummy_port_of(l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get(bd, EDM_XCID_DUMMY);
    if (bp == nullptr) {
        bp = l2fm_edm_table_bp_create_dummy(bd, EDM_XCID_DUMMY);
    }
    if (bp == nullptr) {
        EDM_TRACE_AS(operation, EDM_TRACE_FEED_NO_DUMMY_PORT, EDM_XCID_DUMMY);
    }
    return bp;
}

l2fm_edm_bp_t *ordinary_port_of(l2fm_edm_bd_t *bd, const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = edm::find_bp(entry->xcid);
    if (bp == nullptr) {
        bp = l2fm_edm_table_bp_create(bd, entry->xcid);
        if (bp == nullptr) {
            EDM_TRACE_AS(operation, EDM_TRACE_FEED_NO_PORT, entry->xcid);
        }
        return bp;
    }
    const uint32_t status = bp->refresh_pending != 0 ? l2fm_edm_table_bp_update(bp, entry->bridge_id) : 0;
    if (status != 0) {
        EDM_TRACE_AS(operation, EDM_TRACE_FEED_PORT_NOT_REFRESHED, bp->xcid, status);
        return nullptr;
    }
    return bp;
}

l2fm_edm_bp_t *port_of(l2fm_edm_bd_t *bd, const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    return (entry->flags & EDM_MAC_ON_DUMMY_PORT) != 0 ? dummy_port_of(bd) : ordinary_port_of(bd, entry);
}

uint32_t file_entry(const edm::address_probe &probe, const l2fm_edm_bd_t *bd, l2fm_edm_bp_t *bp,
                    const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    if (is_filling) {
        edm::expect_mac(bp, entry->mac_addr);
    }
    l2fm_edm_mac_t *mac = edm::find_fed_mac(probe, entry, bd, bp);
    is_filling = mac == nullptr;
    const uint32_t status =
        mac != nullptr ? l2fm_edm_table_mac_update(bp, mac, entry) : l2fm_edm_table_mac_create(bp, entry);
    if (status != 0) {
        EDM_TRACE_AS(operation, EDM_TRACE_FEED_REFUSED, entry->flags, entry->xcid, entry->bridge_id,
                     trace_word(entry->mac_addr), trace_word(entry->mac_addr + 2), trace_word(entry->mac_addr + 4));
        EDM_TRACE_AS(operation, EDM_TRACE_FEED_STATUS, status);
    }
    return status;
}

} // namespace

uint32_t l2fib_mac_edm_add(const l2fib_mac_edm_entry_t *entry)
{
    if (entry == nullptr) {
        EDM_TRACE(EDM_TRACE_FEED_NO_ENTRY);
        return EDM_ERR_INVALID_ARGS;
    }
    const edm::scoped_lock lock;
    const edm::address_probe probe = edm::probe_of(entry->mac_addr);
    edm::address_index_expect(probe);
    l2fm_edm_bd_t *bd = bridge_domain_of(entry);
    l2fm_edm_bp_t *bp = bd != nullptr ? port_of(bd, entry) : nullptr;
    return bp != nullptr ? file_entry(probe, bd, bp, entry) : EDM_ERR_NO_RESOURCE;
}
