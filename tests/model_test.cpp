// The table against a naive reference: the same random operations go to both, and both give the same answers.
//
// After each operation: its status, the counters, and the lookups of one random key in every way. At the strides of the
// table's shape: the whole table as text, which has the order of all walks, and the audit. A seed that failed is
// repeated by L2FIB_SEED=<seed>; L2FIB_OPERATIONS=<number> sets how many operations are made with each seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <random>

#include "host/chunk_statistics.h"
#include "host/l2fib_objects.h"
#include "tests/support/small_table.h"
#include "tests/support/table_audit.h"

using namespace small_table;

namespace {

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
    std::map<uint32_t, ref_list::iterator> macs = {};
    std::map<uint32_t, bool> vteps = {}; // and whether they are marked
};
using chosen = std::function<bool(const ref_port &)>;

struct report {
    uint32_t number, xcid, bd, flags, vtep;
};

constexpr uint32_t invalid = EDM_ERR_INVALID_ARGS;
constexpr uint32_t no_resource = EDM_ERR_NO_RESOURCE;

bool is_dummy(const ref_port &p)
{
    return p.xcid == EDM_XCID_DUMMY;
}

struct reference {
    // What the forwarding manager and the platform say.
    std::map<uint32_t, std::string> names = {{1, "g:c"}, {2, "g:b"}, {3, "g:a"}};
    std::map<uint32_t, uint32_t> segments = {{10, 2}, {20, 3}, {30, 5}, {40, 5}, {50, 4}, {60, 33}, {70, 99}};
    std::optional<uint32_t> limit;
    bool full[EDM_POOL_COUNT] = {};
    // The table.
    std::map<uint32_t, std::string> bds;
    std::list<ref_port> ports;
    ref_list list;

    ref_port *find_port(const chosen &is)
    {
        const auto at = std::find_if(ports.begin(), ports.end(), is);
        return at == ports.end() ? nullptr : &*at;
    }
    ref_port *port(uint32_t xcid)
    {
        return find_port([=](const ref_port &p) { return p.xcid == xcid && !is_dummy(p); });
    }

    // The ports of a bridge domain, by xcid.
    std::vector<ref_port *> ports_of(std::optional<uint32_t> bd)
    {
        std::vector<ref_port *> found;
        for (ref_port &p : ports) {
            if (p.bd == bd) {
                found.push_back(&p);
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
        if (!bds.contains(r.bd) && create_bd(r.bd) != 0) {
            return no_resource;
        }
        ref_port *p = (r.flags & 0x0668) != 0 ? dummy_of(r.bd) : ordinary(r);
        if (p == nullptr) {
            return no_resource;
        }
        ref_mac *known = p->macs.contains(r.number) ? &*p->macs[r.number] : find_in_bd(r.bd, r.number);
        return known == nullptr ? create(p, r) : update(p, known, r);
    }

    uint32_t create_bd(uint32_t id)
    {
        if (!names.contains(id) || full[EDM_POOL_BD] || bds.contains(id)) {
            return no_resource;
        }
        const std::string name = names[id].size() > 60 ? "" : names[id];
        const bool taken = std::any_of(bds.begin(), bds.end(), [&](auto &bd) { return bd.second == name; });
        return !taken && bds.emplace(id, name).second ? 0 : no_resource;
    }

    uint32_t update_port(ref_port *p, uint32_t bd)
    {
        if (p == nullptr || (p->pending && !p->bd)) {
            return invalid;
        }
        if (p->pending && p->bd == bd && !fill(p)) {
            return no_resource;
        }
        if (p->pending && p->bd != bd) {
            p->bd = bds.contains(bd) ? std::optional(bd) : std::nullopt;
        }
        p->pending = p->pending && !p->bd;
        return p->pending ? invalid : 0;
    }

    uint32_t mark(const chosen &ports_of_macs, const chosen &ports_of_vteps)
    {
        for (ref_port &p : ports) {
            if (ports_of_macs(p)) {
                std::for_each(p.macs.begin(), p.macs.end(), [](auto &mac) { mac.second->flags |= 0x80; });
                p.pending = p.pending || !p.macs.empty();
            }
            std::for_each(p.vteps.begin(), p.vteps.end(), [&](auto &vtep) { vtep.second |= ports_of_vteps(p); });
        }
        return 0;
    }

    uint32_t sweep(const chosen &ports_of_macs, const chosen &ports_of_vteps)
    {
        for (auto at = list.begin(); at != list.end();) {
            ref_mac &mac = *at++;
            if (ports_of_macs(*mac.port) && (mac.flags & 0x80) != 0) {
                destroy(&mac);
            }
        }
        for (ref_port &p : ports) {
            std::erase_if(p.vteps, [&](const auto &vtep) { return vtep.second && ports_of_vteps(p); });
        }
        return 0;
    }

    uint32_t destroy_bd(uint32_t id)
    {
        bds.erase(id);
        return destroy_ports([=](const ref_port &p) { return p.bd == id; });
    }

    uint32_t destroy_ports(const chosen &which)
    {
        for (ref_port &p : ports) {
            while (which(p) && !p.macs.empty()) {
                destroy(&*p.macs.begin()->second);
            }
        }
        ports.remove_if(which);
        return 0;
    }

    uint32_t evict()
    {
        if (list.empty()) {
            return EDM_ERR_NOT_FOUND;
        }
        destroy(&list.back());
        return 0;
    }

    ref_port *dummy_of(uint32_t bd)
    {
        ref_port *p = find_port([=](const ref_port &each) { return is_dummy(each) && each.bd == bd; });
        return p != nullptr || full[EDM_POOL_BP] ? p : &ports.emplace_back(ref_port{EDM_XCID_DUMMY, bd});
    }

    ref_port *ordinary(const report &r)
    {
        ref_port *p = port(r.xcid);
        if (p != nullptr) {
            return update_port(p, r.bd) == 0 ? p : nullptr;
        }
        if (full[EDM_POOL_BP] || !segments.contains(r.xcid)) {
            return nullptr;
        }
        p = &ports.emplace_back(ref_port{r.xcid, r.bd});
        fill(p);
        return p;
    }

    bool fill(ref_port *p)
    {
        static const std::map<uint32_t, uint32_t> types = {{2, 1}, {3, 2}, {4, 3}, {5, 4}, {33, 5}};
        if (!segments.contains(p->xcid)) {
            return false;
        }
        const auto type = types.find(segments[p->xcid]);
        p->type = type == types.end() ? p->type : type->second;
        if (p->type != 4) {
            p->vteps.clear();
        }
        return true;
    }

    uint32_t create(ref_port *p, const report &r)
    {
        const uint32_t pool = (r.flags & 1) != 0 ? EDM_POOL_MAC_PBB : (r.flags & 0x1000) != 0 ? EDM_POOL_MAC_VNI : 0;
        if (!limit || (list.size() >= *limit && evict() != 0) || full[pool]) {
            return no_resource;
        }
        list.push_back({r.number, r.bd, r.flags & ~0x80u, p});
        p->macs[r.number] = std::prev(list.end());
        see_vtep(p, r);
        return 0;
    }

    void see_vtep(ref_port *p, const report &r)
    {
        if ((r.flags & 0x1000) != 0 && p->type == 4 && (p->vteps.contains(r.vtep) || !full[EDM_POOL_VTEP])) {
            p->vteps[r.vtep] = false;
        }
    }

    uint32_t update(ref_port *p, ref_mac *mac, const report &r)
    {
        const bool of_bd = (r.flags & 0x68) != 0;
        const bool other_variant = ((mac->flags ^ r.flags) & 0x1001) != 0;
        if (!other_variant && of_bd && (!is_dummy(*mac->port) || !is_dummy(*p))) {
            return EDM_ERR_STOPPED;
        }
        const bool moved = !of_bd && (mac->bridge_id != r.bd) != (mac->port->xcid != r.xcid);
        if (other_variant || moved || (of_bd && (r.flags & 0x8) != 0)) {
            destroy(mac);
            return create(p, r);
        }
        if (of_bd) {
            mac->flags = (mac->flags & 0x8) != 0 ? mac->flags : r.flags;
        } else {
            mac->flags = r.flags & ~0x80u;
            see_vtep(p, r);
        }
        return 0;
    }

    void destroy(ref_mac *mac)
    {
        const auto held = mac->port->macs.find(mac->number);
        const ref_list::iterator listed = held->second;
        mac->port->macs.erase(held);
        list.erase(listed);
    }
};

// ---- The reference in the form of table_text() ----

std::string number(uint64_t value)
{
    return std::to_string(value);
}

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
    uint32_t spread; // of so many operations, 30 do not feed
    uint32_t text_stride;
    uint32_t audit_stride;
};

constexpr shape small = {24, 150, 4, 16};
constexpr shape large = {20000, 40000, 20000, 10000};

constexpr uint32_t unlimited = 1000000;
constexpr uint32_t xcids[] = {10, 20, 30, 40, 50, 60, 70};

class pair_of_tables {
public:
    pair_of_tables(uint64_t seed, const shape &of)
        : random(seed)
        , form(of)
    {
        start();
        limit = unlimited;
        ref.limit = unlimited;
    }
    ~pair_of_tables() { stop(); }
    pair_of_tables(const pair_of_tables &) = delete;
    pair_of_tables &operator=(const pair_of_tables &) = delete;

    void step(uint64_t count)
    {
        const uint32_t kind = below(form.spread);
        const bool marks = kind < 16;
        const bool removes = kind < 23;
        const bool changes = kind < 30;
        marks ? mark_or_sweep_both() : removes ? remove_from_both() : changes ? change_surroundings() : feed_both();
        compare_counters();
        compare_lookups(below(form.addresses + 2), 1 + below(4), one_of(xcids));
        if (count % form.text_stride == 0) {
            EXPECT_EQ(table_text(), text(ref));
        }
        if (count % form.audit_stride == 0) {
            EXPECT_EQ(audit_table(), "");
        }
    }

private:
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

    static void expect(uint32_t status, const std::string &step) { EXPECT_EQ(run(step), status) << step; }

    void feed_both()
    {
        constexpr uint32_t flags[] = {0,      0,      0x2, 0x4,  0x6,  0x1,   0x1000, 0x1000, 0x1001, 0x100,
                                      0x2080, 0x1004, 0x8, 0x20, 0x40, 0x200, 0x400,  0x21,   0xa0,   0x1020};
        const report r = {1 + below(form.addresses), any_xcid(), 1 + below(4), one_of(flags), 1 + below(3)};
        expect(ref.feed(r), number(r.number) + " " + number(r.xcid) + " " + number(r.bd) + " " + number(r.flags) + " "
                                + number(r.vtep));
    }

    void mark_or_sweep_both()
    {
        const uint32_t xcid = any_xcid();
        const uint32_t id = 1 + below(4);
        std::string scope;
        chosen macs = [](const ref_port &) { return true; };
        chosen vteps = [](const ref_port &p) { return p.bd.has_value(); };
        if (const uint32_t kind = below(6); kind > 2) {
            scope = " bp " + number(xcid);
            macs = vteps = [=](const ref_port &p) { return p.xcid == xcid && !is_dummy(p); };
        } else if (kind > 0) {
            scope = " bd " + number(id | 0x50000);
            macs = vteps = [=](const ref_port &p) { return p.bd == id; };
        }
        if (below(2) == 0) {
            expect(ref.mark(macs, vteps), "mark" + scope);
        } else {
            expect(ref.sweep(macs, vteps), "sweep" + scope);
        }
    }

    void remove_from_both()
    {
        const uint32_t xcid = one_of(xcids);
        const uint32_t id = 1 + below(4);
        switch (below(5)) {
        case 0: expect(ref.destroy_bd(id), "destroy bd " + number(id)); break;
        case 1:
            expect(ref.destroy_ports([=](const ref_port &p) { return p.xcid == xcid; }), "destroy bp " + number(xcid));
            break;
        case 2: expect(ref.create_bd(id), "create bd " + number(id)); break;
        case 3: expect(ref.update_port(ref.port(xcid), 1000), "update " + number(xcid) + " 1000"); break;
        default: expect(ref.evict(), "evict");
        }
    }

    void rename(uint32_t id)
    {
        const std::string name = below(6) == 0 ? std::string(61, 'n') : "g:" + std::string(1, char('a' + below(5)));
        if (host::bridge_domain_set(id, name) == 0) {
            ref.names[id] = name;
        }
    }

    void fill_or_empty_pool(uint32_t pool)
    {
        const char *const names[EDM_POOL_COUNT] = {"EDM-MAC Chunk", "EDM-MAC-PBB Chunk", "EDM-MAC-VNI Chunk",
                                                   "EDM-BP Chunk",  "EDM-BD Chunk",      "EDM-MAC Vtep DB Chunk"};
        ref.full[pool] = below(4) == 0;
        EXPECT_TRUE(host::chunk_set_limit(host::chunk_find(names[pool]), ref.full[pool] ? 0 : UINT64_MAX));
    }

    void change_surroundings()
    {
        constexpr uint32_t segments[] = {2, 3, 4, 5, 5, 33, 99};
        const uint32_t xcid = one_of(xcids);
        switch (below(5)) {
        case 0: rename(1 + below(3)); break;
        case 1:
            ref.segments[xcid] = one_of(segments);
            expect(0, "kind " + number(xcid) + " " + number(ref.segments[xcid]));
            break;
        case 2:
            ref.segments.erase(xcid);
            run("remove " + number(xcid));
            break;
        case 3:
            ref.limit = below(12) == 0 ? std::nullopt : std::optional(below(4) == 0 ? below(40) : unlimited);
            expect(0, ref.limit ? "limit " + number(*ref.limit) : "undefine");
            break;
        default: fill_or_empty_pool(below(EDM_POOL_COUNT));
        }
    }

    void compare_counters() const
    {
        const l2fm_edm_mac_pool_t *counters = l2fm_edm_table_mac_get_pool();
        EXPECT_EQ(counters->mac_cnt_total, ref.list.size());
        EXPECT_EQ(counters->bd_cnt, ref.bds.size());
        EXPECT_EQ(counters->bp_cnt, ref.ports.size());
    }

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
        std::printf("L2FIB_SEED=%" PRIu64 ", %" PRIu64 " operations\n", seed, operations);
        pair_of_tables both(seed, of);
        for (uint64_t count = 1; count <= operations; count++) {
            both.step(count);
            ASSERT_FALSE(testing::Test::HasFailure()) << "L2FIB_SEED=" << seed << ", operation " << count;
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
