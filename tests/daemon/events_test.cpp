// SPDX-License-Identifier: Apache-2.0

// Events and moves without a forwarding plane: their filters, their text, their ids.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "daemon/api/history/event_text.h"
#include "daemon/api/history/history_filter.h"
#include "daemon/api/history/history_records.h"
#include "daemon/api/json/api_error.h"
#include "daemon/api/process_mark.h"
#include "daemon/http/target.h"

using namespace l2fibd;
using forwarding::change_event;
using forwarding::change_kind;
using forwarding::place_view;

namespace {

std::shared_ptr<const place_view> place(place_view view)
{
    return std::make_shared<const place_view>(std::move(view));
}

const auto on_p1 = place({.domain = "lab:br0.10", .port = "p1", .bridge_id = 1, .xcid = 7, .vlan = 10});
const auto on_vxlan = place(
    {.domain = "lab:br0.10", .port = "vx0", .bridge_id = 1, .xcid = 9, .vlan = 10, .vtep = {10, 0, 0, 2}, .vni = 100});
const change_event moved = {.number = 5,
                            .time_ms = 1'700'000'000'042,
                            .kind = change_kind::moved,
                            .mac = {2, 0, 0, 0, 0, 1},
                            .flags = EDM_MAC_EXTERN_LEARNED,
                            .place = on_vxlan,
                            .before = on_p1};

TEST(EventFilters, PassAMoveIfEitherPlacePasses)
{
    const struct {
        const char *parameters;
        bool passes;
    } rows[] = {
        {"port=p1", true},          {"port=vx0", true},          {"port=9", true},
        {"port=p2", false},         {"not-port=p1", true},       {"not-port=p1&not-port=vx0", false},
        {"domain=br0", true},       {"domain=lab:br0.10", true}, {"domain=br0.1", false},
        {"not-domain=br0", false},  {"vlan=10", true},           {"vlan=11", false},
        {"vni=100", true},          {"vtep=10.0.0.2", true},     {"vtep=10.0.0.3", false},
        {"port=p1&vni=100", false}, {"type=learned", true},      {"type=static", false},
        {"mac-prefix=02:0", true},  {"mac-prefix=03", false},    {"not-mac-prefix=0200", false},
    };
    for (const auto &row : rows) {
        const target to = parse_target(std::string("/events?") + row.parameters);
        const filters given = parse_filters(to, filters_of_events);
        EXPECT_EQ(passes_event(given, moved), row.passes) << row.parameters;
        EXPECT_TRUE(passes_event(given, {.kind = change_kind::lost})) << row.parameters;
    }
    const filters young = parse_filters(parse_target("/moves?newer-than=1m"), filters_of_moves);
    for (const int64_t age_ms : {0, 59'999, 60'000, 3'600'000}) {
        const forwarding::move_record move = {.time_ms = moved.time_ms, .place = on_vxlan, .before = on_p1};
        EXPECT_EQ(passes_move(young, move, moved.time_ms + age_ms), age_ms < 60'000) << age_ms;
    }
}

TEST(EventText, HasOneLineOfDataForEachEvent)
{
    const std::string id = process_mark() + "-";
    const struct {
        change_event event;
        std::string text; // "MARK-" stands for the mark of the process
    } rows[] = {
        {moved, "event: moved\nid: MARK-5\ndata: {\"id\":\"MARK-5\",\"time\":\"2023-11-14T22:13:20.042Z\","
                "\"event\":\"moved\",\"domain\":\"lab:br0.10\",\"mac-address\":\"02:00:00:00:00:01\",\"vlan\":10,"
                "\"origin\":\"learned\",\"flags\":[\"extern-learned\"],\"vni\":100,\"port\":\"vx0\","
                "\"vtep\":\"10.0.0.2\",\"from-port\":\"p1\"}\n\n"},
        {{.number = 6,
          .time_ms = 999,
          .kind = change_kind::removed,
          .by_limit = true,
          .flags = EDM_MAC_STATIC,
          .place = place({.domain = "lab:br\n0", .port = ""})},
         "event: removed\nid: MARK-6\ndata: {\"id\":\"MARK-6\",\"time\":\"1970-01-01T00:00:00.999Z\","
         "\"event\":\"removed\",\"domain\":\"lab:br\\u000a0\",\"mac-address\":\"00:00:00:00:00:00\","
         "\"origin\":\"static\",\"flags\":[\"static\"],\"reason\":\"limit\"}\n\n"},
    };
    for (const auto &row : rows) {
        std::string expected = row.text, text;
        for (size_t at = 0; (at = expected.find("MARK-", at)) != std::string::npos;) {
            expected.replace(at, sizeof("MARK-") - 1, id);
        }
        append_event(text, row.event);
        EXPECT_EQ(text, expected);
    }
    std::string lost;
    append_event(lost, {.number = 7, .kind = change_kind::lost, .lost = 12});
    const auto data = nlohmann::json::parse(lost.substr(lost.find('{')));
    EXPECT_EQ(data["event"], "missed");
    EXPECT_EQ(data["count"], "12");
    EXPECT_EQ(number_of_event(data["id"]), 7u);
}

TEST(EventIds, NameAnEventOfThisProcessOnly)
{
    const std::string &mark = process_mark();
    EXPECT_EQ(number_of_event(mark + "-0"), 0u);
    EXPECT_EQ(number_of_event(mark + "-18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(number_of_event(mark + "0-5"), std::nullopt);
    for (const std::string wrong :
         {"", "-", "5", "-5", "x-5", "5-", "5-x", "5-5-5", "5--5", "5-18446744073709551616"}) {
        EXPECT_THROW(number_of_event(wrong), api_error) << wrong;
    }
}

TEST(Flaps, ShowTheirRateInTheTimeThatWasCounted)
{
    const struct {
        uint32_t moves;
        int64_t counted_ms;
        const char *per_minute;
    } rows[] = {{2, 300'000, "0.4"}, {7, 60'000, "7.0"}, {3, 1'000, "180.0"}, {2, 0, "120.0"}};
    for (const auto &row : rows) {
        json_writer json;
        write_flap(json, {.moves = row.moves, .place = on_p1, .other = on_vxlan}, row.counted_ms);
        const auto item = nlohmann::json::parse(json.take());
        EXPECT_EQ(item["per-minute"], row.per_minute);
        EXPECT_EQ(item["other-vtep"], "10.0.0.2");
    }
}

} // namespace
