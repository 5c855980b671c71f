// SPDX-License-Identifier: Apache-2.0

// The next address of a bridge domain, for callers who ask for one address after the other.
//
// Each port orders its own entries, so the next address of a bridge domain is the least of the next addresses of its
// ports. A search in each port for each step would cost a search for each port. The module therefore remembers, for the
// bridge domain that was asked for last, the next entry of each port behind some address, and a tree of minima over
// them. Example with four ports, behind address 20; the slot of a port is its place in the order of xcid:
//
//                 (21, slot 1)                    next: 21, on the port of slot 1
//            (21, slot 1)   (23, slot 2)          behind 21: only the path from slot 1 to the top changes
//      slot   0: 30   1: 21    2: 23   3: none
//
// Of equal addresses the lower slot, so the port with the lower xcid, is the least.
//
// Changes: the creation and the destruction of an entry report its port. Before the next answer the module searches
// these ports again. It counts what was reported. If the trees count other changes too (ports that come, go or move,
// changes by the hosting process), or if many ports were reported, the next answer searches all ports.
//
// The memory is a constant: one bridge domain of at most max_ports ports is remembered.
#pragma once

#include "l2fm_edm_table.h"
#include "table/index/index_trust.h"

namespace edm {

struct domain_order_state {
    const l2fm_edm_bd_t *bd; // null: nothing is remembered
    uint64_t changes;        // of the watched trees, as far as they were reported
};

extern domain_order_state domain_order L2FIB_GUARDED_BY_TABLE_LOCK;

struct domain_answer {
    bool known;          // false: search the trees
    l2fm_edm_mac_t *mac; // null: there is no greater address
};

// Returns the entry with the smallest address of the bridge domain that is greater than `mac_addr`.
domain_answer next_in_domain(const l2fm_edm_bd_t *bd, const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK;

// Forgets everything, at the end of a teardown.
void domain_order_forget() L2FIB_REQUIRES_TABLE_LOCK;

// The rest of domain_order_report, for a port of the remembered bridge domain.
void domain_order_note(const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;

// Reports changes of the port's tree of entries.
inline void domain_order_report(const l2fm_edm_bp_t *bp, uint32_t count = 1) L2FIB_REQUIRES_TABLE_LOCK
{
    domain_order.changes += count;
    if (domain_order.bd != nullptr && bp->bd == domain_order.bd) {
        domain_order_note(bp);
    }
}

} // namespace edm
