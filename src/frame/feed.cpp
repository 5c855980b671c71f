// SPDX-License-Identifier: Apache-2.0

// The hardware MAC feed: stores in the table what the platform reports. Each entry is stored in one critical section,
// so no other thread sees it half stored.
//
// A batch is fed in slices. A slice is one critical section of three passes, because memory answers slowly but answers
// several questions at once:
//
//      1. hash each address, and prefetch its bucket of the index
//      2. prefetch the entry that the bucket names, or the leaf of the tree that a new entry will join
//      3. store each entry, as a single feed does
#include <algorithm>

#include "l2fm_edm_table.h"
#include "table/element.h"
#include "table/records/mac_entry.h"
#include "table/root.h"
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
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(entry->bridge_id);
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
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(entry->xcid);
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

// Traces that an entry was refused. Returns the status.
[[gnu::cold, gnu::noinline]] uint32_t refused(const l2fib_mac_edm_entry_t *entry, uint32_t status)
{
    EDM_TRACE_AS(operation, EDM_TRACE_FEED_REFUSED, entry->flags, entry->xcid, entry->bridge_id,
                 trace_word(entry->mac_addr), trace_word(entry->mac_addr + 2), trace_word(entry->mac_addr + 4));
    EDM_TRACE_AS(operation, EDM_TRACE_FEED_STATUS, status);
    return status;
}

// Creates or updates the entry on its port. `mac` is the entry to update, or null.
[[gnu::always_inline]] inline uint32_t store(l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac,
                                             const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    is_filling = mac == nullptr;
    const uint32_t status = mac != nullptr ? edm::update_mac(bp, mac, entry) : l2fm_edm_table_mac_create(bp, entry);
    return status == 0 ? 0 : refused(entry, status);
}

// Feeds an entry whose port, or bridge domain, the indexes do not know.
uint32_t feed_step_by_step(const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bd_t *bd = bridge_domain_of(entry);
    l2fm_edm_bp_t *bp = bd != nullptr ? port_of(bd, entry) : nullptr;
    return bp != nullptr ? store(bp, l2fm_edm_table_mac_lookup(entry, bd, bp), entry) : EDM_ERR_NO_RESOURCE;
}

// Feeds an entry for which one look at the indexes does not suffice.
[[gnu::noinline]] uint32_t feed_after_search(const edm::address_probe &probe,
                                             const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    const edm::fed_place place = edm::look_for_fed<edm::address_index_find>(probe, entry);
    const bool is_found = place.bp != nullptr && edm::is_watched(&place.bp->mac_tree);
    return is_found ? store(place.bp, place.mac, entry) : feed_step_by_step(entry);
}

[[gnu::always_inline]] inline uint32_t feed(const edm::address_probe &probe,
                                            const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    const edm::fed_place place = edm::look_for_fed<edm::address_index_look>(probe, entry);
    return place.bp != nullptr ? store(place.bp, place.mac, entry) : feed_after_search(probe, entry);
}

// Prefetches the leaf of the tree that an entry will join, if its port is known.
void expect_leaf(const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK
{
    const l2fm_edm_bp_t *bp = edm::indexes_trusted() ? edm::look_for_bp(entry) : nullptr;
    if (bp != nullptr) {
        edm::expect_mac(bp, entry->mac_addr);
    }
}

// How many entries of a batch are fed in one critical section: more than memory can fetch at once, and few enough that
// other users of the table wait for some microseconds only.
constexpr size_t slice_size = 32;

// Feeds at most slice_size entries and stores their statuses.
void feed_slice(const l2fib_mac_edm_entry_t *entries, size_t count, uint32_t *statuses)
{
    edm::address_probe probes[slice_size]; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const edm::scoped_lock lock;
    for (size_t i = 0; i < count; i++) {
        probes[i] = edm::probe_of(entries[i].mac_addr);
        edm::address_index_expect(probes[i]);
    }
    const bool expects_leaves = edm::exceeds_caches();
    for (size_t i = 0; i < count; i++) {
        if (!edm::address_index_expect_entry(probes[i]) && expects_leaves) {
            expect_leaf(&entries[i]);
        }
    }
    for (size_t i = 0; i < count; i++) {
        statuses[i] = feed(probes[i], &entries[i]);
    }
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
    if (is_filling && edm::exceeds_caches()) {
        expect_leaf(entry);
    }
    return feed(probe, entry);
}

uint32_t l2fib_mac_edm_add_batch(const l2fib_mac_edm_entry_t *entries, size_t count, uint32_t *statuses)
{
    if (entries == nullptr && count != 0) {
        EDM_TRACE(EDM_TRACE_FEED_NO_ENTRY);
        return EDM_ERR_INVALID_ARGS;
    }
    uint32_t first_failure = 0;
    uint32_t of_slice[slice_size];
    for (size_t begin = 0; begin < count; begin += slice_size) {
        const size_t size = std::min(slice_size, count - begin);
        feed_slice(entries + begin, size, of_slice);
        for (size_t i = 0; first_failure == 0 && i < size; i++) {
            first_failure = of_slice[i];
        }
        if (statuses != nullptr) {
            std::copy_n(of_slice, size, statuses + begin);
        }
    }
    return first_failure;
}
