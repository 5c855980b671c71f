// SPDX-License-Identifier: Apache-2.0

// Lookups and ordered iteration. A lookup fills a probe on the stack; the tree reads only its links and its key.
// Iteration passes the record's own links to the tree.
#include <cstring>

#include "platform/bounded_copy.h"
#include "platform/l2fib.h"
#include "table/index/address_index.h"
#include "table/index/index_trust.h"
#include "table/index/object_index.h"
#include "table/root.h"
#include "table/search/domain_order.h"
#include "table/search/tree_access.h"
#include "table/trace_point.h"

namespace {

using edm::first;
using edm::next;
using edm::root;
using edm::to_element;

// The indexes of the global tree of bridge domains.
constexpr uint32_t by_name = 0;
constexpr uint32_t by_bridge_id = 1;

// If the indexes are trusted, both global trees run.
bool bd_root_runs() L2FIB_REQUIRES_TABLE_LOCK
{
    return edm::indexes_trusted() || ordtree_running(&root.bd_root) != 0;
}

void *entry_of(const ordtree_t *tree, ordtree_link_t *node)
{
    return node == nullptr || tree->node_to_entry == nullptr ? node : tree->node_to_entry(node);
}

bool runs(const ordtree_t *tree) L2FIB_REQUIRES_TABLE_LOCK
{
    return tree != nullptr && edm::runs(tree);
}

// Searches in the trees, for the case that an index is not trusted or does not know the answer. They are not inlined,
// because the functions that ask an index would have to save registers and clear probes for them.

[[gnu::noinline]] l2fm_edm_bd_t *search_bd(uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK
{
    bd_element probe{};
    probe.record.bridge_id = bridge_id;
    return edm::find<l2fm_edm_bd_t>(&root.bd_root, probe.bd_links, by_bridge_id);
}

// The bridge domain if an index knows it, else null.
l2fm_edm_bd_t *indexed_bd(uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK
{
    return edm::indexes_trusted() ? edm::bd_index_find(bridge_id) : nullptr;
}

l2fm_edm_bd_t *find_bd(uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bd_t *bd = indexed_bd(bridge_id);
    return bd != nullptr ? bd : search_bd(bridge_id);
}

// The port if its place among the newest ones knows it, else null. No index holds EDM_XCID_NONE or EDM_XCID_DUMMY.
l2fm_edm_bp_t *indexed_bp(uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK
{
    return edm::indexes_trusted() ? edm::recent_bp_of(xcid) : nullptr;
}

[[gnu::noinline]] l2fm_edm_bp_t *search_bp(uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK
{
    if (xcid == EDM_XCID_NONE || xcid == EDM_XCID_DUMMY) {
        return nullptr;
    }
    if (l2fm_edm_bp_t *bp = edm::indexes_trusted() ? edm::bp_index_search(xcid) : nullptr) {
        return bp;
    }
    bp_element probe{};
    probe.record.xcid = xcid;
    return edm::find<l2fm_edm_bp_t>(&root.bp_root, &probe.bp_link);
}

[[gnu::noinline]] l2fm_edm_mac_t *search_ports_of_bd(const l2fm_edm_bd_t *bd,
                                                     const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    for (; bp != nullptr; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
        if (l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get(&bp->mac_tree, mac_addr)) {
            return mac;
        }
    }
    return nullptr;
}

// Ask the index for the entry of an address on the port `bp`, else for the one in the bridge domain `bd`.

[[gnu::always_inline]] inline edm::address_answer look_into_index(const uint8_t *mac_addr, const l2fm_edm_bp_t *bp,
                                                                  const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK
{
    return edm::address_index_look(edm::probe_of(mac_addr), bp, bd);
}

edm::address_answer ask_index(const uint8_t *mac_addr, const l2fm_edm_bp_t *bp,
                              const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK
{
    return edm::address_index_find(edm::probe_of(mac_addr), bp, bd);
}

[[gnu::noinline]] l2fm_edm_mac_t *search_bd_by_id(uint32_t bridge_id, const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK
{
    if (mac_addr == nullptr) {
        return nullptr;
    }
    if (!bd_root_runs()) {
        EDM_TRACE_AS("l2fm_edm_table_mac_get_by_bridgeid_mac", EDM_TRACE_TREE_NOT_RUNNING);
        return nullptr;
    }
    return l2fm_edm_table_bd_mac_get(find_bd(bridge_id), mac_addr);
}

[[gnu::noinline]] l2fm_edm_mac_t *search_port_by_xcid(uint32_t xcid, const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK
{
    const l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
    if (bp == nullptr || mac_addr == nullptr) {
        return nullptr;
    }
    if (edm::indexes_cover(&bp->mac_tree)) {
        const edm::address_answer answer = ask_index(mac_addr, bp, nullptr);
        if (answer.known) {
            return answer.mac;
        }
    }
    return l2fm_edm_table_bp_mac_get(&bp->mac_tree, mac_addr);
}

[[gnu::noinline]] l2fm_edm_mac_t *search_port_then_bd(const l2fib_mac_edm_entry_t *entry,
                                                      const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get(&bp->mac_tree, entry->mac_addr);
    return mac != nullptr ? mac : l2fm_edm_table_mac_get_by_bridgeid_mac(entry->bridge_id, entry->mac_addr);
}

// Returns the entry with the smaller address; of equal ones the first, and of one null the other.
l2fm_edm_mac_t *smaller_of(l2fm_edm_mac_t *kept, l2fm_edm_mac_t *candidate)
{
    if (kept == nullptr || candidate == nullptr) {
        return kept == nullptr ? candidate : kept;
    }
    return std::memcmp(candidate->mac_addr, kept->mac_addr, edm::mac_addr_size) < 0 ? candidate : kept;
}

l2fm_edm_mac_t *search_next_of_ports(const l2fm_edm_bd_t *bd, const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK
{
    l2fm_edm_mac_t *kept = nullptr;
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    for (; bp != nullptr; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
        kept = smaller_of(kept, l2fm_edm_table_bp_macaddr_get_next(&bp->mac_tree, mac_addr));
    }
    return kept;
}

} // namespace

void *l2fm_edm_table_get(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index)
{
    if (probe == nullptr) {
        return nullptr;
    }
    if (!runs(tree)) {
        EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        return nullptr;
    }
    return entry_of(tree, ordtree_search(tree, probe, index));
}

void *l2fm_edm_table_get_next(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index)
{
    if (probe == nullptr) {
        return nullptr;
    }
    if (!runs(tree)) {
        EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        return nullptr;
    }
    return entry_of(tree, ordtree_get_next(tree, probe, index));
}

void *l2fm_edm_table_get_first(const ordtree_t *tree, uint32_t index)
{
    if (!runs(tree)) {
        EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        return nullptr;
    }
    return entry_of(tree, ordtree_get_first(tree, index));
}

l2fm_edm_bd_t *l2fm_edm_table_bd_get_by_name(const char *name)
{
    if (name == nullptr) {
        return nullptr;
    }
    bd_element probe{};
    strcpy_s(probe.record.bd_name, sizeof(probe.record.bd_name), name);
    return edm::find<l2fm_edm_bd_t>(&root.bd_root, probe.bd_links, by_name);
}

l2fm_edm_bd_t *l2fm_edm_table_bd_get_by_bridgeid(uint32_t bridge_id)
{
    return find_bd(bridge_id);
}

l2fm_edm_bd_t *l2fm_edm_table_bd_get_first_by_name(void)
{
    return first<l2fm_edm_bd_t>(&root.bd_root, by_name);
}

l2fm_edm_bd_t *l2fm_edm_table_bd_get_next_by_name(const l2fm_edm_bd_t *bd)
{
    return bd == nullptr ? nullptr : next<l2fm_edm_bd_t>(&root.bd_root, to_element(bd)->bd_links, by_name);
}

l2fm_edm_bd_t *l2fm_edm_table_bd_get_first_by_bridgeid(void)
{
    return first<l2fm_edm_bd_t>(&root.bd_root, by_bridge_id);
}

l2fm_edm_bd_t *l2fm_edm_table_bd_get_next_by_bridgeid(const l2fm_edm_bd_t *bd)
{
    return bd == nullptr ? nullptr : next<l2fm_edm_bd_t>(&root.bd_root, to_element(bd)->bd_links, by_bridge_id);
}

uint32_t l2fm_edm_table_bd_name_to_id(const char *name, uint32_t *bridge_id)
{
    if (name == nullptr || bridge_id == nullptr) {
        return EDM_ERR_NOT_FOUND;
    }
    l2fib_ctx_t ctx = nullptr;
    if (l2fib_get_plat_ctx_by_name(L2FIB_CLASS_BRIDGE_DOMAIN, name, &ctx) != 0
        || l2fib_access_field(L2FIB_CLASS_BRIDGE_DOMAIN, &ctx, L2FIB_FIELD_BD_ID, bridge_id) != 0) {
        return EDM_ERR_NOT_FOUND;
    }
    return 0;
}

l2fm_edm_bp_t *l2fm_edm_table_bp_get_by_xcid(uint32_t xcid)
{
    if (l2fm_edm_bp_t *recent = indexed_bp(xcid)) {
        return recent;
    }
    return search_bp(xcid);
}

l2fm_edm_bp_t *l2fm_edm_table_bp_get_first(void)
{
    return first<l2fm_edm_bp_t>(&root.bp_root);
}

l2fm_edm_bp_t *l2fm_edm_table_bp_get_next(const l2fm_edm_bp_t *bp)
{
    return bp == nullptr ? nullptr : next<l2fm_edm_bp_t>(&root.bp_root, &to_element(bp)->bp_link);
}

l2fm_edm_bp_t *l2fm_edm_table_bd_bp_get(const l2fm_edm_bd_t *bd, uint32_t xcid)
{
    if (bd == nullptr) {
        return nullptr;
    }
    bp_element probe{};
    probe.record.xcid = xcid;
    return edm::find<l2fm_edm_bp_t>(&bd->bp_tree, &probe.bd_bp_link);
}

l2fm_edm_bp_t *l2fm_edm_table_bd_bp_get_first(const l2fm_edm_bd_t *bd)
{
    return bd == nullptr ? nullptr : first<l2fm_edm_bp_t>(&bd->bp_tree);
}

l2fm_edm_bp_t *l2fm_edm_table_bd_bp_get_next(const l2fm_edm_bd_t *bd, const l2fm_edm_bp_t *bp)
{
    return bd == nullptr || bp == nullptr ? nullptr : next<l2fm_edm_bp_t>(&bd->bp_tree, &to_element(bp)->bd_bp_link);
}

l2fm_edm_mac_t *l2fm_edm_table_bp_mac_get(const ordtree_t *mac_tree, const uint8_t *mac_addr)
{
    if (mac_tree == nullptr || mac_addr == nullptr) {
        return nullptr;
    }
    const mac_element probe = edm::mac_probe(mac_addr);
    return edm::find<l2fm_edm_mac_t>(mac_tree, &probe.mac_link);
}

l2fm_edm_mac_t *l2fm_edm_table_bp_macaddr_get_next(const ordtree_t *mac_tree, const uint8_t *mac_addr)
{
    if (mac_tree == nullptr || mac_addr == nullptr) {
        return nullptr;
    }
    const mac_element probe = edm::mac_probe(mac_addr);
    return next<l2fm_edm_mac_t>(mac_tree, &probe.mac_link);
}

l2fm_edm_mac_t *l2fm_edm_table_bp_mac_get_first(const l2fm_edm_bp_t *bp)
{
    return bp == nullptr ? nullptr : first<l2fm_edm_mac_t>(&bp->mac_tree);
}

l2fm_edm_mac_t *l2fm_edm_table_bp_mac_get_next(const l2fm_edm_bp_t *bp, const l2fm_edm_mac_t *mac)
{
    return bp == nullptr || mac == nullptr ? nullptr : next<l2fm_edm_mac_t>(&bp->mac_tree, &to_element(mac)->mac_link);
}

l2fm_edm_vtep_t *l2fm_edm_table_bp_vtep_get(const ordtree_t *vtep_tree, const uint8_t *vtep_addr)
{
    if (vtep_tree == nullptr || vtep_addr == nullptr) {
        return nullptr;
    }
    vtep_element probe{};
    std::memcpy(probe.record.vtep_addr, vtep_addr, edm::vtep_addr_size);
    return edm::find<l2fm_edm_vtep_t>(vtep_tree, &probe.vtep_link);
}

l2fm_edm_vtep_t *l2fm_edm_table_bp_vtep_get_first(const l2fm_edm_bp_t *bp)
{
    return bp == nullptr ? nullptr : first<l2fm_edm_vtep_t>(&bp->vtep_tree);
}

l2fm_edm_vtep_t *l2fm_edm_table_bp_vtep_get_next(const l2fm_edm_bp_t *bp, const l2fm_edm_vtep_t *vtep)
{
    return bp == nullptr || vtep == nullptr ? nullptr
                                            : next<l2fm_edm_vtep_t>(&bp->vtep_tree, &to_element(vtep)->vtep_link);
}

l2fm_edm_vtep_t *l2fm_edm_table_vtep_lookup(const uint8_t *vtep_addr, const l2fm_edm_bp_t *bp)
{
    return bp == nullptr ? nullptr : l2fm_edm_table_bp_vtep_get(&bp->vtep_tree, vtep_addr);
}

l2fm_edm_mac_t *l2fm_edm_table_mac_get_by_xcid_mac(uint32_t xcid, const uint8_t *mac_addr)
{
    const l2fm_edm_bp_t *bp = indexed_bp(xcid);
    if (bp != nullptr && mac_addr != nullptr && edm::is_watched(&bp->mac_tree)) {
        const edm::address_answer answer = look_into_index(mac_addr, bp, nullptr);
        if (answer.known) {
            return answer.mac;
        }
    }
    return search_port_by_xcid(xcid, mac_addr);
}

l2fm_edm_mac_t *l2fm_edm_table_bd_mac_get(const l2fm_edm_bd_t *bd, const uint8_t *mac_addr)
{
    if (bd == nullptr || mac_addr == nullptr) {
        return nullptr;
    }
    if (edm::indexes_cover(&bd->bp_tree)) {
        const edm::address_answer answer = ask_index(mac_addr, nullptr, bd);
        if (answer.known) {
            return answer.mac;
        }
    }
    return search_ports_of_bd(bd, mac_addr);
}

l2fm_edm_mac_t *l2fm_edm_table_mac_get_by_bridgeid_mac(uint32_t bridge_id, const uint8_t *mac_addr)
{
    const l2fm_edm_bd_t *bd = indexed_bd(bridge_id);
    if (bd != nullptr && mac_addr != nullptr && edm::is_watched(&bd->bp_tree)) {
        const edm::address_answer answer = look_into_index(mac_addr, nullptr, bd);
        if (answer.known) {
            return answer.mac;
        }
    }
    return search_bd_by_id(bridge_id, mac_addr);
}

l2fm_edm_mac_t *l2fm_edm_table_mac_get_by_bdname_mac(const char *name, const uint8_t *mac_addr)
{
    if (name == nullptr || mac_addr == nullptr) {
        return nullptr;
    }
    if (!bd_root_runs()) {
        EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        return nullptr;
    }
    return l2fm_edm_table_bd_mac_get(l2fm_edm_table_bd_get_by_name(name), mac_addr);
}

l2fm_edm_mac_t *l2fm_edm_table_mac_get_next_by_bdname_mac(const char *name, const uint8_t *mac_addr)
{
    if (name == nullptr || mac_addr == nullptr) {
        return nullptr;
    }
    if (!bd_root_runs()) {
        EDM_TRACE(EDM_TRACE_TREE_NOT_RUNNING);
        return nullptr;
    }
    const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_name(name);
    const edm::domain_answer answer = edm::next_in_domain(bd, mac_addr);
    return answer.known ? answer.mac : search_next_of_ports(bd, mac_addr);
}

l2fm_edm_vtep_t *l2fm_edm_table_vtep_get_by_bridgeid_vtep(uint32_t bridge_id, const uint8_t *vtep_addr)
{
    if (vtep_addr == nullptr) {
        return nullptr;
    }
    if (!bd_root_runs()) {
        EDM_TRACE(EDM_TRACE_VTEP_TREE_NOT_RUNNING);
        return nullptr;
    }
    const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(bridge_id);
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    for (; bp != nullptr; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
        l2fm_edm_vtep_t *vtep = bp->bp_type == EDM_BP_TYPE_VXLAN ? l2fm_edm_table_vtep_lookup(vtep_addr, bp) : nullptr;
        if (vtep != nullptr) {
            return vtep;
        }
    }
    return nullptr;
}

l2fm_edm_mac_t *l2fm_edm_table_mac_lookup(const l2fib_mac_edm_entry_t *entry, const l2fm_edm_bd_t *bd,
                                          l2fm_edm_bp_t *bp)
{
    if (entry == nullptr || bd == nullptr) {
        return nullptr;
    }
    if (edm::indexes_cover(&bp->mac_tree)) {
        const l2fm_edm_bd_t *of_entry = find_bd(entry->bridge_id);
        const edm::address_answer answer = ask_index(entry->mac_addr, bp, of_entry);
        if (answer.known) {
            return answer.mac;
        }
    }
    return search_port_then_bd(entry, bp);
}
