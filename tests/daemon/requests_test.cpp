// SPDX-License-Identifier: Apache-2.0

// From a request to its answer without a forwarding plane: lists over a table that changes, deadlines of requests, and
// the mapping of URIs to resources.

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "daemon/api/filters.h"
#include "daemon/api/lists/list.h"
#include "daemon/api/lists/sort_places.h"
#include "daemon/api/resources.h"
#include "daemon/http/request_deadlines.h"
#include "daemon/http/target.h"

using namespace l2fibd;

namespace {
constexpr uint32_t standing_step = 3, max_number = 2100;

// The multiples of three. They stay in the table; other numbers come and go.
const std::set<uint32_t> standing = [] {
    std::set<uint32_t> numbers;
    for (uint32_t number = standing_step; number <= max_number; number += standing_step) {
        numbers.insert(number);
    }
    return numbers;
}();

struct number_table {
    std::set<uint32_t> numbers = standing;
    std::function<void(number_table &table, uint32_t last)> change = [](auto &, uint32_t) {}; // after each page
    uint32_t failing_page = UINT32_MAX, pages = 0;
};

// Lists the numbers after `start` in ascending order, with empty pages between. A key is the last number of a page.
struct number_source : list_source {
    number_table &table;
    uint32_t last;
    number_source(number_table &listed, uint64_t start)
        : table(listed)
        , last(static_cast<uint32_t>(start))
    {}
    position fetch(uint32_t max_items, json_writer &json) override
    {
        EXPECT_TRUE(max_items >= 1 && max_items <= max_page_items) << max_items;
        if (++table.pages == table.failing_page) {
            throw unavailable("numbers: gone");
        }
        position at;
        max_items = table.pages % 3 == 2 ? 0 : max_items; // a source whose filter rejects all rows of a page
        auto next = table.numbers.upper_bound(last);
        for (; next != table.numbers.end() && at.count < max_items; next++, at.count++) {
            json.number(*next);
            last = *next;
        }
        at.more = next != table.numbers.end();
        at.key = std::to_string(last);
        table.change(table, last);
        return at;
    }
};

// Follows the cursors as a client does. Returns the numbers of all answers.
std::vector<uint32_t> read_all(number_table &table, uint64_t limit)
{
    const resync_requester resyncs;
    std::vector<uint32_t> read;
    for (std::string key = "0"; !key.empty();) {
        list_stream stream("number", std::make_unique<number_source>(table, std::stoul(key)), limit, resyncs);
        std::string text;
        for (std::string page; !stream.finished(); text += page) {
            stream.write_next(page);
        }
        const auto answer = nlohmann::json::parse(text);
        EXPECT_LE(answer["l2fib-mac:number"].size(), limit);
        std::ranges::copy(answer["l2fib-mac:number"], std::back_inserter(read));
        key = answer.contains("l2fib-mac:next-cursor") ? key_of_cursor(answer["l2fib-mac:next-cursor"]) : "";
    }
    return read;
}

// Adds or erases every other number near the page's end, so also the number that the cursor names.
void stir(number_table &table, uint32_t last)
{
    for (uint32_t number = std::max(last, 21u) - 20; number < std::min(last + 20, max_number); number++) {
        if (number % standing_step != 0 && table.numbers.erase(number) == 0) {
            table.numbers.insert(number);
        }
    }
}

TEST(Lists, HaveEachStandingItemOnceWhileTheTableChanges)
{
    for (const uint64_t limit : std::vector<uint64_t>{1, 7, 199, 200, 201, 700, list_stream::no_limit}) {
        number_table still, stirred{.change = stir};
        EXPECT_EQ(read_all(still, limit), std::vector(standing.begin(), standing.end())) << limit;
        const std::vector<uint32_t> read = read_all(stirred, limit);
        EXPECT_TRUE(std::ranges::is_sorted(read, std::less_equal())) << limit; // so no number appears twice
        EXPECT_TRUE(std::ranges::includes(read, standing)) << limit;
        number_table emptied{.change = [](number_table &table, uint32_t) { table.numbers.clear(); }};
        EXPECT_EQ(read_all(emptied, limit).size(), std::min<uint64_t>(limit, max_page_items)) << limit;
    }
}

TEST(Lists, EndWithTheErrorOfALaterPage)
{
    for (const bool is_stopping : {false, true}) {
        resync_requester resyncs;
        number_table table{.failing_page = is_stopping ? UINT32_MAX : 2};
        list_stream stream("number", std::make_unique<number_source>(table, 0u), list_stream::no_limit, resyncs);
        std::string text;
        stream.write_next(text);
        if (is_stopping) {
            resyncs.give_up();
        }
        std::string last_page;
        stream.write_next(last_page);
        text += last_page;
        EXPECT_TRUE(stream.finished());
        EXPECT_FALSE(nlohmann::json::accept(text)) << "a cut list must not parse";
        const auto answer = nlohmann::json::parse(text + "}");
        EXPECT_EQ(answer["l2fib-mac:number"].size(), max_page_items);
        EXPECT_EQ(answer["ietf-restconf:errors"]["error"][0]["error-message"], stream.failure());
        EXPECT_NE(stream.failure().find(is_stopping ? "stopping" : "gone"), std::string::npos) << stream.failure();
        list_stream late("number", std::make_unique<number_source>(table, 0u), list_stream::no_limit, resyncs);
        table.failing_page = table.pages + 1;
        EXPECT_THROW(late.write_next(text), api_error); // no page is sent yet, so the answer gets the error's status
    }
}

// A list takes back the selection that it kept, and no other list gets it.
TEST(KeptSelections, ContinueOneListOnce)
{
    using forwarding::row_order;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto now_ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    const auto selection_at = [](uint64_t value, int64_t selected_ms) {
        forwarding::order_selection selection{.keys = {{1, 0}, {2, 1}, {3, 2}, {4, 3}, {9, 4}},
                                              .selected_ms = selected_ms};
        forwarding::seek(selection, {value, 7, true, 5});
        return selection;
    };
    kept_selections selections;
    selections.keep(selection_at(1, now_ms - 60'000)); // stale
    selections.keep(selection_at(9, now_ms));          // nothing is left
    for (uint64_t value = 0; value < 4; value++) {
        selections.keep(selection_at(value, now_ms));
    }
    selections.keep(selection_at(4, now_ms)); // there is room for four: the first one goes
    EXPECT_FALSE(selections.take({row_order::created}, {0, 7, true, 5}));
    EXPECT_FALSE(selections.take({row_order::created}, {9, 7, true, 5}));
    EXPECT_FALSE(selections.take({row_order::created}, {2, 7, true, 6}));
    EXPECT_FALSE(selections.take({row_order::last_seen}, {2, 7, true, 5}));
    const auto taken = selections.take({row_order::created}, {2, 7, true, 5});
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->keys[taken->next].value, 3u);
    EXPECT_FALSE(selections.take({row_order::created}, {2, 7, true, 5}));
}

struct socket_pair {
    int ends[2] = {-1, -1};
    int &server = ends[0];
    socket_pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }
    ~socket_pair() { static_cast<void>(close(ends[0]) + close(ends[1])); }
    bool is_cut(int milliseconds) const // waits at most this long
    {
        pollfd client = {ends[1], POLLIN, 0};
        return poll(&client, 1, milliseconds) == 1;
    }
};

TEST(RequestDeadlines, CutOnlySocketsWhoseTimeHasPassed)
{
    constexpr std::chrono::seconds soon(1), late(3600);
    constexpr int long_enough = 20'000, at_once = 0;
    const socket_pair patient, urgent, forgotten, extended, last;
    request_deadlines deadlines;
    deadlines.start();
    deadlines.expect_request(patient.server, late);
    deadlines.expect_request(urgent.server, std::chrono::seconds(0)); // before the deadline that the thread waits for
    EXPECT_TRUE(urgent.is_cut(long_enough));
    deadlines.expect_request(forgotten.server, soon);
    deadlines.forget(forgotten.server);
    deadlines.expect_request(extended.server, soon);
    deadlines.expect_request(extended.server, late);
    deadlines.expect_request(last.server, soon); // once this one is cut, the two above would have been cut as well
    EXPECT_TRUE(last.is_cut(long_enough));
    deadlines.stop(); // does not wait for the late deadlines
    deadlines.stop();
    EXPECT_FALSE(patient.is_cut(at_once) || forgotten.is_cut(at_once) || extended.is_cut(at_once));
}

// The error with which a request is refused.
api_error refusal_of(std::string_view method, std::string_view uri)
{
    resync_requester resyncs;
    kept_selections selections;
    request_durations durations;
    const api_context context{resyncs, selections, [] { return server_health(); }, durations};
    try {
        answer_request({method, std::string("/restconf/").append(uri)}, context);
    } catch (const api_error &error) {
        return error;
    }
    ADD_FAILURE() << uri << " was not refused";
    return invalid("");
}

TEST(Routing, RefusesByPathThenMethodThenParameters)
{
    const struct {
        std::string_view method, uri;
        unsigned status;
        std::string_view tag, text, allow = {};
    } rows[] = {
        {"POST", "data/l2fib-mac:nothing?x=y", 404, "unknown-element", "nothing"},
        {"GET", "data/l2fib-mac:mac-count/", 404, "unknown-element", "mac-count/"},
        {"GET", "data/l2fib-mac:domains/domain=a/b", 404, "unknown-element", "=*/b"},
        {"GET", "data/l2fib-mac:domains/domain=a%2Fb", 404, "invalid-value", "\"a/b\""},
        {"GET", "data/l2fib-mac:domains/domain=*", 404, "invalid-value", "\"*\""},
        {"PUT", "data/l2fib-mac:mac-count?x=y", 405, "operation-not-supported", "PUT", "GET, HEAD"},
        {"GET", "operations/l2fib-mac:resync", 405, "operation-not-supported", "GET", "POST"},
        {"GET", "data/l2fib-mac:ports/port?mac=x", 400, "invalid-value", "limit, cursor"},
        {"GET", "data/l2fib-mac:ports/port=1?limit=1", 400, "invalid-value", "none"},
    };
    for (const auto &row : rows) {
        const api_error error = refusal_of(row.method, row.uri);
        EXPECT_EQ(std::tuple(static_cast<unsigned>(error.status), error.tag, error.allow),
                  std::tuple(row.status, row.tag, row.allow))
            << row.uri;
        EXPECT_NE(error.message.find(row.text), std::string::npos) << error.message;
    }
}

TEST(Filters, RefuseWrongAndContradictoryParameters)
{
    constexpr std::string_view table = "data/l2fib-mac:mac-table/mac-entry?";
    const struct {
        std::string_view parameters, message;
    } rows[] = {
        {"vlan=0", "vlan \"0\": expected a number from 1 to 4094"},
        {"not-vlan=4095", "not-vlan \"4095\": expected a number from 1 to 4094"},
        {"vni=16777216", "vni \"16777216\": expected a number from 1 to 16777215"},
        {"vtep=10.0.0", "vtep \"10.0.0\": expected an IPv4 or IPv6 address"},
        {"not-vtep=::", "not-vtep \"::\": expected an IPv4 or IPv6 address"},
        {"type=dynamic", "type \"dynamic\": expected learned, static or local"},
        {"mac-prefix=02:00:5g", "mac-prefix \"02:00:5g\": expected 1 to 12 hexadecimal digits"},
        {"older-than=1w", "older-than \"1w\": expected an age"},
        {"domain=", "domain \"\": expected the name"},
        {"port=", "port \"\": expected the name"},
        {"vlan=1&vlan=2", "\"vlan\": expected once"},
        {"type=static&not-type=local&not-type=static", "\"type=static, not-type=local, not-type=static\""},
        {"not-type=learned&not-type=static&not-type=local", "can meet together"},
        {"mac-prefix=02:00:5e&not-mac-prefix=0200", "can meet together"},
        {"older-than=10m&newer-than=5m", "\"older-than=10m, newer-than=5m\""},
        {"newer-than=0", "can meet together"},
        {"older-than=4294967295", "can meet together"},
        {"not-older-than=4&not-newer-than=5", "can meet together"},
        {"port=p1&not-port=p1", "can meet together"},
        {"mac=02:00:00:00:00:01&mac-prefix=03", "mac \"02:00:00:00:00:01\": expected an address that"},
        {"sort=name", "sort \"name\": expected one of mac, port, age, created, vlan"},
        {"reverse=true", "reverse \"true\": expected together with sort"},
        {"sort=mac&reverse=maybe", "reverse \"maybe\": expected true or false"},
        {"sort=mac&mac=02:00:00:00:00:01", "sort \"mac\": expected without mac"},
        {"with-since=1", "with-since \"1\": expected true or false"},
        {"by=domain", "parameter \"by\": expected one of limit, cursor, flagged, mac"},
    };
    for (const auto &row : rows) {
        const api_error error = refusal_of("GET", std::string(table).append(row.parameters));
        EXPECT_EQ(error.status, http_status::bad_request) << row.parameters;
        EXPECT_NE(error.message.find(row.message), std::string::npos) << error.message;
    }
    std::string repeated(table);
    for (int times = 0; times < 65; times++) {
        repeated += "not-vlan=1&";
    }
    EXPECT_NE(refusal_of("GET", repeated + "limit=1").message.find("at most 64 times, given 65"), std::string::npos);
    for (const char *uri : {"mac-counts/mac-count", "mac-counts/mac-count?by=age", "mac-aging/mac-entry?reverse=true",
                            "domains/domain?type=local", "vteps/vtep?mac-prefix=02", "mac-aging/mac-entry?sort=mac"}) {
        EXPECT_EQ(refusal_of("GET", std::string("data/l2fib-mac:").append(uri)).status, http_status::bad_request)
            << uri;
    }
}

TEST(Filters, NameDomainsAndPorts)
{
    const named_place vlan_10{.domain = "lab:br0.10", .vlan = 10, .port = "p1", .xcid = 7};
    const named_place dotted{.domain = "lab:br0.10", .port = "p2", .xcid = 8}; // a bridge called br0.10
    const named_place own{.domain = "lab:br1", .bridge = "br 1"};
    const struct {
        const char *parameters;
        named_place at;
        bool passes;
    } rows[] = {
        {"domain=lab:br0.10", vlan_10, true},
        {"domain=br0.10", vlan_10, true},
        {"domain=br0", vlan_10, true},
        {"domain=br0", dotted, false},
        {"domain=br0.10", dotted, true},
        {"domain=br", vlan_10, false},
        {"domain=lab", vlan_10, false},
        {"domain=br%201", own, true},
        {"not-domain=br0", vlan_10, false},
        {"not-domain=br0", own, true},
        {"port=p1", vlan_10, true},
        {"port=7", vlan_10, true},
        {"port=p", vlan_10, false},
        {"port=0", own, false},
        {"not-port=p1", own, true},
        {"not-port=8", dotted, false},
        {"not-port=p1&not-port=p2", dotted, false},
        {"domain=br0&port=p1&not-port=p2", vlan_10, true},
    };
    for (const auto &row : rows) {
        const target to = parse_target(std::string("/x?").append(row.parameters));
        EXPECT_EQ(passes_names(parse_filters(to, filters_of_entries), row.at), row.passes) << row.parameters;
    }
}

// Nothing runs, so no sort waits.
TEST(SortPlaces, BoundHowManySortsRun)
{
    resync_requester resyncs;
    sort_places places;
    {
        std::vector<std::unique_ptr<sort_places::hold>> held;
        for (uint32_t count = 0; count < sort_places::max_sorts; count++) {
            held.push_back(std::make_unique<sort_places::hold>(places, resyncs));
        }
        try {
            const sort_places::hold one_more(places, resyncs);
            ADD_FAILURE() << "one more sort runs";
        } catch (const api_error &error) {
            EXPECT_EQ(error.status, http_status::unavailable);
            EXPECT_NE(error.message.find("2 other sorts run"), std::string::npos) << error.message;
        }
        held.pop_back();
        const sort_places::hold in_its_place(places, resyncs);
        resyncs.give_up();
        EXPECT_THROW(sort_places::hold(places, resyncs), api_error);
    }
    const sort_places::hold later(places, resyncs);
}

} // namespace
