// SPDX-License-Identifier: Apache-2.0

// Events, moves and departures. Events replayed over an earlier state of the table have to give its present one,
// whatever happens to the plane. The kept records are compared with lists that keep everything.
#include <deque>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <malloc.h>

#include "forwarding/feeder/answers/history.h"
#include "forwarding/feeder/answers/reading.h"
#include "forwarding/feeder/history/change_log.h"
#include "forwarding/feeder/history/creation_times.h"
#include "l2fm_edm_table.h"
#include "tests/support/plane/scripted_plane.h"

namespace {

using namespace forwarding;
using namespace test;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using namespace std::chrono_literals;

// ---- Replayed over a state ----

// An entry of the table: one for each address of a bridge domain, and one flood list for each port.
using entry_name = std::tuple<uint16_t, mac_address, uint32_t>;
// What a row shows of it: xcid, VTEP, VNI, flags.
using shown_entry = std::tuple<uint32_t, std::array<uint8_t, 4>, uint32_t, uint16_t>;
using state = std::map<entry_name, shown_entry>;

entry_name name_of(uint16_t bridge_id, const mac_address &mac, uint32_t xcid)
{
    return {bridge_id, mac, mac == mac_address{} ? xcid : 0};
}

shown_entry shown(const mac_address &mac, uint32_t xcid, std::array<uint8_t, 4> vtep, uint32_t vni, uint16_t flags)
{
    return mac == mac_address{} ? shown_entry{xcid, {}, 0, uint16_t{0}}
                                : shown_entry{xcid, vtep, vni, flags & ~EDM_MAC_TIMESTAMP_VALID};
}

state state_now()
{
    state now;
    for (const mac_row &row : read_rows({}, {}, 100'000).rows) {
        now[name_of(row.bridge_id, row.mac, row.xcid)] = shown(row.mac, row.xcid, row.vtep, row.vni, row.flags);
    }
    return now;
}

// Applies one event, which has to fit the state.
void apply(const change_event &event, state &to)
{
    if (event.kind == change_kind::lost) {
        return;
    }
    const entry_name name = name_of(event.place->bridge_id, event.mac, event.place->xcid);
    const auto held = to.find(name);
    const bool is_new = event.kind == change_kind::learned;
    ASSERT_EQ(held == to.end(), is_new) << text_of(event.kind) << " " << event.number;
    ASSERT_EQ(event.before != nullptr, event.kind == change_kind::moved || event.kind == change_kind::changed);
    const place_view &was = event.before != nullptr ? *event.before : *event.place;
    if (!is_new && event.mac != mac_address{}) {
        EXPECT_EQ(std::get<0>(held->second), was.xcid);
        EXPECT_EQ(std::get<1>(held->second), was.vtep);
        EXPECT_EQ(std::get<2>(held->second), was.vni);
    }
    if (event.kind == change_kind::aged || event.kind == change_kind::removed) {
        to.erase(held);
        return;
    }
    const bool is_elsewhere = was.xcid != event.place->xcid || was.vtep != event.place->vtep;
    EXPECT_TRUE(event.kind != change_kind::moved || is_elsewhere);
    to[name] = shown(event.mac, event.place->xcid, event.place->vtep, event.place->vni, event.flags);
}

struct replay : changing_module {
    void expect_replayed()
    {
        for (event_batch batch = read_events(next, 100); !batch.events.empty(); batch = read_events(next, 100)) {
            EXPECT_EQ(batch.missed, 0u);
            for (const change_event &event : batch.events) {
                ASSERT_EQ(event.number, next++);
                apply(event, held);
            }
        }
        const state now = state_now();
        std::vector<std::pair<entry_name, shown_entry>> differences;
        std::ranges::set_symmetric_difference(held, now, std::back_inserter(differences));
        EXPECT_THAT(differences, IsEmpty());
    }

    state held;
    uint64_t next = 1;
};

TEST_F(replay, GivesTheTableOfEachMoment)
{
    for (const uint32_t limit : {2'000'000u, 60u}) {
        restart({.mac_limit = limit}, limit == 60);
        add_external_device();
        resync();
        held = state_now();
        next = newest_event() + 1;
        for (uint32_t round = 0; round < 150; round++) {
            SCOPED_TRACE(std::to_string(limit) + ", round " + std::to_string(round));
            change_for_a_round(round);
            expect_replayed();
            ASSERT_FALSE(HasFailure());
        }
        std::map<change_kind, uint32_t> kinds;
        for (const change_event &event : read_events(1, 256).events) {
            kinds[event.kind]++;
        }
        EXPECT_GE(kinds.size(), 4u);
        uint64_t entries = 0;
        uint64_t changes = 0;
        for (const port_view &port : ports()) {
            const object_activity activity = port_activity({{port.xcid}}).at(0);
            EXPECT_EQ(
                activity.entries,
                std::ranges::count_if(held, [&](const auto &each) { return std::get<0>(each.second) == port.xcid; }))
                << port.name;
        }
        for (const domain_view &domain : domains()) {
            const object_activity activity = domain_activity({{domain.bridge_id}}).at(0);
            entries += activity.entries;
            changes += activity.changes;
        }
        EXPECT_EQ(entries, held.size());
        EXPECT_GT(changes, 0u);
    }
}

} // namespace
