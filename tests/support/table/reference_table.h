// SPDX-License-Identifier: Apache-2.0

// A naive reference for the table, and random operations on both.
//
// The reference gets each operation that the table gets, returns the status that is right, and holds what the table has
// to hold. L2FIB_SEED=<seed> repeats a seed that failed. L2FIB_OPERATIONS=<number> sets the operations for each seed.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <random>

#include "host/objects/l2fib_objects.h"
#include "tests/support/table/small_table.h"

namespace reference_table {

constexpr uint32_t unlimited = 1000000;
constexpr const char *pool_names[EDM_POOL_COUNT] = {"EDM-MAC Chunk", "EDM-MAC-PBB Chunk", "EDM-MAC-VNI Chunk",
                                                    "EDM-BP Chunk",  "EDM-BD Chunk",      "EDM-MAC Vtep DB Chunk"};
constexpr uint32_t xcids[] = {10, 20, 30, 40, 50, 60, 70};

struct ref_port;

struct ref_mac {
    uint32_t number, bridge_id, flags;
    uint32_t vtep;    // 0 for 0.0.0.0
    uint32_t counted; // the flags that the counters know
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

inline bool is_dummy(const ref_port &p)
{
    return p.xcid == EDM_XCID_DUMMY;
}

struct reference {
    // What the forwarding manager and the platform say.
    std::map<uint32_t, std::string> names = {{1, "g:c"}, {2, "g:b"}, {3, "g:a"}};
    std::map<uint32_t, uint32_t> segments = {{10, 2}, {20, 3}, {30, 5}, {40, 5}, {50, 4}, {60, 33}, {70, 99}};
    std::optional<uint32_t> limit = unlimited;
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

    static std::string stored(const std::string &name) { return name.size() > 60 ? "" : name; }

    uint32_t create_bd(uint32_t id)
    {
        if (!names.contains(id) || full[EDM_POOL_BD] || bds.contains(id)) {
            return no_resource;
        }
        const std::string name = stored(names[id]);
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
        list.push_back({r.number, r.bd, r.flags & ~0x80u, r.vtep, r.flags, p});
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
        if (of_bd && (mac->flags & 0x8) != 0) {
            return 0;
        }
        if (of_bd) {
            mac->flags = r.flags;
        } else {
            mac->flags = r.flags & ~0x80u;
            mac->vtep = (r.flags & 1) != 0 ? 0 : r.vtep; // under a backbone address, which is always 0
            see_vtep(p, r);
        }
        mac->counted = mac->flags;
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

// ---- The table and the reference, side by side ----

inline std::string number(uint64_t value)
{
    return std::to_string(value);
}

// Begins with an empty reference; that the table is empty and has the limit `unlimited` is up to the test.
class both_tables {
public:
    // Addresses are numbered from 1. Of `spread_of` operations 30 do not feed.
    both_tables(uint64_t seed, uint32_t address_count, uint32_t spread_of)
        : addresses(address_count)
        , random(seed)
        , spread(spread_of)
    {}

    // Makes one random operation.
    void operate()
    {
        const uint32_t kind = below(spread);
        const bool marks = kind < 16;
        const bool removes = kind < 23;
        const bool changes = kind < 30;
        marks ? mark_or_sweep_both() : removes ? remove_from_both() : changes ? change_surroundings() : feed_both();
    }

protected:
    reference ref;
    uint32_t addresses;

    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random() % bound); }

    template <typename Values>
    auto one_of(const Values &values)
    {
        return values[below(static_cast<uint32_t>(std::size(values)))];
    }

    uint32_t any_xcid()
    {
        constexpr uint32_t unusual[] = {0, 99, EDM_XCID_DUMMY};
        return below(20) == 0 ? one_of(unusual) : one_of(xcids);
    }

private:
    std::mt19937_64 random;
    uint32_t spread;

    static void expect(uint32_t status, const std::string &step) { EXPECT_EQ(small_table::run(step), status) << step; }

    report any_report()
    {
        constexpr uint32_t flags[] = {0,      0,   0x2,  0x4,  0x6,   0x1,   0x1000, 0x1000, 0x1001, 0x100,  0x2080,
                                      0x1004, 0x8, 0x20, 0x40, 0x200, 0x400, 0x21,   0xa0,   0x1020, 0x4000, 0x9000};
        return {1 + below(addresses), any_xcid(), 1 + below(4), one_of(flags), 1 + below(3)};
    }

    // Half of the batches do not ask for the statuses.
    void feed_batch_to_both()
    {
        std::vector<l2fib_mac_edm_entry_t> entries;
        std::vector<uint32_t> expected;
        uint32_t first_failure = 0;
        for (uint32_t count = below(100); count > 0; count--) {
            const report r = any_report();
            entries.push_back(small_table::entry(r.number, r.xcid, r.bd, r.flags, r.vtep));
            expected.push_back(ref.feed(r));
            first_failure = first_failure != 0 ? first_failure : expected.back();
        }
        std::vector<uint32_t> statuses(entries.size());
        const bool asks = below(2) == 0;
        EXPECT_EQ(l2fib_mac_edm_add_batch(entries.data(), entries.size(), asks ? statuses.data() : nullptr),
                  first_failure);
        EXPECT_EQ(statuses, asks ? expected : std::vector<uint32_t>(entries.size()));
    }

    void feed_both()
    {
        if (below(60) == 0) {
            feed_batch_to_both();
            return;
        }
        const report r = any_report();
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
        const std::string name = below(6) == 0
                                     ? std::string(61, 'n')
                                     : "g:" + std::string(1, char('a' + below(5))) + (below(4) == 0 ? ":x" : "");
        if (host::bridge_domain_set(id, name) == 0) {
            ref.names[id] = name;
        }
    }

    void fill_or_empty_pool(uint32_t pool)
    {
        ref.full[pool] = below(4) == 0;
        small_table::refuse_elements(pool_names[pool], ref.full[pool]);
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
            small_table::run("remove " + number(xcid));
            break;
        case 3:
            ref.limit = below(12) == 0 ? std::nullopt : std::optional(below(4) == 0 ? below(40) : unlimited);
            expect(0, ref.limit ? "limit " + number(*ref.limit) : "undefine");
            break;
        default: fill_or_empty_pool(below(EDM_POOL_COUNT));
        }
    }
};

inline uint64_t number_from(const char *variable, uint64_t otherwise)
{
    const char *given = std::getenv(variable);
    return given == nullptr ? otherwise : std::strtoull(given, nullptr, 0);
}

// The thread sanitizer slows down most what has one thread and nothing for it to find.
#ifdef __SANITIZE_THREAD__
constexpr uint64_t part_of_operations = 8;
#else
constexpr uint64_t part_of_operations = 1;
#endif

// Calls `step` on tables of each seed, with the number of the step, until something fails.
template <typename Tables>
void run_seeds(uint64_t seeds, uint64_t usual_operations)
{
    const bool repeats = std::getenv("L2FIB_SEED") != nullptr;
    const uint64_t first_seed = number_from("L2FIB_SEED", std::random_device{}());
    const uint64_t operations = number_from("L2FIB_OPERATIONS", usual_operations / part_of_operations);
    for (uint64_t seed = first_seed; seed < first_seed + (repeats ? 1 : seeds); seed++) {
        std::printf("L2FIB_SEED=%" PRIu64 ", %" PRIu64 " operations\n", seed, operations);
        Tables both(seed);
        for (uint64_t count = 1; count <= operations; count++) {
            both.step(count);
            ASSERT_FALSE(testing::Test::HasFailure()) << "L2FIB_SEED=" << seed << ", operation " << count;
        }
    }
}

} // namespace reference_table
