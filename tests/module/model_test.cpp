// SPDX-License-Identifier: Apache-2.0

// The table against a naive reference: the same random operations go to both, and both give the same answers.
//
// After each operation: its status, the counters, and the lookups of one random key in every way. At the strides of the
// table's shape: the whole table as text, which has the order of all walks, and the audit.
#include <sys/mman.h>

#include "table/element.h"
#include "tests/support/faults/interpose.h"
#include "tests/support/table/reference_table.h"
#include "tests/support/table/table_audit.h"

using namespace small_table;
using namespace reference_table;

namespace {

size_t largest_index_table = SIZE_MAX; // in bytes, as far as there is memory

} // namespace

// The thread sanitizer maps memory before anything could be looked up.
#ifndef __SANITIZE_THREAD__
// Trees and pools map at least a huge page at once, tables of the indexes less at first.
extern "C" void *mmap(void *address, size_t length, int protection, int flags, int file, off_t offset) noexcept
{
    static const auto real = INTERPOSE_HIDDEN(mmap);
    constexpr size_t huge_page = size_t{2} << 20;
    const bool is_refused = length < huge_page && length > largest_index_table;
    return is_refused ? MAP_FAILED : real(address, length, protection, flags, file, offset);
}
#endif

namespace {

// ---- The reference in the form of table_text() ----

std::string text(const ref_port &p)
{
    std::string macs;
    for (const auto &[address, mac] : p.macs) {
        macs += (macs.empty() ? "" : " ") + number(address) + ((mac->flags & 0x80) != 0 ? "!" : "")
                + (mac->bridge_id == p.bd ? "" : "@" + number(mac->bridge_id));
    }
    std::string vteps;
    for (const auto &[vtep, stale] : p.vteps) {
        vteps += (vteps.empty() ? "" : " ") + number(vtep) + (stale ? "!" : "");
    }
    return (is_dummy(p) ? "dummy" : number(p.xcid)) + (p.pending ? "*" : "") + "(" + macs + ")"
           + (vteps.empty() ? "" : "{" + vteps + "}");
}

std::string text(reference &of)
{
    const auto ports = [](std::string title, const std::vector<ref_port *> &all) {
        for (const ref_port *p : all) {
            title += " " + text(*p);
        }
        return title + " | ";
    };
    std::string all;
    for (const auto &[id, name] : of.bds) {
        all += ports(number(id) + ":", of.ports_of(id));
    }
    const std::vector<ref_port *> homeless = of.ports_of(std::nullopt);
    all += (homeless.empty() ? "" : ports("-:", homeless)) + "list";
    for (const ref_mac &mac : of.list) {
        all += " " + number(mac.number);
    }
    return all;
}

// ---- Both, side by side ----

struct shape {
    uint32_t addresses;
    uint32_t spread;
    uint32_t text_stride;
    uint32_t audit_stride;
};

constexpr shape small = {24, 150, 4, 16};
constexpr shape large = {20000, 40000, 20000, 10000};

template <const shape &Form>
class pair_of_tables : public both_tables {
public:
    explicit pair_of_tables(uint64_t seed)
        : both_tables(seed, Form.addresses, Form.spread)
    {
        start();
        limit = unlimited;
    }
    ~pair_of_tables() { stop(); }
    pair_of_tables(const pair_of_tables &) = delete;
    pair_of_tables &operator=(const pair_of_tables &) = delete;

    void step(uint64_t count)
    {
        operate();
        compare_lookups(below(addresses + 2), 1 + below(4), one_of(xcids));
        if (count % Form.text_stride == 0) {
            EXPECT_EQ(table_text(), text(ref));
        }
        if (count % Form.audit_stride == 0) {
            EXPECT_EQ(audit_table(), "");
        }
    }

private:
    // What an answer is: the address and the port's id.
    using answer = std::pair<uint32_t, uint32_t>;
    static answer of(const l2fm_edm_mac_t *mac)
    {
        return mac == nullptr ? answer() : answer(mac->mac_addr[4] << 8 | mac->mac_addr[5], mac->bp->xcid);
    }
    static answer of(const ref_mac *mac) { return mac == nullptr ? answer() : answer(mac->number, mac->port->xcid); }

    static const ref_mac *next_of(const ref_port *p, uint32_t address)
    {
        const auto next = p->macs.upper_bound(address);
        return next == p->macs.end() ? nullptr : &*next->second;
    }

    void compare_lookups(uint32_t address, uint32_t id, uint32_t xcid)
    {
        const small_table::address mac = mac_address(address);
        EXPECT_EQ(of(l2fm_edm_table_mac_get_by_bridgeid_mac(id, mac.data())), of(ref.find_in_bd(id, address)));
        const l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
        const ref_port *p = ref.port(xcid);
        ASSERT_EQ(bp != nullptr, p != nullptr) << xcid;
        if (p != nullptr) {
            EXPECT_EQ(bp->bp_type, p->type);
            EXPECT_EQ(l2fm_edm_table_mac_get_by_xcid_mac(xcid, mac.data()) != nullptr, p->macs.contains(address));
            EXPECT_EQ(of(l2fm_edm_table_bp_macaddr_get_next(&bp->mac_tree, mac.data())), of(next_of(p, address)));
        }
        const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(id);
        ASSERT_EQ(bd != nullptr, ref.bds.contains(id));
        if (bd != nullptr) {
            EXPECT_EQ(l2fm_edm_table_bd_get_by_name(ref.bds[id].c_str()), bd);
            compare_by_name(ref.bds[id].c_str(), id, address);
        }
    }

    void compare_by_name(const char *name, uint32_t id, uint32_t address)
    {
        bool has_vtep = false;
        for (const ref_port *p : ref.ports_of(id)) {
            has_vtep = has_vtep || p->vteps.contains(address);
        }
        const small_table::address mac = mac_address(address);
        EXPECT_EQ(of(l2fm_edm_table_mac_get_by_bdname_mac(name, mac.data())), of(ref.find_in_bd(id, address)));
        EXPECT_EQ(l2fm_edm_table_vtep_get_by_bridgeid_vtep(id, vtep_address(address).data()) != nullptr, has_vtep);
        compare_successors(name, id, address);
    }

    // Some addresses one after the other. Most steps behind the first repair what the table remembers of the bridge
    // domain.
    void compare_successors(const char *name, uint32_t id, uint32_t address)
    {
        const ref_mac *next = nullptr;
        uint32_t steps = below(4);
        do {
            next = nullptr;
            for (const ref_port *p : ref.ports_of(id)) {
                const ref_mac *candidate = next_of(p, address);
                next = candidate != nullptr && (next == nullptr || candidate->number < next->number) ? candidate : next;
            }
            EXPECT_EQ(of(l2fm_edm_table_mac_get_next_by_bdname_mac(name, mac_address(address).data())), of(next));
            address = next != nullptr ? next->number : address;
        } while (next != nullptr && steps-- > 0);
    }
};

// ---- What the hosting process changes by itself ----

using edm::to_element;

// The first record from `at` on for which `is` holds.
template <typename Record, typename Next, typename Is>
Record *search(Record *at, Next next, Is is)
{
    while (at != nullptr && !is(at)) {
        at = next(at);
    }
    return at;
}

l2fm_edm_bp_t *tree_bp(uint32_t xcid)
{
    return search(l2fm_edm_table_bp_get_first(), l2fm_edm_table_bp_get_next,
                  [=](auto *bp) { return bp->xcid == xcid; });
}

l2fm_edm_bd_t *tree_bd(uint32_t id)
{
    return search(l2fm_edm_table_bd_get_first_by_bridgeid(), l2fm_edm_table_bd_get_next_by_bridgeid,
                  [=](auto *bd) { return bd->bridge_id == id; });
}

// Lookups, against what walks through the trees find.
void compare_with_trees(l2fm_edm_bp_t *reported, const l2fm_edm_bd_t *bd, uint32_t address)
{
    const l2fib_mac_edm_entry_t fed = entry(address, reported->xcid, bd->bridge_id);
    const auto mac_on = [&fed](auto *bp) { return l2fm_edm_table_bp_mac_get(&bp->mac_tree, fed.mac_addr); };
    const auto next_of_bd = [bd](auto *bp) { return l2fm_edm_table_bd_bp_get_next(bd, bp); };
    const l2fm_edm_bp_t *bp = search(l2fm_edm_table_bd_bp_get_first(bd), next_of_bd, mac_on);
    const l2fm_edm_mac_t *found = bp == nullptr ? nullptr : mac_on(bp);
    EXPECT_EQ(l2fm_edm_table_bd_mac_get(bd, fed.mac_addr), found);
    const l2fm_edm_mac_t *by_id = tree_bd(bd->bridge_id) == nullptr ? nullptr : found;
    EXPECT_EQ(l2fm_edm_table_mac_get_by_bridgeid_mac(bd->bridge_id, fed.mac_addr), by_id);
    EXPECT_EQ(l2fm_edm_table_mac_lookup(&fed, bd, reported), mac_on(reported) != nullptr ? mac_on(reported) : by_id);
}

using undo = std::function<void()>;

// Moves a node to another tree, or takes it off if there is none.
undo move_node(ordtree_t *from, ordtree_t *to, ordtree_link_t *node)
{
    ordtree_delete(from, node);
    const bool is_moved = to != nullptr && ordtree_insert(to, node) != nullptr;
    return [=] {
        ordtree_delete(is_moved ? to : nullptr, node);
        ordtree_insert(from, node);
    };
}

constexpr uint32_t kinds_of_change = 10;

undo change_by_host(uint32_t kind, l2fm_edm_mac_t *mac, l2fm_edm_bp_t *other_bp, l2fm_edm_bd_t *other_bd)
{
    l2fm_edm_bp_t *bp = mac->bp;
    l2fm_edm_bd_t *bd = bp->bd;
    switch (kind) {
    case 0: l2fm_edm_table_mac_set_bp(mac, other_bp); return [=] { l2fm_edm_table_mac_set_bp(mac, bp); };
    case 1: l2fm_edm_table_mac_unset_bp(mac); return [=] { l2fm_edm_table_mac_set_bp(mac, bp); };
    case 2: l2fm_edm_table_bp_set_bd(bp, other_bd); return [=] { l2fm_edm_table_bp_set_bd(bp, bd); };
    case 3: l2fm_edm_table_bp_unset_bd(bp); return [=] { l2fm_edm_table_bp_set_bd(bp, bd); };
    case 4: return move_node(&bp->mac_tree, nullptr, &to_element(mac)->mac_link);
    case 5: return move_node(&bp->mac_tree, &other_bp->mac_tree, &to_element(mac)->mac_link);
    case 6: return move_node(&bd->bp_tree, nullptr, &to_element(bp)->bd_bp_link);
    case 7: return move_node(&bd->bp_tree, &other_bd->bp_tree, &to_element(bp)->bd_bp_link);
    case 8: return move_node(l2fm_edm_table_bp_get_root(), nullptr, &to_element(bp)->bp_link);
    default: return move_node(l2fm_edm_table_bd_get_root(), nullptr, to_element(bd)->bd_links);
    }
}

// Each step is a new table, operations, one change by the hosting process, its reversal, and operations.
struct tables_changed_by_host {
    explicit tables_changed_by_host(uint64_t seed)
        : random(seed)
    {}

    std::mt19937_64 random;

    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random() % bound); }

    void step(uint64_t)
    {
        pair_of_tables<small> both(random());
        for (const bool is_changed : {false, true}) {
            for (uint64_t count = 1; count <= 60; count++) {
                both.step(count);
            }
            if (!is_changed) {
                change_and_undo();
            }
        }
    }

    void change_and_undo()
    {
        l2fm_edm_bp_t *bp = tree_bp(xcids[below(7)]);
        l2fm_edm_bp_t *other_bp = tree_bp(xcids[below(7)]);
        l2fm_edm_bd_t *other_bd = tree_bd(1 + below(3));
        l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get_first(bp);
        if (mac == nullptr || bp->bd == nullptr || other_bp == nullptr || other_bd == nullptr) {
            return;
        }
        const l2fm_edm_bd_t *const bds[] = {bp->bd, other_bd};
        const undo reverse = change_by_host(below(kinds_of_change), mac, other_bp, other_bd);
        for (uint32_t address = 1; address <= small.addresses; address++) {
            compare_with_trees(other_bp, bds[0], address);
            compare_with_trees(other_bp, bds[1], address);
        }
        EXPECT_EQ(l2fm_edm_table_bp_get_by_xcid(bp->xcid), tree_bp(bp->xcid));
        EXPECT_EQ(l2fm_edm_table_bd_get_by_bridgeid(bds[0]->bridge_id), tree_bd(bds[0]->bridge_id));
        reverse();
    }
};

TEST(Model, FollowsChangesByTheHostingProcess)
{
    run_seeds<tables_changed_by_host>(1, 1000);
}

TEST(Model, AgreesOnSmallTables)
{
    run_seeds<pair_of_tables<small>>(5, 200000);
}

TEST(Model, AgreesOnLargeTables)
{
    run_seeds<pair_of_tables<large>>(2, 200000);
}

// The indexes then lack records, and trees are searched.
TEST(Model, AgreesWithoutMemoryForIndexes)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "nothing refuses memory here";
#endif
    for (const size_t kibibytes : {0u, 32u, 128u}) {
        largest_index_table = kibibytes << 10;
        run_seeds<pair_of_tables<large>>(1, 50000);
    }
    largest_index_table = SIZE_MAX;
}

} // namespace
