// SPDX-License-Identifier: Apache-2.0

// The daemon's limits: which user gets a place, which refused connection makes room, which lines of the log are
// written.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/http/admission.h"
#include "daemon/log_limit.h"

namespace {

using namespace l2fibd;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uid_t root = 0, ann = 1000, bob = 1001, cid = 1002;

// Takes places for the user until one is refused. Returns their number.
uint32_t take_all(fair_places &places, uid_t user)
{
    uint32_t count = 0;
    while (places.take(user).taken != place::none) {
        count++;
    }
    return count;
}

TEST(FairPlaces, LeaveRoomForTheNextUser)
{
    const struct {
        uint32_t common, reserve;
        std::vector<std::pair<uid_t, uint32_t>> steps; // a user takes places until it is refused, and their number
    } rows[] = {
        {56, 8, {{ann, 28}, {bob, 14}, {cid, 7}, {root, 4 + 8}}},
        {56, 8, {{root, 28 + 8}, {root, 0}, {ann, 14}, {ann, 0}, {bob, 7}}},
        {7, 1, {{ann, 4}, {bob, 2}, {cid, 1}, {root, 1}}},
        {1, 0, {{ann, 1}, {root, 0}}},
    };
    for (const auto &row : rows) {
        fair_places places("places");
        places.set_size(row.common, row.reserve);
        uint32_t taken = 0;
        for (const auto &[user, granted] : row.steps) {
            EXPECT_EQ(take_all(places, user), granted) << row.common << ", user " << user;
            taken += granted;
        }
        EXPECT_EQ(places.taken(), taken);
        EXPECT_EQ(places.refused(), row.steps.size());
    }
}

TEST(FairPlaces, AreReusedAndARefusalNamesTheirUsers)
{
    fair_places places("connections open");
    places.set_size(4, 1);
    EXPECT_EQ(places.take(bob).taken, place::common);
    EXPECT_EQ(take_all(places, root), 2u + 1u);
    EXPECT_EQ(places.take(root).refusal,
              "user 0 has 3 of 5 connections open, other users have 1: close some, or try again");
    places.give_back(root, place::reserve);
    places.give_back(root, place::none);
    EXPECT_EQ(places.take(root).taken, place::reserve);
    places.give_back(bob, place::common);
    EXPECT_EQ(places.take(ann).taken, place::common);
    EXPECT_EQ(places.take(bob).taken, place::common);
}

TEST(RefusedConnections, MakeRoomAtTheCostOfTheLargestUser)
{
    refused_connections refused(3);
    EXPECT_EQ(refused.add(1, bob), std::nullopt);
    EXPECT_EQ(refused.add(2, ann), std::nullopt);
    EXPECT_EQ(refused.add(3, ann), std::nullopt);
    EXPECT_EQ(refused.add(4, ann), 2);
    EXPECT_EQ(refused.add(5, cid), 3);
    EXPECT_EQ(refused.add(6, root), 1); // the oldest of those with the same count
    refused.remove(4);
    EXPECT_EQ(refused.add(7, bob), std::nullopt);
}

TEST(LogLimit, ReportsRepeatedLinesOncePerWindow)
{
    using enum log_limit::verdict;
    log_limit limit;
    const log_limit::time start(seconds(1000));
    const log_line a{log_level::error, "a"}, b{log_level::error, "b"};
    EXPECT_EQ(limit.judge(a, start), write);
    EXPECT_EQ(limit.judge({log_level::info, "a"}, start), write) << "another level";
    EXPECT_EQ(limit.next_report(), std::nullopt);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(limit.judge(a, start + seconds(1)), repeated);
    }
    EXPECT_EQ(limit.next_report(), start + limit.repeat_window);
    EXPECT_TRUE(limit.take_reports(start + seconds(4), false).empty());
    const auto reports = limit.take_reports(start + seconds(5), false);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].text, "repeated 3 times: a");
    EXPECT_EQ(reports[0].level, log_level::error);
    EXPECT_EQ(limit.judge(a, start + seconds(6)), repeated) << "the flood continues in its next window";
    EXPECT_EQ(limit.take_reports(start + seconds(6), true).size(), 1u);

    EXPECT_EQ(limit.judge(b, start + seconds(6)), write);
    EXPECT_EQ(limit.judge(b, start + seconds(6)), repeated);
    for (size_t i = 0; i < limit.lines_remembered; i++) { // pushes the line out before its report is due
        EXPECT_EQ(limit.judge({log_level::error, std::to_string(i)}, start + seconds(6)), write);
    }
    EXPECT_EQ(limit.take_reports(start + seconds(6), false).at(0).text, "repeated 1 times: b");
}

TEST(LogLimit, BoundsLinesPerSecondOfEachLevel)
{
    using enum log_limit::verdict;
    log_limit limit;
    log_limit::time now(seconds(1000));
    int number = 0;
    const auto flood = [&](log_level level) {
        int written = 0;
        while (limit.judge({level, std::to_string(number++)}, now) == write) {
            written++;
        }
        return written;
    };
    EXPECT_EQ(flood(log_level::debug), limit.burst_lines);
    EXPECT_EQ(flood(log_level::error), limit.burst_lines);
    now += milliseconds(500);
    EXPECT_EQ(flood(log_level::debug), limit.lines_per_second / 2);
    EXPECT_EQ(limit.dropped(), 3u);
    EXPECT_TRUE(limit.take_reports(now, false).empty());
    now += seconds(3600);
    EXPECT_EQ(limit.take_reports(now, false)[0].text.find("log lines dropped: 3;"), 0u);
    EXPECT_EQ(limit.next_report(), std::nullopt);
    EXPECT_EQ(flood(log_level::debug), limit.burst_lines);
}

} // namespace
