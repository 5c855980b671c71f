// SPDX-License-Identifier: Apache-2.0

// The module on a plane that the test scripts: what a kernel would hold, reported or lost as the test wants, and random
// changes of every kind. The test works on the plane from the cache thread:
//
//      struct my_case : test::started_module {};
//      TEST_F(my_case, Learns)
//      {
//          on_cache([&] { it->set(on_bridge(br0, p0, mac(1))); });
//          resync();
//          ...
//      }
#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "forwarding/plane.h"
#include "forwarding/running.h"
#include "host/event/event_host.h"
#include "l2fib_mac_edm.h"

namespace test {

using namespace forwarding;

// ---- Records ----

inline mac_address mac(uint32_t number)
{
    return {2,
            0,
            static_cast<uint8_t>(number >> 24),
            static_cast<uint8_t>(number >> 16),
            static_cast<uint8_t>(number >> 8),
            static_cast<uint8_t>(number)};
}

inline link_record link(uint32_t ifindex, const char *name, link_kind kind, uint32_t master = 0, uint32_t vni = 0)
{
    return {ifindex, master, name, kind, false, false, vni, true, {}, 300'000};
}

inline fdb_record on_bridge(uint32_t bridge, uint32_t port, mac_address address, uint8_t state = fdb_reachable,
                            uint16_t vlan = 0)
{
    fdb_record record;
    record.ifindex = port;
    record.master = bridge;
    record.mac = address;
    record.state = state;
    record.vlan = vlan;
    return record;
}

inline fdb_destination vtep(uint8_t number)
{
    return {destination_kind::ipv4, {10, 0, 0, number}, 0};
}

inline fdb_record of_device(uint32_t device, mac_address address, fdb_destination destination,
                            uint8_t state = fdb_reachable)
{
    fdb_record record;
    record.ifindex = device;
    record.self = true;
    record.mac = address;
    record.state = state;
    record.destination = destination;
    return record;
}

inline fdb_record with(fdb_record record, uint8_t flags, uint16_t edm_flags = 0, int64_t updated_ms = 0)
{
    record.flags = flags;
    record.edm_flags = edm_flags;
    record.updated_ms = updated_ms;
    return record;
}

// ---- The plane ----

// Runs `work` on the cache thread and waits for it.
template <typename Work>
void on_cache(Work work)
{
    struct posted {
        Work work;
        std::promise<void> done;
    } what{work, {}};
    const auto run = [](void *cookie) {
        auto *posted_work = static_cast<posted *>(cookie);
        posted_work->work();
        posted_work->done.set_value();
    };
    ASSERT_EQ(host::event_post(host::event_manager_find(EDM_CACHE_THREAD_PATH), run, nullptr, &what), 0u);
    what.done.get_future().wait();
}

// What a kernel would hold. Reports each change, unless the test has it lost.
struct scripted : plane {
    const char *kind() const override { return "scripted"; }
    base::result start(event_manager_t *, sink &sink_of_shadow_table) override
    {
        to = &sink_of_shadow_table;
        list(starts_clean);
        return base::success();
    }
    void drain() override
    {
        if (before_drain) {
            before_drain();
        }
    }
    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) override
    {
        for (size_t at = 0; at < keys.size(); at++) {
            const auto found = holds.find(keys[at]);
            answers[at] = {found == holds.end() ? fdb_presence::absent : fdb_presence::present, {}};
            if (found != holds.end()) {
                answers[at].record = found->second;
            }
            const bool is_mute =
                mute || (mute_of_lists && keys[at].mac == mac_address{}) || (mute_keys != 0 && mute_keys-- != 0);
            answers[at].presence = is_mute ? fdb_presence::unknown : answers[at].presence;
        }
        asked += keys.size();
        if (const auto meanwhile = std::exchange(after_query, nullptr)) {
            meanwhile();
        }
    }
    plane_health health() const override { return {.clean = clean, .full_dumps = 1}; }
    bool ages_silently() const override { return silent; }
    void request_full_dump() override
    {
        relisted++;
        clean = false;
    }
    void stop() override {}

    void list(bool is_clean)
    {
        to->full_dump_begun();
        for (const auto &[ifindex, record] : links) {
            to->link_changed(record);
        }
        for (const auto &[key, record] : holds) {
            to->fdb_dumped(record);
        }
        clean = clean || is_clean; // a proof that ends unclean says nothing
        to->full_dump_ended(is_clean);
    }
    void set(const link_record &record)
    {
        links[record.ifindex] = record;
        to->link_changed(record);
    }
    void set(const fdb_record &record, bool reports = true)
    {
        holds[key_of(record)] = record;
        if (reports) {
            to->fdb_changed(record);
        }
    }
    void drop(const fdb_record &record, bool reports = true)
    {
        holds.erase(key_of(record));
        if (reports) {
            to->fdb_gone(record);
        }
    }

    std::map<uint32_t, link_record> links;
    std::map<fdb_key, fdb_record> holds;
    sink *to = nullptr;
    bool mute = false;
    bool mute_of_lists = false;
    size_t mute_keys = 0;                            // answers that it does not know next
    std::function<void()> before_drain, after_query; // the latter is called once
    bool silent = false;
    bool starts_clean = true; // the first full dump
    std::atomic<bool> clean{false};
    std::atomic<size_t> asked{0};
    std::atomic<size_t> relisted{0};
};

// ---- The module ----

constexpr uint32_t br0 = 1, br1 = 2, p0 = 10, p1 = 11, p2 = 12, vx0 = 20, vx1 = 21, vx2 = 22, vx3 = 23;

// The module on a scripted plane with two bridges, three ports and three VXLAN devices.
struct started_module : testing::Test {
    started_module() { begin({}, false); }
    ~started_module() override
    {
        const release_report report = stop();
        EXPECT_TRUE(report.orderly) << report.text;
    }

    void begin(forwarding::options options, bool is_silent)
    {
        auto owned = std::make_unique<scripted>();
        it = owned.get();
        it->silent = is_silent;
        for (const link_record &each :
             {link(p0, "p0", link_kind::other, br0), link(p1, "p1", link_kind::other, br0),
              link(p2, "p2", link_kind::other, br1), link(br0, "br0", link_kind::bridge),
              link(br1, "br1", link_kind::bridge), link(vx0, "vx0", link_kind::vxlan, br0, 100),
              link(vx1, "vx1", link_kind::vxlan, br1, 101), link(vx2, "vx2", link_kind::vxlan, br0, 102)}) {
            it->links[each.ifindex] = each;
        }
        options.group = "lab";
        options.resync_wait_seconds = 20;
        EXPECT_EQ(start_on(std::move(owned), options).text, "");
    }
    void restart(const forwarding::options &options, bool is_silent)
    {
        EXPECT_TRUE(stop().orderly);
        begin(options, is_silent);
    }

    uint32_t id_of(const std::string &name) const
    {
        for (const domain_view &each : domains()) {
            if (each.name == name) {
                return each.bridge_id;
            }
        }
        return 0;
    }
    uint32_t xcid_of(const std::string &name) const
    {
        for (const port_view &each : ports()) {
            if (each.name == name) {
                return each.xcid;
            }
        }
        return 0;
    }
    void resync(uint32_t type = EDM_RESYNC_ALL, uint32_t arg = 0)
    {
        ASSERT_EQ(l2fib_mac_edm_thread_send_resync(type, arg, nullptr), 0u);
    }
    scripted *it;
};

// ---- Random changes ----

// Of an entry that the tests make: one for each address.
inline uint32_t source_vni(const link_record &device, const mac_address &address)
{
    return device.external ? 500U + address[5] % 3 : 0;
}

struct changing_module : started_module {
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random() % bound); }

    void change_entry(bool is_reported)
    {
        constexpr uint32_t devices[] = {p0, p1, p2, vx0, vx1, vx2, vx3, br1};
        const link_record &port = it->links.at(devices[below(std::size(devices))]);
        const mac_address address = mac(below(40));
        const bool is_own = port.kind == link_kind::bridge;
        const bool is_tunnel = port.kind == link_kind::vxlan;
        if (is_tunnel && below(2) == 0) {
            fdb_destination to{below(6) == 0 ? destination_kind::ipv6 : destination_kind::ipv4,
                               {10, 0, 0, static_cast<uint8_t>(1 + below(5))},
                               0,
                               below(3) == 0 ? 900 + below(2) : 0};
            fdb_record own = of_device(port.ifindex, below(3) == 0 ? mac_address{} : address, to);
            own.source_vni = port.external && own.mac == mac_address{} ? 500 + below(3) : source_vni(port, address);
            below(3) != 0 ? it->set(own, is_reported) : it->drop(own, is_reported);
            return;
        }
        const uint8_t states[] = {fdb_reachable, fdb_stale, fdb_noarp};
        const fdb_record record =
            on_bridge(is_own ? port.ifindex : port.master, port.ifindex, address,
                      is_own ? fdb_permanent : states[below(3)], !is_own && !is_tunnel && below(8) == 0 ? 5 : 0);
        if (below(10) < 6) {
            it->set(with(record, 0, 0, below(4) == 0 ? 0 : 1'000'000 - below(1000)), is_reported);
        } else if (const auto held = it->holds.find(key_of(record)); held != it->holds.end()) {
            it->drop(fdb_record(held->second), is_reported);
        }
    }

    // Deletes a bridge, which frees its ports, and makes it again. The ports leave their entries behind.
    void replace_bridge(const link_record &bridge)
    {
        std::erase_if(it->holds, [&](const auto &each) {
            return each.second.master == bridge.ifindex || it->links.at(each.second.ifindex).master == bridge.ifindex;
        });
        std::vector<link_record> ports;
        for (const auto &[ifindex, port] : it->links) {
            if (port.master == bridge.ifindex) {
                ports.push_back(port);
                link_record freed = port;
                freed.master = 0;
                it->to->link_changed(freed);
            }
        }
        it->to->link_gone(bridge.ifindex);
        it->set(bridge);
        for (const link_record &port : ports) {
            it->set(port);
        }
    }

    // A device that goes or moves leaves its entries behind.
    void change_link()
    {
        constexpr uint32_t devices[] = {br0, br1, p1, p2, vx0, vx2, vx3};
        link_record changed = it->links.at(devices[below(std::size(devices))]);
        if (changed.kind == link_kind::bridge) {
            changed.name = (changed.ifindex == br0 ? "br0" : "br1") + std::string(below(2), 'x');
            below(3) == 0 ? replace_bridge(changed) : it->set(changed);
            return;
        }
        std::erase_if(it->holds, [&](const auto &each) { return each.second.ifindex == changed.ifindex; });
        it->to->link_gone(changed.ifindex);
        changed.master = below(2) == 0 ? br0 : br1;
        changed.vni = changed.vni != 0 ? 100 + below(9) : 0;
        it->set(changed);
    }

    void settle_later()
    {
        std::promise<void> settled;
        const auto wait = [](void *cookie) { static_cast<std::promise<void> *>(cookie)->set_value(); };
        uint32_t timer = 0;
        host::event_timer_attach(host::event_manager_find(EDM_CACHE_THREAD_PATH), 60'000'000, 0, wait, &settled,
                                 &timer);
        settled.get_future().wait();
    }

    void add_external_device()
    {
        on_cache([&] {
            it->set(link(vx3, "vx3", link_kind::vxlan, br1));
            it->links.at(vx3).external = true;
            it->set(link_record(it->links.at(vx3)));
        });
    }

    // Makes 60 changes and has the table brought up to date. In each fifth round half of the changes are lost.
    void change_for_a_round(uint32_t round)
    {
        const bool is_degraded = round % 5 == 4;
        on_cache([&] {
            it->clean = !is_degraded;
            is_degraded ? it->to->changes_lost(1) : void();
            for (uint32_t step = 0; step < 60; step++) {
                !is_degraded &&below(30) == 0 ? change_link() : change_entry(!is_degraded || below(2) == 0);
            }
        });
        resync(EDM_RESYNC_BD, id_of("lab:" + it->links.at(br0).name));
        if (is_degraded) {
            on_cache([&] { it->list(true); });
            on_cache([] {}); // behind the questions
        }
        round % 10 == 0 ? settle_later() : resync();
    }

    std::mt19937 random{7};
};

} // namespace test
