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
using testing::ElementsAreArray;
using testing::IsEmpty;
using namespace std::chrono_literals;

// ---- Replayed over a state ----

// An entry of the table: one for each address of a bridge domain, and one flood list for each port.
using entry_name = std::tuple<uint16_t, mac_address, uint32_t>;
// What a row shows of it: xcid, VTEP, VNI, flags.
using shown_entry = std::tuple<uint32_t, std::array<uint8_t, 4>, uint32_t, uint16_t>;
using table_state = std::map<entry_name, shown_entry>;

entry_name name_of(uint16_t bridge_id, const mac_address &mac, uint32_t xcid)
{
    return {bridge_id, mac, mac == mac_address{} ? xcid : 0};
}

shown_entry shown(const mac_address &mac, uint32_t xcid, std::array<uint8_t, 4> vtep, uint32_t vni, uint16_t flags)
{
    return mac == mac_address{} ? shown_entry{xcid, {}, 0, uint16_t{0}}
                                : shown_entry{xcid, vtep, vni, flags & ~EDM_MAC_TIMESTAMP_VALID};
}

table_state state_now()
{
    table_state now;
    for (const mac_row &row : read_rows({}, {}, 100'000).rows) {
        now[name_of(row.bridge_id, row.mac, row.xcid)] = shown(row.mac, row.xcid, row.vtep, row.vni, row.flags);
    }
    return now;
}

// Applies one event, which has to fit the state.
void apply(const change_event &event, table_state &to)
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
        const table_state now = state_now();
        std::vector<std::pair<entry_name, shown_entry>> differences;
        std::ranges::set_symmetric_difference(held, now, std::back_inserter(differences));
        EXPECT_THAT(differences, IsEmpty());
    }

    table_state held;
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

// ---- Single cases ----

std::string mac_number(const mac_address &address)
{
    return address == mac_address{} ? "flood" : std::to_string(address.back());
}

// Such as "moved 1 lab:br0 p0>p1", "learned 3 lab:br0 vx0/3" with the last byte of the VTEP.
std::string line(const change_event &event)
{
    if (event.kind == change_kind::lost) {
        return "lost " + std::to_string(event.lost);
    }
    const auto port = [](const place_view &at) {
        return (at.port.empty() ? "own" : at.port) + (at.vtep[3] != 0 ? "/" + std::to_string(at.vtep[3]) : "");
    };
    return std::string(text_of(event.kind)) + " " + mac_number(event.mac) + " " + event.place->domain + " "
           + (event.kind == change_kind::moved ? port(*event.before) + ">" : "") + port(*event.place)
           + (event.by_limit ? " by limit" : "");
}

struct events : started_module {
    // What has happened since the call before.
    std::vector<std::string> lines_now()
    {
        resync();
        std::vector<std::string> lines;
        const event_batch batch = read_events(next, 256);
        std::ranges::transform(batch.events, std::back_inserter(lines), line);
        next = batch.next;
        return lines;
    }
    // After each list of steps comes what they make.
    template <typename Steps>
    void expect(const char *name, const std::vector<std::string> &expected, Steps steps)
    {
        SCOPED_TRACE(name);
        on_cache(steps);
        EXPECT_THAT(lines_now(), ElementsAreArray(expected));
    }
    void learn(uint32_t number, uint32_t port, uint8_t state = fdb_reachable)
    {
        it->set(on_bridge(br0, port, mac(number), state));
    }
    void reach(uint32_t number, uint8_t end) { it->set(of_device(vx0, mac(number), vtep(end))); }

    uint64_t next = 1;
};

int64_t steady_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

TEST_F(events, SayWhatTheTableDid)
{
    resync();
    expect("learned", {"learned 1 lab:br0 p0"}, [&] { learn(1, p0); });
    expect("moved", {"moved 1 lab:br0 p0>p1"}, [&] { learn(1, p1); });
    expect("static", {"changed 1 lab:br0 p1"}, [&] { learn(1, p1, fdb_noarp); });
    expect("only an age", {}, [&] { it->set(with(on_bridge(br0, p1, mac(1), fdb_noarp), 0, 0, 1000)); });
    expect("back within a batch", {}, [&] {
        it->drop(on_bridge(br0, p1, mac(1)));
        learn(1, p1, fdb_noarp);
    });
    expect("elsewhere within a batch", {"moved 1 lab:br0 p1>p0"}, [&] {
        it->drop(on_bridge(br0, p1, mac(1)));
        learn(1, p0, fdb_noarp);
    });
    expect("a device's own entry alone", {}, [&] { reach(3, 3); });
    expect("both of a joined entry", {"learned 3 lab:br0 vx0/3"}, [&] { learn(3, vx0); });
    expect("another VTEP", {"moved 3 lab:br0 vx0/3>vx0/4"}, [&] { reach(3, 4); });
    expect("no VTEP", {"changed 3 lab:br0 vx0"}, [&] { it->drop(of_device(vx0, mac(3), vtep(4))); });
    expect("a VTEP again", {"changed 3 lab:br0 vx0/4"}, [&] { reach(3, 4); });
    expect("a flood list", {"learned flood lab:br0 vx0/8"}, [&] {
        it->set(of_device(vx0, {}, vtep(8), fdb_permanent));
        it->set(of_device(vx0, {}, vtep(9), fdb_permanent));
    });
    expect("one destination of two", {}, [&] { it->drop(of_device(vx0, {}, vtep(8), fdb_permanent)); });
    expect("the other one", {"removed flood lab:br0 vx0/9"},
           [&] { it->drop(of_device(vx0, {}, vtep(9), fdb_permanent)); });
    expect("a rename", {}, [&] {
        it->set(link(br0, "core", link_kind::bridge));
        it->set(link(p0, "first", link_kind::other, br0));
    });
    expect("names after it", {"moved 1 lab:core first>p1"}, [&] { learn(1, p1, fdb_noarp); });
    expect("a port that goes", {"removed 1 lab:core p1"}, [&] { it->to->link_gone(p1); });
    expect("a bridge that goes", {"removed 3 lab:core vx0/4"}, [&] { it->to->link_gone(br0); });
    expect("the bridge's own", {"learned 5 lab:br1 own"}, [&] { it->set(on_bridge(br1, br1, mac(5), fdb_permanent)); });
    expect("the own one's bridge goes", {"removed 5 lab:br1 own"}, [&] { it->to->link_gone(br1); });
    const uint64_t total = newest_event();
    const std::vector<move_record> moves = read_moves({}, 0, 100).moves;
    EXPECT_EQ(moves.size(), 7u);
    EXPECT_TRUE(std::ranges::all_of(moves, [](const move_record &each) { return each.was_since_ms != 0; }));
    EXPECT_EQ(health().history.events, total);
}

TEST_F(events, AnEntryHasAgedIfItsEndSaysSo)
{
    constexpr int64_t ageing_ms = 1000;
    constexpr int64_t unknown = -1;
    on_cache([&] {
        link_record bridge = it->links.at(br0);
        bridge.ageing_ms = ageing_ms;
        it->set(bridge);
    });
    resync();
    const struct {
        const char *name;
        int64_t unseen_ms;
        uint8_t state;
        bool expected;
    } cases[] = {
        {"seen now", 0, fdb_reachable, false},        {"almost", ageing_ms - 200, fdb_reachable, false},
        {"aged", ageing_ms, fdb_stale, true},         {"long ago", 10 * ageing_ms, fdb_stale, true},
        {"static", 10 * ageing_ms, fdb_noarp, false}, {"unknown", unknown, fdb_stale, false},
    };
    for (const auto &each : cases) {
        const auto seen = [&](int64_t ago_ms) {
            return with(on_bridge(br0, p0, mac(7), each.state), 0, 0, ago_ms != unknown ? steady_ms() - ago_ms : 0);
        };
        expect(each.name, {"learned 7 lab:br0 p0"}, [&] { it->set(seen(ageing_ms)); });
        expect(each.name, {each.expected ? "aged 7 lab:br0 p0" : "removed 7 lab:br0 p0"},
               [&] { it->drop(seen(each.unseen_ms)); });
    }
}

TEST_F(events, TellWhatTheTableHadNoRoomFor)
{
    restart({.mac_limit = 2}, false);
    resync();
    expect("full", {"learned 1 lab:br0 p0", "learned 2 lab:br0 p0"}, [&] {
        learn(1, p0);
        learn(2, p0);
    });
    expect("the newest goes", {"removed 2 lab:br0 p0 by limit", "learned 3 lab:br0 p1"}, [&] { learn(3, p1); });
    expect("room again", {"removed 1 lab:br0 p0", "learned 2 lab:br0 p0"},
           [&] { it->drop(on_bridge(br0, p0, mac(1))); });
}

// Entries that were there at the start make no event, whichever full dump finds them.
TEST_F(events, BeginAfterTheFirstFullDump)
{
    stop();
    auto owned = std::make_unique<scripted>();
    it = owned.get();
    it->starts_clean = false;
    it->links[br0] = link(br0, "br0", link_kind::bridge);
    it->links[p0] = link(p0, "p0", link_kind::other, br0);
    for (const fdb_record &each : {on_bridge(br0, p0, mac(1)), on_bridge(br0, br0, mac(9), fdb_permanent)}) {
        it->holds[key_of(each)] = each;
    }
    options options;
    options.group = "lab";
    ASSERT_EQ(start_on(std::move(owned), options).text, "");
    EXPECT_THAT(lines_now(), IsEmpty());
    expect("found by the next full dump", {"learned 3 lab:br0 p0"}, [&] {
        it->holds[key_of(on_bridge(br0, p0, mac(2)))] = on_bridge(br0, p0, mac(2));
        learn(3, p0);
        it->list(true);
    });
    expect("lost", {"lost 5", "lost 7", "learned 4 lab:br0 p0"}, [&] {
        it->clean = false;
        it->to->changes_lost(5);
        it->to->changes_lost(3);
        it->to->changes_lost(4);
        learn(4, p0);
        it->list(true);
    });
    on_cache([&] { it->to->link_gone(br0); });
    EXPECT_THAT(lines_now(), testing::IsSupersetOf({"removed 1 lab:br0 p0", "removed 9 lab:br0 own"}));
}

// ---- Since when ----

TEST_F(events, RowsSaySinceWhen)
{
    on_cache([&] { learn(1, p0); }); // at the start: events have not begun
    resync();
    const auto since = [&](uint32_t number) { return find_rows(mac(number), 0, {.since = true}).rows.at(0).since_ms; };
    const auto wait_a_second = [&] { std::this_thread::sleep_for(1'100ms); };
    EXPECT_EQ(since(1), 0);
    on_cache([&] {
        learn(2, p0);
        reach(3, 3);
        learn(3, vx0);
    });
    resync();
    const int64_t learned = since(2);
    const int64_t now = time(nullptr) * int64_t{1000};
    EXPECT_NEAR(static_cast<double>(learned), static_cast<double>(now), 5000.0);
    wait_a_second();
    on_cache([&] {
        it->set(link(br0, "core", link_kind::bridge));
        it->set(with(on_bridge(br0, p0, mac(2)), fdb_sticky));
        reach(3, 4);
    });
    resync();
    EXPECT_EQ(since(2), learned) << "a new name or flag";
    EXPECT_GE(since(3), learned + 1000) << "another VTEP";
    wait_a_second();
    on_cache([&] { learn(2, p1); });
    resync();
    EXPECT_GE(since(2), learned + 2000);
    EXPECT_EQ(read_moves({.mac = mac(2)}, 0, 1).moves.at(0).was_since_ms / 1000, learned / 1000);
    const row_page page = read_rows({}, {}, 10, {.since = true});
    EXPECT_TRUE(std::ranges::all_of(page.rows, [&](const mac_row &row) { return row.since_ms == since(row.mac[5]); }));
    order_selection by_creation = select_ahead(row_order::created, {}, 10);
    const ordered_page ordered = read_selection(by_creation, 10, {.since = true});
    EXPECT_TRUE(std::ranges::is_sorted(ordered.page.rows, {}, &mac_row::since_ms));
}

// Ten years of creations, several a second at first and one an hour later.
TEST(CreationTimes, StayExactEnoughInBoundedMemory)
{
    creation_times times;
    times.note(1, 500);
    times.begin(3);
    std::vector<std::pair<uint64_t, int64_t>> all;
    int64_t now_ms = 1'700'000'000'000;
    for (uint64_t number = 4; number < 1'000'000; number++) {
        now_ms += number < 400'000 ? 400 : number < 999'000 ? 90'000 : 3'600'000;
        times.note(number, now_ms);
        all.emplace_back(number, now_ms);
    }
    EXPECT_EQ(times.at(3), 0);
    EXPECT_LE(times.bytes(), size_t{1} << 20);
    for (const auto &[number, time_ms] : all) {
        const int64_t found = times.at(number);
        ASSERT_LE(found, time_ms) << number;
        const int64_t age_ms = now_ms - time_ms;
        ASSERT_LE(time_ms - found, std::max<int64_t>(1000, age_ms > 3'600'000 ? age_ms / 2048 : 0)) << number;
    }
}

// ---- The log by itself ----

place_view describe(const fed_place &place)
{
    return {.domain = "lab:br" + std::to_string(place.bridge_id),
            .port = "p" + std::to_string(place.xcid),
            .bridge_id = place.bridge_id,
            .xcid = place.xcid};
}

noted_change random_move(std::mt19937 &random, uint32_t addresses)
{
    noted_change change{.kind = random() % 4 == 0 ? change_kind::removed : change_kind::moved,
                        .mac = mac(1 + static_cast<uint32_t>(random() % addresses))};
    change.place = {.xcid = 1 + static_cast<uint32_t>(random() % 50), .bridge_id = 1};
    change.before = {.xcid = 51 + static_cast<uint32_t>(random() % 50), .bridge_id = 1};
    return change;
}

// Against a list of all moves.
TEST(ChangeLog, FindsTheKeptMovesOfAnAddress)
{
    for (const uint32_t limit : {1u, 7u, 1000u}) {
        SCOPED_TRACE(limit);
        std::mt19937 random{limit};
        change_log log(5, limit, describe);
        log.begin(1);
        std::deque<std::pair<uint64_t, noted_change>> kept;
        for (uint64_t number = 1; number <= 5000; number++) {
            const noted_change change = random_move(random, 40);
            log.add(change, static_cast<int64_t>(number));
            kept.emplace_front(number, change);
            kept.resize(std::min<size_t>(kept.size(), limit));
            if (number % 7 != 0) {
                continue;
            }
            const mac_address address = mac(1 + static_cast<uint32_t>(random() % 40));
            for (const bool by_index : {false, true}) {
                const move_filter filter{.mac = by_index ? std::optional(address) : std::nullopt,
                                         .passes = [&](const move_record &each) { return each.mac == address; }};
                std::vector<uint64_t> found;
                uint64_t before = 0;
                for (bool more = true; more;) {
                    const move_page page = log.read_moves(filter, before, 3);
                    std::ranges::transform(page.moves, std::back_inserter(found), &move_record::number);
                    EXPECT_EQ(page.history_since_ms, number > limit ? static_cast<int64_t>(number - limit) + 1 : 1);
                    before = page.next;
                    more = page.more;
                }
                std::vector<uint64_t> expected;
                expected.reserve(kept.size());
                for (const auto &[kept_number, kept_change] : kept) {
                    if (kept_change.mac == address) {
                        expected.push_back(kept_number);
                    }
                }
                ASSERT_EQ(found, expected);
            }
        }
    }
}

TEST(ChangeLog, CountsAddressesThatFlap)
{
    change_log log(1, 100, describe);
    const int64_t now_ms = time(nullptr) * int64_t{1000};
    const auto move = [&](uint32_t number, uint32_t from, uint32_t to, int64_t ago_ms) {
        log.add({.kind = change_kind::moved,
                 .mac = mac(number),
                 .place = {.xcid = to, .bridge_id = 1},
                 .before = {.xcid = from, .bridge_id = 1}},
                now_ms - ago_ms);
    };
    move(1, 1, 2, 400'000); // before the window
    move(1, 2, 1, 200'000);
    move(2, 5, 6, 150'000);
    move(2, 6, 5, 140'000);
    move(2, 5, 7, 130'000);
    move(3, 1, 2, 100'000);
    move(3, 2, 1, 90'000);
    log.add({.kind = change_kind::removed, .mac = mac(1), .place = {.xcid = 1, .bridge_id = 1}}, now_ms);
    const flap_page page = log.find_flaps(300'000, nullptr);
    ASSERT_EQ(page.flaps.size(), 2u);
    EXPECT_EQ(page.flaps[0].mac, mac(2));
    EXPECT_EQ(page.flaps[0].moves, 3u);
    EXPECT_EQ(page.flaps[0].place->port + page.flaps[0].other->port, "p7p5");
    EXPECT_EQ(page.flaps[0].last_ms - page.flaps[0].first_ms, 20'000);
    EXPECT_EQ(page.flaps[1].mac, mac(3));
    EXPECT_EQ(log.find_flaps(500'000, nullptr).flaps.size(), 3u);
    EXPECT_TRUE(log.find_flaps(300'000, [](const move_record &each) { return each.mac == mac(1); }).flaps.empty());
}

TEST(ChangeLog, TakesNoMoreMemoryThanItsLimits)
{
    constexpr uint32_t event_limit = 65'536, move_limit = 100'000;
    std::mt19937 random{9};
    const size_t before = mallinfo2().uordblks;
    change_log log(event_limit, move_limit, describe);
    for (uint32_t number = 0; number < 1'000'000; number++) {
        log.add(random_move(random, 300'000), number);
    }
    const size_t bytes = log.view().bytes;
    EXPECT_LE(bytes, size_t{32} * event_limit + size_t{38} * move_limit);
    EXPECT_LE(mallinfo2().uordblks - before, bytes + 200'000) << "names and counts of 100 ports";
    EXPECT_EQ(log.view().events_kept, event_limit);
    EXPECT_EQ(log.view().moves_kept, move_limit);
    EXPECT_EQ(log.read(1, 1).missed, 1'000'000 - event_limit);
}

TEST(ChangeLog, KeepsNoMovesIfNoneAreWanted)
{
    change_log log(3, 0, describe);
    std::mt19937 random{1};
    for (uint32_t number = 0; number < 10; number++) {
        log.add(random_move(random, 3), 1000);
    }
    EXPECT_TRUE(log.read_moves({}, 0, 10).moves.empty());
    EXPECT_GT(log.read_moves({.mac = mac(1)}, 0, 10).history_since_ms, 1000);
    EXPECT_EQ(log.read(8, 10).events.size(), 3u);
    EXPECT_EQ(log.read(12, 10).next, 12u); // not there yet
}

// ---- Readers ----

// Readers of all kinds, while a storm overwrites what they read. Each number is read or missed once.
TEST_F(events, ManyReadersFollowAStorm)
{
    restart({.event_limit = 200, .move_limit = 100}, false);
    resync();
    std::atomic<bool> is_over{false};
    std::vector<std::thread> readers;
    std::atomic<uint64_t> followed{0};
    constexpr size_t reader_count = 3;
    readers.reserve(reader_count);
    while (readers.size() < reader_count) {
        readers.emplace_back([&] {
            uint64_t at = 1;
            for (bool last = false; !last;) {
                last = is_over;
                await_event(at, 20ms);
                const event_batch batch = read_events(at, 50);
                uint64_t number = at + batch.missed;
                for (const change_event &event : batch.events) {
                    EXPECT_EQ(event.number, number++);
                }
                EXPECT_EQ(batch.next, number);
                last = last && batch.events.empty();
                at = batch.next;
                read_moves({.mac = mac(1)}, 0, 10);
                find_flaps(1000);
            }
            followed += at - 1;
        });
    }
    for (uint32_t turn = 0; turn < 200; turn++) {
        on_cache([&] {
            for (uint32_t number = 0; number < 64; number++) {
                learn(number, turn % 2 != 0 ? p0 : p1);
            }
        });
        resync();
    }
    is_over = true;
    std::ranges::for_each(readers, &std::thread::join);
    EXPECT_EQ(newest_event(), 200u * 64);
    EXPECT_EQ(followed, reader_count * newest_event());
}

TEST_F(events, AReaderThatWaitsIsWokenAndDoesNotDelayTheEnd)
{
    resync();
    const auto wait = [](std::chrono::milliseconds at_most) {
        return std::async(std::launch::async, [at_most] { return await_event(1, at_most); });
    };
    EXPECT_FALSE(wait(1ms).get());
    const auto wake = [&](auto cause) {
        auto waiting = wait(60s);
        EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
        const auto began = std::chrono::steady_clock::now();
        cause();
        const bool found = waiting.get();
        EXPECT_LT(std::chrono::steady_clock::now() - began, 10s);
        return found;
    };
    EXPECT_FALSE(wake([] { wake_event_readers(); }));
    EXPECT_FALSE(wake([] { stop(); }));
    EXPECT_EQ(read_events(4, 10).next, 4u); // nothing runs
    begin({}, false);
    resync();
    EXPECT_TRUE(wake([&] { on_cache([&] { learn(1, p0); }); }));
}

} // namespace
