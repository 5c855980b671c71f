// The table against a naive reference: the same random operations go to both, and both give the same answers.
//
// After each operation: its status, the counters, and the lookups of one random key in every way. At the strides of the
// table's shape: the whole table as text, which has the order of all walks, and the audit.
#include <sys/mman.h>

#include "table/element.h"
#include "tests/support/interpose.h"
#include "tests/support/reference_table.h"
#include "tests/support/table_audit.h"

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
        const ref_mac *next = nullptr;
        bool has_vtep = false;
        for (const ref_port *p : ref.ports_of(id)) {
            const ref_mac *candidate = next_of(p, address);
            next = candidate != nullptr && (next == nullptr || candidate->number < next->number) ? candidate : next;
            has_vtep = has_vtep || p->vteps.contains(address);
        }
        const small_table::address mac = mac_address(address);
        EXPECT_EQ(of(l2fm_edm_table_mac_get_by_bdname_mac(name, mac.data())), of(ref.find_in_bd(id, address)));
        EXPECT_EQ(of(l2fm_edm_table_mac_get_next_by_bdname_mac(name, mac.data())), of(next));
        EXPECT_EQ(l2fm_edm_table_vtep_get_by_bridgeid_vtep(id, vtep_address(address).data()) != nullptr, has_vtep);
    }
};

// ---- What the hosting process changes by itself ----

using edm::to_element;

// The lookups as the trees answer them.

l2fm_edm_bd_t *tree_bd(uint32_t id)
{
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_first_by_bridgeid();
    while (bd != nullptr && bd->bridge_id != id) {
        bd = l2fm_edm_table_bd_get_next_by_bridgeid(bd);
    }
    return bd;
}

l2fm_edm_bp_t *tree_bp(uint32_t xcid)
{
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_first();
    while (bp != nullptr && bp->xcid != xcid) {
        bp = l2fm_edm_table_bp_get_next(bp);
    }
    return bp;
}

l2fm_edm_mac_t *tree_mac(const l2fm_edm_bd_t *bd, const uint8_t *address)
{
    l2fm_edm_mac_t *mac = nullptr;
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    for (; bp != nullptr && mac == nullptr; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
        mac = l2fm_edm_table_bp_mac_get(&bp->mac_tree, address);
    }
    return mac;
}

void compare_lookups_with_trees(l2fm_edm_bp_t *reported)
{
    for (const uint32_t xcid : xcids) {
        EXPECT_EQ(l2fm_edm_table_bp_get_by_xcid(xcid), tree_bp(xcid));
    }
    for (uint32_t id = 1; id <= 3; id++) {
        const l2fm_edm_bd_t *bd = tree_bd(id);
        EXPECT_EQ(l2fm_edm_table_bd_get_by_bridgeid(id), bd);
        for (uint32_t address = 1; bd != nullptr && address <= small.addresses; address++) {
            const l2fib_mac_edm_entry_t fed = entry(address, reported->xcid, id);
            l2fm_edm_mac_t *found = tree_mac(bd, fed.mac_addr);
            EXPECT_EQ(l2fm_edm_table_mac_get_by_bridgeid_mac(id, fed.mac_addr), found);
            EXPECT_EQ(l2fm_edm_table_mac_get_by_bdname_mac(bd->bd_name, fed.mac_addr), found);
            l2fm_edm_mac_t *own = l2fm_edm_table_bp_mac_get(&reported->mac_tree, fed.mac_addr);
            EXPECT_EQ(l2fm_edm_table_mac_lookup(&fed, bd, reported), own != nullptr ? own : found);
        }
    }
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

// Each step is a new table, a few operations, one change by the hosting process, its reversal, and more operations.
class tables_changed_by_host {
public:
    explicit tables_changed_by_host(uint64_t seed)
        : random(seed)
    {}

    void step(uint64_t)
    {
        pair_of_tables<small> both(random());
        const auto operate = [&both] {
            for (uint64_t count = 1; count <= 60; count++) {
                both.step(count);
            }
        };
        operate();
        change_something();
        operate();
    }

private:
    std::mt19937_64 random;

    void change_something()
    {
        const auto chosen = static_cast<uint32_t>(random());
        l2fm_edm_bp_t *bp = tree_bp(xcids[chosen % std::size(xcids)]);
        l2fm_edm_bp_t *other_bp = tree_bp(xcids[chosen / 8 % std::size(xcids)]);
        l2fm_edm_bd_t *other_bd = tree_bd(1 + chosen / 64 % 3);
        l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get_first(bp);
        if (mac == nullptr || bp->bd == nullptr || other_bp == nullptr || other_bd == nullptr) {
            return;
        }
        const undo reverse = change_by_host(static_cast<uint32_t>(random() % kinds_of_change), mac, other_bp, other_bd);
        compare_lookups_with_trees(other_bp);
        reverse();
        compare_lookups_with_trees(other_bp);
    }
};

TEST(model, answers_what_the_trees_hold_after_changes_by_the_hosting_process)
{
    run_seeds<tables_changed_by_host>(1, 1000);
}

TEST(model, agrees_with_small_tables)
{
    run_seeds<pair_of_tables<small>>(5, 200000);
}

TEST(model, agrees_with_large_tables)
{
    run_seeds<pair_of_tables<large>>(2, 200000);
}

// The indexes then lack records, and trees are searched.
TEST(model, agrees_where_memory_for_the_indexes_is_scarce)
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
