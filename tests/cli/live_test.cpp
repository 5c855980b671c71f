// SPDX-License-Identifier: Apache-2.0

// The parts of `monitor`, `top` and --watch that need neither a terminal nor l2fibd.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli/live/full_screen.h"
#include "cli/live/screen.h"
#include "cli/live/top_model.h"
#include "cli/query/event_stream.h"
#include "cli/query/places.h"

namespace l2fibctl {
namespace {

using strings = std::vector<std::string>;

// Feeds the text in pieces of one size. Returns the events as "id type data", and the last id.
strings events_in(const std::string &text, size_t piece_size)
{
    event_stream stream;
    strings found;
    for (size_t at = 0; at < text.size(); at += piece_size) {
        EXPECT_TRUE(stream.feed(std::string_view(text).substr(at, piece_size), [&](const stream_event &event) {
            found.push_back(event.id + " " + event.type + " " + event.data);
        }));
    }
    found.push_back(stream.last_id());
    return found;
}

TEST(EventStream, IsReadInPiecesOfAnySize)
{
    const struct {
        std::string text;
        strings expected;
    } rows[] = {
        {"id: 1-2\nevent: moved\ndata: {\"a\":1}\n\n", {"1-2 moved {\"a\":1}", "1-2"}},
        {"event:a\r\ndata:x\r\ndata: y\r\n\r\ndata:z\r\r", {" a x\ny", "  z", ""}},
        {": nothing new\n\nid: 5\n\ndata\n\n", {"5  ", "5"}},  // an id without an event
        {"id: 7\ndata: x\n\nid: 8\ndata: cut", {"7  x", "7"}}, // the end of the second did not arrive
        {"other: x\ndata: a:b\n\nevent: b\n\ndata: c\n\n", {"  a:b", "  c", ""}},
    };
    for (const auto &row : rows) {
        for (size_t size = 1; size <= row.text.size(); size++) {
            EXPECT_EQ(events_in(row.text, size), row.expected) << row.text << size;
        }
    }
    event_stream endless;
    const std::string piece(size_t(64) * 1024, 'x');
    int pieces = 0;
    while (endless.feed(piece, {})) {
        ASSERT_LT(++pieces, 100);
    }
}

TEST(Places, AreOneTextEach)
{
    const struct {
        std::string item;
        std::string added;
    } rows[] = {
        {R"({"event":"learned","port":"p1"})", R"(,"to":"p1")"},
        {R"({"event":"moved","from-port":"p1","port":"vx","vtep":"192.0.2.1"})", R"(,"from":"p1","to":"vx/192.0.2.1")"},
        {R"({"event":"moved","from-port":"vx","from-vtep":"192.0.2.1"})", R"(,"from":"vx/192.0.2.1")"},
        {R"({"event":"aged","port":"p1"})", R"(,"from":"p1")"},
        {R"({"moves":2,"port":"p2","other-port":"p1"})", R"(,"from":"p1","to":"p2")"},
        {R"({"event":"removed"})", ""},
    };
    for (const auto &row : rows) {
        json_document document;
        EXPECT_EQ(with_places(document.parse(row.item)), row.item.substr(0, row.item.size() - 1) + row.added + "}");
    }
}

TEST(Screen, IsCutToItsSize)
{
    const std::string wide = "stra\xc3\x9f"
                             "e";
    EXPECT_EQ(cut_line(wide, 5), wide.substr(0, 6));
    EXPECT_EQ(cut_line("\x1b[31mabc\x1b[0m", 2), "\x1b[31mab\x1b[0m");
    EXPECT_EQ(cut_line("ab", 2), "ab");

    line_window window(3);
    for (const std::string piece : {"one\ntw", "o\n", "three\nfour\nfi", "ve"}) {
        window.add(piece);
    }
    EXPECT_EQ(window.count(), 5u);
    EXPECT_EQ(fit_lines(window, 3), (strings{"one", "two", "(3 rows are not shown)"}));
    EXPECT_EQ(fit_lines(window, 1), (strings{"(5 rows are not shown)"}));
    line_window short_text(3);
    short_text.add("one\ntwo\n");
    EXPECT_EQ(fit_lines(short_text, 2), (strings{"one", "two"}));

    EXPECT_EQ(frame_of({"abc", "d"}, {3, 2}), "\x1b[Hab\x1b[K\r\nd\x1b[K\x1b[J");
    EXPECT_EQ(frame_of({"a", "b", "c"}, {2, 9}), "\x1b[Ha\x1b[K\r\nb\x1b[K"); // a last '\n' would scroll the screen
}

TEST(Keys, ArriveWholeAndInPieces)
{
    const key q = {key_kind::character, "q"};
    const key sharp_s = {key_kind::character, "\xc3\x9f"};
    const struct {
        std::string bytes;
        std::vector<key> expected;
    } rows[] = {
        {"q\r\x7f", {q, {key_kind::enter}, {key_kind::backspace}}},
        {"\x1b[A\x1bOB\x1b[5~\x1b[6~", {{key_kind::up}, {key_kind::down}, {key_kind::page_up}, {key_kind::page_down}}},
        {"\x1b[1;5Cq\x1b[200~q\x01", {q, q}}, // unknown sequences and control characters
        {"\x1bq", {{key_kind::escape}, q}},
        {"\xc3\x9fq\xffq", {sharp_s, q, q}},
        {"\x1b", {{key_kind::escape}}},
    };
    for (const auto &row : rows) {
        for (size_t size = 1; size <= row.bytes.size(); size++) {
            key_decoder decoder;
            std::vector<key> found;
            for (size_t at = 0; at < row.bytes.size(); at += size) {
                const auto more = decoder.feed(std::string_view(row.bytes).substr(at, size));
                found.insert(found.end(), more.begin(), more.end());
            }
            if (const auto last = decoder.flush()) {
                found.push_back(*last);
            }
            EXPECT_EQ(found, row.expected) << row.bytes << size;
        }
    }
}

top_row row_in(const std::string &item)
{
    json_document document;
    return row_of(document.parse(item));
}

strings names_of(const std::vector<const top_row *> &rows)
{
    strings names;
    for (const top_row *row : rows) {
        names.push_back(row->name);
    }
    return names;
}

const top_sample before = {row_in(R"({"xcid":1,"name":"p10","domain":"d","entries":5,"changes":"100"})"),
                           row_in(R"({"xcid":2,"name":"p2","domain":"d","entries":9,"changes":"100"})"),
                           row_in(R"({"xcid":3,"name":"P1","domain":"d","entries":7,"changes":"100"})")};

TEST(Top, ComputesRatesFromTwoSamples)
{
    top_sample now = {row_in(R"({"xcid":1,"name":"p10","domain":"d","entries":5,"changes":"105"})"),
                      row_in(R"({"xcid":2,"name":"p2","domain":"d","entries":9,"changes":"99"})"),
                      row_in(R"({"xcid":4,"name":"P1","domain":"d","entries":7,"changes":"900"})")};
    add_rates(now, before, 2);
    EXPECT_EQ(now[0].rate, 2.5);
    EXPECT_EQ(now[1].rate, std::nullopt) << "the daemon was restarted";
    EXPECT_EQ(now[2].rate, std::nullopt) << "a new port with an old name";
    EXPECT_EQ(item_with_rate(now[0]),
              R"({"xcid":1,"name":"p10","domain":"d","entries":5,"changes":"105","changes-per-second":"2.5"})");
    EXPECT_EQ(item_with_rate(now[1]), now[1].item);
    EXPECT_EQ(names_of(pick_rows(now, {})), (strings{"p10", "P1", "p2"})) << "without a rate by changes";
    const top_row flap = row_in(R"({"domain":"d","mac-address":"m","moves":6,"per-minute":"1.2","port":"p"})");
    EXPECT_EQ(flap.rate, 1.2);
    EXPECT_EQ(flap.changes, 6u);
}

TEST(Top, SortsAndFilters)
{
    const struct {
        top_state state;
        strings expected;
    } rows[] = {
        {{.order = top_order::name}, {"P1", "p2", "p10"}},
        {{.order = top_order::entries}, {"p2", "P1", "p10"}},
        {{.order = top_order::entries, .filter = "P1"}, {"P1", "p10"}},
        {{.filter = "D"}, {"P1", "p2", "p10"}},
        {{.filter = "entries"}, {}},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(names_of(pick_rows(before, row.state)), row.expected) << row.state.filter;
    }
}

TEST(Top, FollowsItsKeys)
{
    const auto character = [](const char *text) { return key{key_kind::character, text}; };
    top_state state;
    const auto press = [&](const std::vector<key> &keys) {
        for (const key &one : keys) {
            apply(state, one, 50, 20);
        }
    };
    press({{key_kind::page_down}, {key_kind::down}});
    EXPECT_EQ(state.offset, 21u);
    press({{key_kind::page_down}});
    EXPECT_EQ(state.offset, 30u) << "the last page is full";
    press({{key_kind::home}, {key_kind::up}});
    EXPECT_EQ(state.offset, 0u);
    press({{key_kind::end}, character("s")});
    EXPECT_EQ(state.offset, 0u);
    EXPECT_EQ(state.order, top_order::entries);
    press({character("s"), character("s")});
    EXPECT_EQ(state.order, top_order::changes);
    press({character("/"),
           character("q"),
           character("\xc3\x9f"),
           {key_kind::backspace},
           character("s"),
           {key_kind::enter}});
    EXPECT_EQ(state.filter, "qs");
    EXPECT_FALSE(state.has_ended);
    press({character("/"), {key_kind::escape}, character("q")});
    EXPECT_EQ(state.filter, "");
    EXPECT_TRUE(state.has_ended);
    state = {.has_entries = false};
    press({character("s")});
    EXPECT_EQ(state.order, top_order::name);
}

} // namespace
} // namespace l2fibctl
