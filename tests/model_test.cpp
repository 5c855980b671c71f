// The table against a naive reference: the same random operations go to both, and both give the same answers.
//
// After each operation: its status, the counters, and the lookups of one random key in every way. At the strides of the
// table's shape: the whole table as text, which has the order of all walks, and the audit. A seed that failed is
// repeated by L2FIB_SEED=<seed>; L2FIB_OPERATIONS=<number> sets how many operations are made with each seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>

#include "host/chunk_statistics.h"
#include "host/l2fib_objects.h"
#include "table/element.h"
#include "tests/support/small_table.h"
#include "tests/support/table_audit.h"

using namespace small_table;

namespace {

constexpr uint32_t no_resource = EDM_ERR_NO_RESOURCE;

// ---- The reference ----

struct ref_port;

struct ref_mac {
    uint32_t number, bridge_id, flags;
    ref_port *port;
};
using ref_list = std::list<ref_mac>;

struct ref_port {
    uint32_t xcid;
    std::optional<uint32_t> bd;
    uint32_t type = 0;
    bool pending = false;
    std::map<uint32_t, ref_list::iterator> macs;
    std::map<uint32_t, bool> vteps; // and whether they are marked
};

// What the forwarding manager and the platform say.
struct surroundings {
    std::map<uint32_t, std::string> names; // of bridge domains
    std::map<uint32_t, uint32_t> segments; // of cross-connects
    std::optional<uint32_t> limit = UINT32_MAX;
    bool full[EDM_POOL_COUNT] = {};
};

struct report {
    uint32_t number, xcid, bd, flags, vtep;
};

uint32_t pool_of(uint32_t flags)
{
    return (flags & 1) != 0 ? EDM_POOL_MAC_PBB : (flags & 0x1000) != 0 ? EDM_POOL_MAC_VNI : EDM_POOL_MAC;
}

class reference {
public:
    surroundings around;
    std::map<uint32_t, std::string> bds;
    std::list<std::unique_ptr<ref_port>> ports;
    ref_list list;

    ref_port *port(uint32_t xcid)
    {
        return find_port([=](const ref_port &p) { return p.xcid == xcid && xcid != EDM_XCID_DUMMY; });
    }

    // The ports of a bridge domain, by xcid.
    std::vector<ref_port *> ports_of(std::optional<uint32_t> bd)
    {
        std::vector<ref_port *> found;
        for (const auto &p : ports) {
            if (p->bd == bd) {
                found.push_back(p.get());
            }
        }
        std::sort(found.begin(), found.end(), [](auto *a, auto *b) { return a->xcid < b->xcid; });
        return found;
    }

    ref_mac *find_in_bd(uint32_t bd, uint32_t number)
    {
        for (ref_port *p : ports_of(bd)) {
            if (const auto found = p->macs.find(number); found != p->macs.end()) {
                return &*found->second;
            }
        }
        return nullptr;
    }

    uint32_t feed(const report &r)
    {
        if (!bds.contains(r.bd) && !create_bd(r.bd)) {
            return no_resource;
        }
        ref_port *p = (r.flags & 0x0668) != 0 ? dummy_of(r.bd) : ordinary(r);
        if (p == nullptr) {
            return no_resource;
        }
        ref_mac *known = p->macs.contains(r.number) ? &*p->macs[r.number] : find_in_bd(r.bd, r.number);
        return known == nullptr ? create(p, r) : update(p, known, r);
    }

    bool create_bd(uint32_t id)
    {
        if (!around.names.contains(id) || around.full[EDM_POOL_BD]) {
            return false;
        }
        const std::string name = around.names[id].size() > 60 ? "" : around.names[id];
        const bool taken = std::any_of(bds.begin(), bds.end(), [&](auto &bd) { return bd.second == name; });
        return !taken && bds.emplace(id, name).second;
    }

    uint32_t update_port(ref_port *p, uint32_t bd)
    {
        if (!p->pending) {
            return 0;
        }
        if (!p->bd) {
            return EDM_ERR_INVALID_ARGS;
        }
        if (*p->bd != bd) {
            p->bd = bds.contains(bd) ? std::optional(bd) : std::nullopt;
        } else if (!fill(p)) {
            return no_resource;
        }
        p->pending = !p->bd;
        return p->bd ? 0 : EDM_ERR_INVALID_ARGS;
    }

    // Marks or sweeps the ports that `in` chooses; the sweep of all does not reach VTEPs of ports without a bridge
    // domain.
    template <typename In>
    void mark(In in)
    {
        for (const auto &p : ports) {
            if (in(*p)) {
                std::for_each(p->macs.begin(), p->macs.end(), [](auto &mac) { mac.second->flags |= 0x80; });
                p->pending = p->pending || !p->macs.empty();
            }
        }
    }
    template <typename In>
    void mark_vteps(In in)
    {
        for (const auto &p : ports) {
            std::for_each(p->vteps.begin(), p->vteps.end(), [&](auto &vtep) { vtep.second |= in(*p); });
        }
    }
    template <typename In>
    void sweep(In in)
    {
        for (auto at = list.begin(); at != list.end();) {
            ref_mac &mac = *at++;
            if (in(*mac.port) && (mac.flags & 0x80) != 0) {
                destroy(&mac);
            }
        }
    }
    template <typename In>
    void sweep_vteps(In in)
    {
        for (const auto &p : ports) {
            std::erase_if(p->vteps, [&](const auto &vtep) { return vtep.second && in(*p); });
        }
    }

    void destroy_bd(uint32_t id)
    {
        for (ref_port *p : ports_of(id)) {
            destroy_port(p);
        }
        bds.erase(id);
    }

    void destroy_port(ref_port *p)
    {
        while (!p->macs.empty()) {
            destroy(&*p->macs.begin()->second);
        }
        ports.remove_if([=](const auto &each) { return each.get() == p; });
    }

    uint32_t evict()
    {
        if (list.empty()) {
            return EDM_ERR_NOT_FOUND;
        }
        destroy(&list.back());
        return 0;
    }

private:
    template <typename Is>
    ref_port *find_port(Is is)
    {
        const auto at = std::find_if(ports.begin(), ports.end(), [&](const auto &p) { return is(*p); });
        return at == ports.end() ? nullptr : at->get();
    }

    ref_port *add_port(uint32_t xcid, uint32_t bd)
    {
        ports.push_back(std::make_unique<ref_port>());
        ports.back()->xcid = xcid;
        ports.back()->bd = bd;
        return ports.back().get();
    }

    ref_port *dummy_of(uint32_t bd)
    {
        ref_port *p = find_port([=](const ref_port &each) { return each.xcid == EDM_XCID_DUMMY && each.bd == bd; });
        return p != nullptr || around.full[EDM_POOL_BP] ? p : add_port(EDM_XCID_DUMMY, bd);
    }

    ref_port *ordinary(const report &r)
    {
        ref_port *p = port(r.xcid);
        if (p != nullptr) {
            return update_port(p, r.bd) == 0 ? p : nullptr;
        }
        if (around.full[EDM_POOL_BP] || !around.segments.contains(r.xcid)) {
            return nullptr;
        }
        p = add_port(r.xcid, r.bd);
        fill(p);
        return p;
    }

    bool fill(ref_port *p)
    {
        static const std::map<uint32_t, uint32_t> types = {{2, 1}, {3, 2}, {4, 3}, {5, 4}, {33, 5}};
        if (!around.segments.contains(p->xcid)) {
            return false;
        }
        const auto type = types.find(around.segments[p->xcid]);
        p->type = type == types.end() ? p->type : type->second;
        if (p->type != 4) {
            p->vteps.clear();
        }
        return true;
    }

    uint32_t create(ref_port *p, const report &r)
    {
        if (!around.limit || (list.size() >= *around.limit && evict() != 0) || around.full[pool_of(r.flags)]
            || p->macs.contains(r.number)) {
            return no_resource;
        }
        list.push_back({r.number, r.bd, r.flags & ~0x80u, p});
        p->macs[r.number] = std::prev(list.end());
        see_vtep(p, r);
        return 0;
    }

    void see_vtep(ref_port *p, const report &r)
    {
        if ((r.flags & 0x1000) != 0 && p->type == 4 && (p->vteps.contains(r.vtep) || !around.full[EDM_POOL_VTEP])) {
            p->vteps[r.vtep] = false;
        }
    }

    uint32_t update(ref_port *p, ref_mac *mac, const report &r)
    {
        if (((mac->flags ^ r.flags) & 0x1001) != 0) {
            return replace(p, mac, r);
        }
        if ((r.flags & 0x68) != 0) {
            if (mac->port->xcid != EDM_XCID_DUMMY || p->xcid != EDM_XCID_DUMMY) {
                return EDM_ERR_STOPPED;
            }
            if ((r.flags & 0x8) != 0) {
                return replace(p, mac, r);
            }
            mac->flags = (mac->flags & 0x8) != 0 ? mac->flags : r.flags;
            return 0;
        }
        if ((mac->bridge_id != r.bd) != (mac->port->xcid != r.xcid)) {
            return replace(p, mac, r);
        }
        mac->flags = r.flags & ~0x80u;
        see_vtep(p, r);
        return 0;
    }

    uint32_t replace(ref_port *p, ref_mac *mac, const report &r)
    {
        destroy(mac);
        return create(p, r);
    }

    void destroy(ref_mac *mac)
    {
        const auto held = mac->port->macs.find(mac->number);
        const ref_list::iterator listed = held->second;
        mac->port->macs.erase(held);
        list.erase(listed);
    }
};

// ---- The reference's answers, in the form of the table's ----

std::string text(const ref_port &p)
{
    std::string all = (p.xcid == EDM_XCID_DUMMY ? "dummy" : std::to_string(p.xcid)) + (p.pending ? "*" : "") + "(";
    const char *gap = "";
    for (const auto &[number, mac] : p.macs) {
        all += gap + std::to_string(number) + ((mac->flags & 0x80) != 0 ? "!" : "")
               + (mac->bridge_id == p.bd ? "" : "@" + std::to_string(mac->bridge_id));
        gap = " ";
    }
    gap = "";
    all += p.vteps.empty() ? ")" : "){";
    for (const auto &[vtep, stale] : p.vteps) {
        all += gap + std::to_string(vtep) + (stale ? "!" : "");
        gap = " ";
    }
    return all + (p.vteps.empty() ? "" : "}");
}

std::string text(reference &of)
{
    std::string all;
    for (const auto &[id, name] : of.bds) {
        all += std::to_string(id) + ":";
        for (const ref_port *p : of.ports_of(id)) {
            all += " " + text(*p);
        }
        all += " | ";
    }
    const std::vector<ref_port *> homeless = of.ports_of(std::nullopt);
    all += homeless.empty() ? "" : "-:";
    for (const ref_port *p : homeless) {
        all += " " + text(*p);
    }
    all += homeless.empty() ? "list" : " | list";
    for (const ref_mac &mac : of.list) {
        all += " " + std::to_string(mac.number);
    }
    return all;
}

// ---- Both, side by side ----

const char *const pool_names[EDM_POOL_COUNT] = {"EDM-MAC Chunk", "EDM-MAC-PBB Chunk", "EDM-MAC-VNI Chunk",
                                                "EDM-BP Chunk",  "EDM-BD Chunk",      "EDM-MAC Vtep DB Chunk"};
constexpr uint32_t xcids[] = {10, 20, 30, 40, 50, 60, 70};
constexpr uint32_t segments[] = {2, 3, 4, 5, 5, 33, 99};

struct shape {
    uint32_t addresses;
    uint32_t spread; // of so many operations, 30 do not feed
    uint32_t text_stride;
    uint32_t audit_stride;
};

constexpr shape small = {24, 150, 4, 16};
constexpr shape large = {20000, 40000, 20000, 10000};

class pair_of_tables {
public:
    pair_of_tables(uint64_t seed, const shape &of)
        : random(seed)
        , form(of)
    {
        start();
        limit = unlimited;
        ref.around.names = {{1, "g:c"}, {2, "g:b"}, {3, "g:a"}};
        ref.around.segments = {{10, 2}, {20, 3}, {30, 5}, {40, 5}, {50, 4}, {60, 33}, {70, 99}};
    }
    ~pair_of_tables() { stop(); }
    pair_of_tables(const pair_of_tables &) = delete;
    pair_of_tables &operator=(const pair_of_tables &) = delete;

    void step(uint64_t number)
    {
        const uint32_t kind = below(form.spread);
        const bool marks = kind < 16;
        const bool removes = kind < 23;
        const bool changes = kind < 30;
        marks ? mark_or_sweep_both() : removes ? remove_from_both() : changes ? change_surroundings() : feed_both();
        compare_counters();
        compare_lookups();
        if (number % form.text_stride == 0) {
            EXPECT_EQ(table_text(), text(ref));
        }
        if (number % form.audit_stride == 0) {
            EXPECT_EQ(audit_table(), "");
        }
    }

private:
    static constexpr uint32_t unlimited = 1000000;
    std::mt19937_64 random;
    shape form;
    reference ref;

    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random() % bound); }

    template <size_t Size>
    uint32_t one_of(const uint32_t (&values)[Size])
    {
        return values[below(Size)];
    }

    uint32_t any_xcid()
    {
        constexpr uint32_t unusual[] = {0, 99, EDM_XCID_DUMMY};
        return below(20) == 0 ? one_of(unusual) : one_of(xcids);
    }

    void feed_both()
    {
        constexpr uint32_t flags[] = {0,      0,      0x2, 0x4,  0x6,  0x1,   0x1000, 0x1000, 0x1001, 0x100,
                                      0x2080, 0x1004, 0x8, 0x20, 0x40, 0x200, 0x400,  0x21,   0xa0,   0x1020};
        const report r = {1 + below(form.addresses), any_xcid(), 1 + below(4), one_of(flags), 1 + below(3)};
        EXPECT_EQ(feed(r.number, r.xcid, r.bd, r.flags, r.vtep), ref.feed(r))
            << r.number << ' ' << r.xcid << ' ' << r.bd << ' ' << std::hex << r.flags << ' ' << r.vtep;
    }

    // A scope in the reference's terms, and what the operations on all call VTEPs' scope.
    template <typename Macs, typename Vteps>
    void mark_or_sweep(bool mark, uint32_t (*mark_table)(uint32_t), uint32_t (*sweep_table)(uint32_t), uint32_t id,
                       Macs macs, Vteps vteps)
    {
        EXPECT_EQ((mark ? mark_table : sweep_table)(id), 0u);
        mark ? ref.mark(macs) : ref.sweep(macs);
        mark ? ref.mark_vteps(vteps) : ref.sweep_vteps(vteps);
    }

    void mark_or_sweep_both()
    {
        const bool mark = below(2) == 0;
        const uint32_t xcid = any_xcid();
        const uint32_t id = 1 + below(4);
        const auto of_bd = [=](const ref_port &p) { return p.bd == id; };
        const auto of_bp = [=](const ref_port &p) { return p.xcid == xcid && xcid != EDM_XCID_DUMMY; };
        switch (below(6)) {
        case 0:
            mark_or_sweep(
                mark, [](uint32_t) { return l2fib_mac_edm_mark_all(); },
                [](uint32_t) { return l2fib_mac_edm_sweep_all(); }, 0, [](const ref_port &) { return true; },
                [](const ref_port &p) { return p.bd.has_value(); });
            break;
        case 1:
        case 2: mark_or_sweep(mark, l2fib_mac_edm_mark_bd, l2fib_mac_edm_sweep_bd, id | 0x50000, of_bd, of_bd); break;
        default: mark_or_sweep(mark, l2fib_mac_edm_mark_bp, l2fib_mac_edm_sweep_bp, xcid, of_bp, of_bp);
        }
    }

    void remove_from_both()
    {
        const uint32_t xcid = one_of(xcids);
        const uint32_t id = 1 + below(4);
        ref_port *p = ref.port(xcid);
        switch (below(5)) {
        case 0:
            EXPECT_EQ(l2fm_edm_table_bd_destroy(id), 0u);
            ref.destroy_bd(id);
            break;
        case 1:
            EXPECT_EQ(l2fm_edm_table_bp_destroy(xcid), 0u);
            if (p != nullptr) {
                ref.destroy_port(p);
            }
            break;
        case 2: EXPECT_EQ(l2fm_edm_table_bd_create(id) != nullptr, ref.create_bd(id)); break;
        case 3:
            EXPECT_EQ(l2fm_edm_table_bp_update(l2fm_edm_table_bp_get_by_xcid(xcid), 1000),
                      p == nullptr ? EDM_ERR_INVALID_ARGS : ref.update_port(p, 1000));
            break;
        default: EXPECT_EQ(l2fm_edm_table_mac_destroy_old_mac(), ref.evict());
        }
    }

    void change_surroundings()
    {
        const uint32_t id = 1 + below(3);
        const uint32_t xcid = one_of(xcids);
        const uint32_t pool = below(EDM_POOL_COUNT);
        const std::string name = below(6) == 0 ? std::string(61, 'n') : "g:" + std::string(1, char('a' + below(5)));
        surroundings &around = ref.around;
        switch (below(5)) {
        case 0:
            if (host::bridge_domain_set(id, name) == 0) {
                around.names[id] = name;
            }
            break;
        case 1:
            around.segments[xcid] = one_of(segments);
            set_port(xcid, around.segments[xcid]);
            break;
        case 2:
            around.segments.erase(xcid);
            host::cross_connect_remove(xcid);
            break;
        case 3:
            around.limit = below(12) == 0 ? std::nullopt : std::optional(below(4) == 0 ? below(40) : unlimited);
            limit = around.limit.value_or(0);
            hw_edm_pool = around.limit ? &limit : nullptr;
            break;
        default:
            around.full[pool] = below(4) == 0;
            host::chunk_set_limit(host::chunk_find(pool_names[pool]), around.full[pool] ? 0 : UINT64_MAX);
        }
    }

    void compare_counters()
    {
        const l2fm_edm_mac_pool_t *counters = l2fm_edm_table_mac_get_pool();
        EXPECT_EQ(counters->mac_cnt_total, ref.list.size());
        EXPECT_EQ(counters->bd_cnt, ref.bds.size());
        EXPECT_EQ(counters->bp_cnt, ref.ports.size());
    }

    // The port of an answer; 0 for none.
    static uint32_t where(const l2fm_edm_mac_t *mac) { return mac == nullptr ? 0 : mac->bp->xcid; }
    static uint32_t where(const ref_mac *mac) { return mac == nullptr ? 0 : mac->port->xcid; }

    void compare_lookups()
    {
        const uint32_t number = below(form.addresses + 2);
        const uint32_t id = 1 + below(4);
        const uint32_t xcid = one_of(xcids);
        const address mac = mac_address(number);
        EXPECT_EQ(where(l2fm_edm_table_mac_get_by_bridgeid_mac(id, mac.data())), where(ref.find_in_bd(id, number)));
        const l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(xcid);
        ref_port *p = ref.port(xcid);
        ASSERT_EQ(bp != nullptr, p != nullptr) << xcid;
        if (p != nullptr) {
            EXPECT_EQ(bp->bp_type, p->type);
            EXPECT_EQ(bp->bd == nullptr ? 0 : bp->bd->bridge_id, p->bd.value_or(0));
            EXPECT_EQ(where(l2fm_edm_table_mac_get_by_xcid_mac(xcid, mac.data())), p->macs.contains(number) ? xcid : 0);
            const auto next = p->macs.upper_bound(number);
            const l2fm_edm_mac_t *found = l2fm_edm_table_bp_macaddr_get_next(&bp->mac_tree, mac.data());
            EXPECT_EQ(found == nullptr ? 0 : found->mac_addr[4] << 8 | found->mac_addr[5],
                      next == p->macs.end() ? 0 : int(next->first));
        }
        compare_by_name(id, number);
    }

    void compare_by_name(uint32_t id, uint32_t number)
    {
        const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(id);
        ASSERT_EQ(bd != nullptr, ref.bds.contains(id));
        if (bd == nullptr) {
            return;
        }
        const char *name = ref.bds[id].c_str();
        EXPECT_EQ(l2fm_edm_table_bd_get_by_name(name), bd);
        const ref_mac *next = nullptr;
        bool has_vtep = false;
        for (ref_port *p : ref.ports_of(id)) {
            const auto candidate = p->macs.upper_bound(number);
            const bool better = candidate != p->macs.end() && (next == nullptr || candidate->first < next->number);
            next = better ? &*candidate->second : next;
            has_vtep = has_vtep || p->vteps.contains(number);
        }
        const address mac = mac_address(number);
        EXPECT_EQ(where(l2fm_edm_table_mac_get_by_bdname_mac(name, mac.data())), where(ref.find_in_bd(id, number)));
        EXPECT_EQ(where(l2fm_edm_table_mac_get_next_by_bdname_mac(name, mac.data())), where(next));
        EXPECT_EQ(l2fm_edm_table_vtep_get_by_bridgeid_vtep(id, vtep_address(number).data()) != nullptr, has_vtep);
    }
};

uint64_t number_from(const char *variable, uint64_t otherwise)
{
    const char *given = std::getenv(variable);
    return given == nullptr ? otherwise : std::strtoull(given, nullptr, 0);
}

void run_both(const shape &of, uint64_t seeds)
{
    const bool repeats = std::getenv("L2FIB_SEED") != nullptr;
    const uint64_t first_seed = number_from("L2FIB_SEED", std::random_device{}());
    const uint64_t operations = number_from("L2FIB_OPERATIONS", 200000);
    for (uint64_t seed = first_seed; seed < first_seed + (repeats ? 1 : seeds); seed++) {
        std::printf("L2FIB_SEED=%llu, %llu operations\n", static_cast<unsigned long long>(seed),
                    static_cast<unsigned long long>(operations));
        pair_of_tables both(seed, of);
        for (uint64_t number = 1; number <= operations; number++) {
            both.step(number);
            ASSERT_FALSE(testing::Test::HasFailure()) << "L2FIB_SEED=" << seed << ", operation " << number;
        }
    }
}

TEST(model, agrees_with_small_tables)
{
    run_both(small, 5);
}

TEST(model, agrees_with_large_tables)
{
    run_both(large, 2);
}

} // namespace
