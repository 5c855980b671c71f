// SPDX-License-Identifier: Apache-2.0

// The trace facility: the ring of each id, readers that fall behind, and the texts of points.

#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/trace/trace_reader.h"

namespace {

using host::trace_ring;
using testing::EndsWith;
using testing::HasSubstr;

class trace : public testing::Test {
protected:
    // The ring's sequence numbers before the test.
    const uint64_t normal_before = host::trace_newest(trace_ring::normal);
    const uint64_t error_before = host::trace_newest(trace_ring::error);
};

template <typename... Values>
void emit(uint32_t id, Values... values)
{
    const uint64_t list[] = {static_cast<uint64_t>(values)..., 0};
    edm_trace_point(l2fib_debug_get_ctx(), id, "place", list, sizeof...(values));
}

std::vector<host::trace_point> read_all(trace_ring ring, uint64_t from)
{
    std::vector<host::trace_point> points(host::trace_ring_size);
    points.resize(host::trace_read(ring, from, points).count);
    return points;
}

TEST_F(trace, ChoosesTheRingById)
{
    for (const uint32_t id : {1944u, 1945u, 1956u, 1957u, 1967u}) {
        emit(id);
    }
    for (const uint32_t id : {0u, 1911u, 1927u, 1938u, 1973u, UINT32_MAX}) {
        emit(id);
    }
    EXPECT_EQ(host::trace_newest(trace_ring::normal) - normal_before, 5u);
    EXPECT_EQ(host::trace_newest(trace_ring::error) - error_before, 6u);
}

TEST_F(trace, KeepsWhatAPointWasGiven)
{
    emit(1916, 1, 2, 3, 4, 5, UINT64_MAX);
    edm_trace_point(l2fib_debug_get_ctx(), 1914, "nothing", nullptr, 3);
    const uint64_t many[] = {1, 2, 3, 4, 5, 6, 7};
    edm_trace_point(l2fib_debug_get_ctx(), 1918, "too many", many, 7);
    edm_trace_point(nullptr, 1911, "dropped", nullptr, 0);

    const auto points = read_all(trace_ring::error, error_before + 1);
    ASSERT_EQ(points.size(), 3u);
    EXPECT_THAT(points[0].values, testing::ElementsAre(1, 2, 3, 4, 5, UINT64_MAX));
    EXPECT_STREQ(points[0].function, "place");
    EXPECT_EQ(points[0].thread_id, static_cast<uint32_t>(gettid()));
    EXPECT_EQ(points[1].value_count, 0u);
    EXPECT_EQ(points[2].value_count, EDM_TRACE_MAX_VALUES);
}

TEST_F(trace, CountsWhatAReaderMissed)
{
    constexpr uint64_t extra = 10;
    for (uint64_t i = 1; i <= host::trace_ring_size + extra; i++) {
        emit(1960, i);
    }
    std::vector<host::trace_point> points(100);
    const auto first = host::trace_read(trace_ring::error, error_before + 4, points);
    EXPECT_EQ(first.count, points.size());
    EXPECT_EQ(first.overwritten, extra + 1 - 4);
    EXPECT_EQ(first.next, error_before + extra + 1 + points.size());
    EXPECT_EQ(points[0].values[0], extra + 1);

    const auto newest = host::trace_newest(trace_ring::error);
    const auto last = host::trace_read(trace_ring::error, newest, points);
    EXPECT_EQ(last.count, 1u);
    EXPECT_EQ(points[0].values[0], newest - error_before);
    EXPECT_EQ(host::trace_read(trace_ring::error, last.next, points).count, 0u);
    EXPECT_EQ(host::trace_read(trace_ring::error, newest + 1000, points).count, 0u);
    EXPECT_EQ(read_all(trace_ring::error, 0).size(), host::trace_ring_size);
}

TEST_F(trace, KeepsPointsWholeUnderManyWriters)
{
    constexpr uint64_t each = 20000;
    std::vector<std::thread> writers;
    for (uint64_t w = 0; w < 3; w++) {
        writers.emplace_back([w] {
            for (uint64_t i = 0; i < each; i++) {
                emit(1912, i + w, (i + w) * 3);
            }
        });
    }
    std::vector<host::trace_point> points(500);
    uint64_t next = error_before + 1;
    for (uint64_t accounted = 0; accounted < each * writers.size();) {
        const auto batch = host::trace_read(trace_ring::error, next, points);
        for (size_t i = 0; i < batch.count; i++) {
            EXPECT_EQ(points[i].values[0] * 3, points[i].values[1]);
        }
        accounted += batch.count + batch.overwritten;
        next = batch.next;
    }
    for (std::thread &writer : writers) {
        writer.join();
    }
    EXPECT_EQ(next, host::trace_newest(trace_ring::error) + 1);
}

TEST_F(trace, FormatsValuesByTheirMeaning)
{
    const uint64_t words[] = {0xffff, 12, 7, 0x1b00, 0x04ff, 0x09a0};
    const struct {
        uint32_t id;
        std::vector<uint64_t> values;
        const char *end;
    } cases[] = {
        {1914, {}, "1914 place: feed: called without an entry"},
        {1915, {7}, "feed: bridge domain cannot be created: bridge id 7"},
        {1915, {7, 12}, "feed: bridge port cannot be refreshed: xcid 7, status 12 Cannot allocate memory"},
        {1928, {0xa000006e}, "status 0xa000006e Connection timed out"},
        {1928, {0xa5138016}, "status 0xa5138016 the module is not ready, or was given a wrong argument"},
        {1960, {0x12345}, "status 0x12345"},
        {1944, {0}, "request thread ready: status 0"},
        {1916, {words, words + 6}, "flags 0xffff, xcid 12, bridge id 7, address 00:1b:ff:04:a0:09"},
        {1916, {words, words + 5}, "bridge id 7, address 0x1b00, value 0x4ff"},
        {1938, {1}, "cannot be started: value 0x1"},
        {1926, {1, 2}, "no text for this id: value 0x1, value 0x2"},
    };
    for (const auto &c : cases) {
        host::trace_point point{};
        point.id = c.id;
        point.function = "place";
        point.value_count = static_cast<uint32_t>(c.values.size());
        std::ranges::copy(c.values, point.values);
        EXPECT_THAT(host::trace_format(point), EndsWith(c.end));
    }
    host::trace_point point{};
    point.time_ns = 1'700'000'000'000'042'000u;
    point.thread_id = 77;
    EXPECT_THAT(host::trace_format(point), HasSubstr("2023-11-14T22:13:20.000042Z [77] 0 ?: "));
}

} // namespace
