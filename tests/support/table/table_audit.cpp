// SPDX-License-Identifier: Apache-2.0

#include "tests/support/table/table_audit.h"

#include <cstring>
#include <map>
#include <sstream>
#include <unordered_set>
#include <vector>

#include "host/pool/chunk_statistics.h"
#include "l2fm_edm_table.h"
#include "table/element.h"
#include "tests/support/host/pools.h"
#include "tests/support/host/tree_audit.h"

namespace {

using edm::to_element;

struct unsound {
    std::string what;
};

template <typename... Words>
void require(bool holds, const Words &...what)
{
    if (!holds) {
        std::ostringstream text;
        (text << ... << what);
        throw unsound{text.str()};
    }
}

struct lock {
    lock() { l2fib_mac_edm_mutex_lock(); }
    ~lock() { l2fib_mac_edm_mutex_unlock(); }
    lock(const lock &) = delete;
    lock &operator=(const lock &) = delete;
};

// What a walk through all trees finds.
struct found {
    std::vector<l2fm_edm_bd_t *> bds;
    std::vector<l2fm_edm_bp_t *> bps;
    std::vector<l2fm_edm_mac_t *> macs;
    uint32_t vteps = 0;
};

// The last two bytes, which tell the addresses of tests apart.
std::string address_text(const l2fm_edm_mac_t *mac)
{
    return std::to_string(mac->mac_addr[4] << 8 | mac->mac_addr[5]) + " ";
}

void check_tree(const ordtree_t *tree, const char *of, uint64_t id)
{
    const char *fault = test::tree_fault(tree);
    require(fault == nullptr, of, " tree of ", id, ": ", fault == nullptr ? "" : fault);
}

void check_vteps(l2fm_edm_bp_t *bp, found &all)
{
    if (ordtree_running(&bp->vtep_tree) == 0) {
        return;
    }
    require(bp->bp_type == EDM_BP_TYPE_VXLAN, "port ", bp->xcid, " of kind ", +bp->bp_type, " has a VTEP tree");
    check_tree(&bp->vtep_tree, "VTEP", bp->xcid);
    const l2fm_edm_vtep_t *vtep = l2fm_edm_table_bp_vtep_get_first(bp);
    for (; vtep != nullptr; vtep = l2fm_edm_table_bp_vtep_get_next(bp, vtep)) {
        all.vteps++;
    }
}

void check_port(l2fm_edm_bp_t *bp, found &all)
{
    require(ordtree_running(&bp->mac_tree) != 0, "port ", bp->xcid, " has no MAC tree");
    check_tree(&bp->mac_tree, "MAC", bp->xcid);
    l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get_first(bp);
    for (; mac != nullptr; mac = l2fm_edm_table_bp_mac_get_next(bp, mac)) {
        require(mac->bp == bp, "entry ", address_text(mac), "points away from port ", bp->xcid);
        all.macs.push_back(mac);
    }
    check_vteps(bp, all);
    all.bps.push_back(bp);
}

void check_bridge_domain(l2fm_edm_bd_t *bd, found &all)
{
    require(l2fm_edm_table_bd_get_by_bridgeid(bd->bridge_id) == bd, "bridge domain ", bd->bridge_id, " not found");
    require(l2fm_edm_table_bd_get_by_name(bd->bd_name) == bd, "bridge domain ", bd->bd_name, " not found");
    require(ordtree_running(&bd->bp_tree) != 0, "bridge domain ", bd->bridge_id, " has no port tree");
    check_tree(&bd->bp_tree, "port", bd->bridge_id);
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    for (; bp != nullptr; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
        const bool is_dummy = bp->xcid == EDM_XCID_DUMMY;
        require(bp->bd == bd, "port ", bp->xcid, " points away from bridge domain ", bd->bridge_id);
        require(l2fm_edm_table_bp_get_by_xcid(bp->xcid) == (is_dummy ? nullptr : bp), "port ", bp->xcid, " by id");
        require(!is_dummy || to_element(bp)->bp_link.place == nullptr, "a dummy port is on the global tree");
        check_port(bp, all);
    }
    all.bds.push_back(bd);
}

bool is_dummy(const l2fm_edm_bp_t *bp)
{
    return bp->xcid == EDM_XCID_DUMMY;
}

// Ordinary ports: those met under bridge domains and those without one are all that the global tree holds.
void check_global_ports(found &all)
{
    size_t ordinary = 0;
    for (const l2fm_edm_bp_t *bp : all.bps) {
        ordinary += is_dummy(bp) ? 0u : 1u;
    }
    size_t global = 0;
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_first();
    for (; bp != nullptr; bp = l2fm_edm_table_bp_get_next(bp)) {
        const bool on_a_bd = to_element(bp)->bd_bp_link.place != nullptr;
        require(on_a_bd == (bp->bd != nullptr), "port ", bp->xcid, " and its bridge domain disagree");
        require(!is_dummy(bp), "a dummy port is on the global tree");
        require(l2fm_edm_table_bp_get_by_xcid(bp->xcid) == bp, "port ", bp->xcid, " by id");
        global += on_a_bd ? 1 : 0;
        if (!on_a_bd) {
            check_port(bp, all);
        }
    }
    require(global == ordinary, ordinary, " ports under bridge domains, ", global, " on the global tree");
}

found check_trees()
{
    found all;
    if (ordtree_running(l2fm_edm_table_bd_get_root()) != 0) {
        check_tree(l2fm_edm_table_bd_get_root(), "global bridge-domain", 0);
        l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_first_by_bridgeid();
        for (; bd != nullptr; bd = l2fm_edm_table_bd_get_next_by_bridgeid(bd)) {
            check_bridge_domain(bd, all);
        }
    }
    if (ordtree_running(l2fm_edm_table_bp_get_root()) != 0) {
        check_tree(l2fm_edm_table_bp_get_root(), "global port", 0);
        check_global_ports(all);
    }
    return all;
}

void check_list(const found &all)
{
    const l2fm_edm_ll_root_t *list = l2fm_edm_table_ll_get_root();
    const auto *end = reinterpret_cast<const l2fm_edm_ll_link_t *>(list);
    std::unordered_set<const l2fm_edm_mac_t *> expected(all.macs.begin(), all.macs.end());
    require(list->ll_count == all.macs.size(), list->ll_count, " entries on the list, ", all.macs.size(), " on trees");
    if (list->ll_initialised == 0) {
        return;
    }
    const l2fm_edm_ll_link_t *prev = end;
    for (l2fm_edm_ll_link_t *link = list->ll_first; link != end; link = link->next) {
        require(link->prev == prev, "the list runs back another way");
        require(expected.erase(edm::mac_of_list_link(link)) == 1, "an entry is on the list and on no tree, or twice");
        prev = link;
    }
    require(list->ll_last == prev, "the list ends elsewhere");
    require(expected.empty(), "an entry is on a tree and not on the list");
}

l2fm_edm_mac_pool_t count(const found &all)
{
    l2fm_edm_mac_pool_t counts{};
    for (const l2fm_edm_mac_t *mac : all.macs) {
        const bool is_static = (mac->flags & EDM_MAC_STATIC) != 0;
        const bool is_local = (mac->flags & EDM_MAC_LOCAL) != 0;
        counts.mac_cnt_f2 += is_static ? 1 : 0;
        counts.mac_cnt_f4 += is_local ? 1 : 0;
        counts.mac_cnt_plain += is_static || is_local ? 0 : 1;
        counts.mac_cnt_f60 += (mac->flags & (EDM_MAC_BD_OWN | EDM_MAC_BD_40)) != 0 ? 1 : 0;
    }
    counts.mac_cnt_sum = counts.mac_cnt_plain + counts.mac_cnt_f2;
    counts.mac_cnt_total = static_cast<uint32_t>(all.macs.size());
    counts.bd_cnt = static_cast<uint32_t>(all.bds.size());
    counts.bp_cnt = static_cast<uint32_t>(all.bps.size());
    counts.vtep_cnt = all.vteps;
    return counts;
}

void check_counters(const found &all)
{
    const l2fm_edm_mac_pool_t counted = count(all);
    const char *const names[] = {"sum", "plain", "f2", "f4", "f60", "total", "bd", "bp", "vtep"};
    uint32_t expected[std::size(names)];
    uint32_t kept[std::size(names)];
    static_assert(sizeof(expected) == sizeof(counted));
    std::memcpy(expected, &counted, sizeof(expected));
    std::memcpy(kept, l2fm_edm_table_mac_get_pool(), sizeof(kept));
    for (size_t i = 0; i < std::size(names); i++) {
        require(kept[i] == expected[i], "counter ", names[i], " is ", kept[i], ", counted ", expected[i]);
    }
}

const char *pool_name_of(const l2fm_edm_mac_t *mac)
{
    return (mac->flags & EDM_MAC_PBB) != 0   ? "EDM-MAC-PBB Chunk"
           : (mac->flags & EDM_MAC_VNI) != 0 ? "EDM-MAC-VNI Chunk"
                                             : "EDM-MAC Chunk";
}

void check_pools(const found &all)
{
    std::map<std::string, uint64_t> expected = {{"EDM-MAC Chunk", 0},
                                                {"EDM-MAC-PBB Chunk", 0},
                                                {"EDM-MAC-VNI Chunk", 0},
                                                {"EDM-BD Chunk", all.bds.size()},
                                                {"EDM-BP Chunk", all.bps.size()},
                                                {"EDM-MAC Vtep DB Chunk", all.vteps}};
    for (const l2fm_edm_mac_t *mac : all.macs) {
        expected[pool_name_of(mac)]++;
    }
    for (const auto &[name, elements] : expected) {
        host::chunk_statistics pool{};
        const bool exists = host::chunk_read_statistics(test::find_pool(name.c_str()), &pool);
        require(exists || elements == 0, name, " does not exist");
        require(pool.in_use == elements, pool.in_use, " elements of ", name, " are out, ", elements, " records");
    }
}

// Looks each address up in its own bridge domain and in the next one, which holds it more often than not for the tests'
// few addresses. The entries of a bridge domain stand in the order of its ports.
void check_lookups(const found &all)
{
    std::map<std::pair<const l2fm_edm_bd_t *, std::string>, l2fm_edm_mac_t *> lowest;
    const auto key_of = [](const l2fm_edm_bd_t *bd, const l2fm_edm_mac_t *mac) {
        return std::pair(bd, std::string(reinterpret_cast<const char *>(mac->mac_addr), edm::mac_addr_size));
    };
    for (l2fm_edm_mac_t *mac : all.macs) {
        lowest.emplace(key_of(mac->bp->bd, mac), mac);
    }
    for (l2fm_edm_mac_t *mac : all.macs) {
        const l2fm_edm_bd_t *own = mac->bp->bd;
        const l2fm_edm_bd_t *other = own == nullptr ? nullptr : l2fm_edm_table_bd_get_next_by_bridgeid(own);
        for (const l2fm_edm_bd_t *bd : {own, other != nullptr ? other : all.bds.empty() ? nullptr : all.bds.front()}) {
            const auto expected = lowest.find(key_of(bd, mac));
            require(bd == nullptr
                        || l2fm_edm_table_bd_mac_get(bd, mac->mac_addr)
                               == (expected == lowest.end() ? nullptr : expected->second),
                    "address ", address_text(mac), "looked up in bridge domain ", bd == nullptr ? 0 : bd->bridge_id);
        }
        require(l2fm_edm_table_bp_mac_get(&mac->bp->mac_tree, mac->mac_addr) == mac, "address ", address_text(mac),
                "looked up on port ", mac->bp->xcid);
    }
}

} // namespace

std::string audit_table()
{
    const lock hold;
    try {
        const found all = check_trees();
        check_list(all);
        check_counters(all);
        check_pools(all);
        check_lookups(all);
        return {};
    } catch (const unsound &fault) {
        return fault.what;
    }
}
