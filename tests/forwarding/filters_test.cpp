// SPDX-License-Identifier: Apache-2.0

// Filters, orders and counts of rows on random tables. Each is compared with a plain loop over the unfiltered list.

#include <gmock/gmock.h>

#include <algorithm>
#include <numeric>
#include <set>

#include "forwarding/feeder/answers/reading.h"
#include "tests/support/plane/scripted_plane.h"

namespace {

using namespace test;

using row_key = std::tuple<uint16_t, uint32_t, mac_address>;

row_key key_of_row(const mac_row &row)
{
    return {row.bridge_id, row.xcid, row.mac};
}

std::vector<row_key> keys_of(const std::vector<mac_row> &rows)
{
    std::vector<row_key> keys(rows.size());
    std::ranges::transform(rows, keys.begin(), key_of_row);
    return keys;
}

std::vector<row_key> sorted(std::vector<row_key> keys)
{
    std::ranges::sort(keys);
    return keys;
}

std::vector<mac_row> rows_that(const std::vector<mac_row> &all, const std::function<bool(const mac_row &)> &passes)
{
    std::vector<mac_row> found;
    std::ranges::copy_if(all, std::back_inserter(found), passes);
    return found;
}

constexpr auto all_orders = {row_order::created, row_order::last_seen, row_order::mac, row_order::vlan,
                             row_order::port};

struct filtered : changing_module {
    struct condition {
        row_filter filter = {};
        std::vector<std::function<bool(const mac_row &)>> judges = {};

        bool passes(const mac_row &row) const
        {
            return std::ranges::all_of(judges, [&](const auto &judge) { return judge(row); });
        }
    };

    // Adds a condition that `value_of` of a row is one of some rows', or none of them.
    template <typename Set, typename ValueOf>
    void add(condition &to, Set set, ValueOf value_of)
    {
        std::set<std::remove_cvref_t<decltype(value_of(all.rows.front()))>> values;
        for (uint32_t count = 1 + below(2); count > 0; count--) {
            values.insert(value_of(all.rows[below(static_cast<uint32_t>(all.rows.size()))]));
        }
        const bool is_not = below(3) == 0;
        is_not ? (to.filter.*set).exclude({values.begin(), values.end()})
               : (to.filter.*set).keep_only({values.begin(), values.end()});
        to.judges.push_back([=](const mac_row &row) { return values.contains(value_of(row)) != is_not; });
    }

    void add_prefix(condition &to)
    {
        const unsigned free_bits = 4 * (below(3) + (below(3) == 0 ? 9 : 0));
        const uint64_t some = base::number_of_mac(all.rows[below(static_cast<uint32_t>(all.rows.size()))].mac);
        const base::mac_range range{some >> free_bits << free_bits, some | ((uint64_t{1} << free_bits) - 1)};
        const bool is_not = below(3) == 0;
        is_not ? to.filter.not_addresses.push_back(range) : void(to.filter.addresses = range);
        to.judges.push_back([=](const mac_row &row) {
            return (base::number_of_mac(row.mac) >> free_bits == some >> free_bits) != is_not;
        });
    }

    // A bound between ages that are far apart, because time passes until the next read.
    void add_age(condition &to)
    {
        std::set<uint32_t> ages;
        std::ranges::transform(all.rows, std::inserter(ages, ages.end()), &mac_row::age);
        constexpr uint32_t far_apart = 100;
        const auto gap = std::ranges::adjacent_find(ages, [](uint32_t a, uint32_t b) { return b - a > far_apart; });
        if (gap != ages.end()) {
            const uint32_t bound = *gap + far_apart / 2;
            const bool is_older = below(2) == 0;
            is_older ? void(to.filter.ages.min = bound) : void(to.filter.ages.max = bound);
            to.judges.push_back([=](const mac_row &row) { return (row.age > bound) == is_older; });
        }
    }

    condition random_condition()
    {
        condition made;
        const auto is_chosen = [this] { return below(6) == 0; };
        if (is_chosen()) {
            add(made, &row_filter::domains, [](const mac_row &row) { return row.bridge_id; });
        }
        if (is_chosen()) {
            add(made, &row_filter::ports, [](const mac_row &row) { return port_place(row.bridge_id, row.xcid); });
        }
        if (is_chosen()) {
            add(made, &row_filter::vlans, [](const mac_row &row) { return row.vlan; });
        }
        if (is_chosen()) {
            add(made, &row_filter::vnis, [](const mac_row &row) { return row.vni; });
        }
        if (is_chosen()) {
            add(made, &row_filter::vteps, vtep_of);
        }
        if (is_chosen()) {
            add(made, &row_filter::origins, [](const mac_row &row) { return origin_of(row.flags); });
        }
        if (below(3) == 0) {
            add_prefix(made);
        }
        if (is_chosen()) {
            add_age(made);
        }
        return made;
    }

    // The IPv6 tunnel end points of rows are those of the devices' own entries.
    void expect_ipv6_vteps()
    {
        std::set<std::pair<uint32_t, mac_address>> held, shown;
        for (const auto &own : it->holds) { // clang 14 captures no structured binding
            const fdb_record &record = own.second;
            const link_record &device = it->links.at(record.ifindex);
            const bool is_joined = std::ranges::any_of(it->holds, [&](const auto &each) {
                return !each.second.self && each.second.ifindex == record.ifindex && each.second.mac == record.mac;
            });
            if (record.self && record.mac != mac_address{} && is_joined && device.master != 0
                && own.first.source_vni == source_vni(device, record.mac)
                && record.destination.kind == destination_kind::ipv6) {
                held.emplace(record.ifindex, record.mac);
            }
        }
        for (const mac_row &row : all.rows) {
            if (row.ipv6_vtep != base::ip_address{} && row.mac != mac_address{}) {
                shown.emplace(row.port->ifindex, row.mac);
            }
        }
        EXPECT_EQ(shown, held);
    }

    void expect_list(const condition &wanted)
    {
        std::vector<mac_row> read;
        std::vector<row_page> pages; // the rows point into them
        const uint32_t max_rows = 1 + below(9);
        row_position at;
        for (bool more = true; more; at = pages.back().end, more = pages.back().more) {
            pages.push_back(read_rows(wanted.filter, at, max_rows));
            ASSERT_LE(pages.back().rows.size(), max_rows);
            std::ranges::copy(pages.back().rows, std::back_inserter(read));
        }
        EXPECT_EQ(keys_of(read), keys_of(passing));
    }

    static void expect_in_order(const std::vector<mac_row> &rows, const order_request &wanted)
    {
        using value = std::tuple<bool, std::string, uint64_t, mac_address>;
        const bool is_timed = wanted.order == row_order::last_seen;
        const auto value_of = [&](const mac_row &row) -> value {
            switch (wanted.order) {
            case row_order::mac: return {false, "", 0, row.mac};
            case row_order::vlan: return {false, "", row.vlan, row.mac};
            case row_order::port: return {row.port == nullptr, row.port != nullptr ? row.port->name : "", 0, row.mac};
            case row_order::last_seen: return {false, "", row.time_left ? static_cast<uint64_t>(row.last_seen) : 0, {}};
            default: return {};
            }
        };
        const auto ages = [](const mac_row &row) { return row.time_left.has_value(); };
        EXPECT_TRUE(!is_timed || std::ranges::is_partitioned(rows, ages)); // what does not age comes last
        const auto ordered = is_timed ? rows_that(rows, ages) : rows;
        EXPECT_TRUE(wanted.is_reversed ? std::ranges::is_sorted(ordered, std::ranges::greater(), value_of)
                                       : std::ranges::is_sorted(ordered, {}, value_of))
            << static_cast<int>(wanted.order) << wanted.is_reversed;
    }

    void expect_order(const order_request &wanted)
    {
        std::vector<mac_row> read;
        std::vector<ordered_page> pages;
        order_selection selection;
        for (bool more = true; more; more = pages.back().page.more) {
            if (selection.next == selection.keys.size() || below(4) == 0) {
                selection = select_ahead(wanted, selection.at, 1 + below(30));
            }
            pages.push_back(read_selection(selection, 1 + below(9)));
            std::ranges::copy(pages.back().page.rows, std::back_inserter(read));
        }
        EXPECT_EQ(sorted(keys_of(read)), sorted(keys_of(passing))) << static_cast<int>(wanted.order);
        expect_in_order(read, wanted);
    }

    void expect_counts(const condition &wanted)
    {
        for (const count_group by :
             {count_group::domain, count_group::port, count_group::vlan, count_group::vtep, count_group::type}) {
            std::map<group_key, uint32_t> counted, expected;
            for (const group_count &group : count_rows(wanted.filter, by).groups) {
                counted[group.key] = group.entries;
                EXPECT_EQ(std::reduce(group.by_origin.begin(), group.by_origin.end()), group.entries);
            }
            for (const mac_row &row : passing) {
                group_key key;
                by == count_group::domain ? void(key.place = {row.bridge_id, 0})
                : by == count_group::port ? void(key.place = {row.bridge_id, row.xcid})
                : by == count_group::vlan ? void(key.vlan = row.vlan)
                : by == count_group::vtep ? void(key.vtep = vtep_of(row))
                                          : void(key.type = origin_of(row.flags));
                expected[key]++;
            }
            EXPECT_EQ(counted, expected) << static_cast<int>(by);
        }
    }

    row_page all;
    std::vector<mac_row> passing;
};

TEST_F(filtered, ListsOrdersAndCountsAreThoseOfTheUnfilteredList)
{
    for (const bool is_silent : {false, true}) {
        restart({}, is_silent);
        add_external_device();
        for (uint32_t round = 0; round < 40; round++) {
            change_for_a_round(round);
            resync();
            all = read_rows({}, {}, 10'000);
            add_ipv6_vteps(all);
            expect_ipv6_vteps();
            for (uint32_t turn = 0; turn < 6; turn++) {
                const condition wanted = random_condition();
                passing = rows_that(all.rows, [&](const mac_row &row) { return wanted.passes(row); });
                SCOPED_TRACE(testing::Message() << is_silent << ", round " << round << ", turn " << turn);
                expect_list(wanted);
                expect_counts(wanted);
                for (const row_order order : all_orders) {
                    expect_order({order, below(2) == 0, wanted.filter});
                }
                ASSERT_FALSE(HasFailure());
            }
        }
    }
}

// A list by port continues behind the name at which it stopped, whatever the ports are called by then.
TEST_F(filtered, AnOrderByPortContinuesWhenPortsAreRenamedOrGo)
{
    const struct {
        const char *title;
        bool is_reversed;
        uint32_t changed;           // between the two pages
        const char *name;           // null: the port goes
        std::vector<uint32_t> rest; // the last octets of the rows behind the first page
    } cases[] = {
        {"not changed", false, p0, "p0", {2, 3}},
        {"renamed ahead of the place", false, p1, "a1", {3}},
        {"renamed behind the place", false, p0, "z1", {2, 3, 1}},
        {"gone", false, p0, nullptr, {2, 3}},
        {"reversed, not changed", true, p2, "p2", {2, 1}},
        {"reversed, renamed behind the place", true, p2, "a1", {2, 1, 3}},
        {"reversed, gone", true, p2, nullptr, {2, 1}},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(each.title);
        restart({}, false);
        on_cache([&] {
            it->set(on_bridge(br0, p0, mac(1)));
            it->set(on_bridge(br0, p1, mac(2)));
            it->set(on_bridge(br1, p2, mac(3)));
        });
        resync();
        const order_request wanted{row_order::port, each.is_reversed, {}};
        order_selection selection = select_ahead(wanted, {}, 1);
        read_selection(selection, 1);
        on_cache([&] {
            link_record changed = it->links.at(each.changed);
            changed.name = each.name != nullptr ? each.name : "";
            each.name != nullptr ? it->set(changed) : it->to->link_gone(each.changed);
        });
        resync();
        selection = select_ahead(wanted, selection.at, 10);
        std::vector<uint32_t> rest;
        for (const mac_row &row : read_selection(selection, 10).page.rows) {
            rest.push_back(row.mac[5]);
        }
        EXPECT_EQ(rest, each.rest);
    }
}

} // namespace
