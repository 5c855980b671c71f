// SPDX-License-Identifier: Apache-2.0

#include "cli/find.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <string_view>
#include <vector>

#include "cli/ending.h"
#include "cli/output/printer.h"
#include "cli/output/terminal.h"
#include "cli/query/places.h"
#include "cli/query/plans.h"
#include "cli/query/resources.h"

namespace l2fibctl {

namespace {

constexpr std::string_view unknown_since = "not known: the address was there when l2fibd started";

struct findings {
    std::vector<std::string> places = {}; // items as JSON
    std::vector<std::string> moves = {};
    std::string history_since = {};
};

std::vector<std::string> read_items(query_session &session, const list_request &list, std::string &history_since)
{
    std::vector<std::string> items;
    for_each_page(session, list, session.options.limit, [&](const page &current) {
        for (const json_value item : current.items) {
            items.push_back(json_text(item));
        }
        history_since = current.history_since;
        return true;
    });
    return items;
}

findings find_all(query_session &session)
{
    const client_options &options = session.options;
    const auto path = [&](std::string_view list) {
        return with_filters(with_parameter(data_path(list), "mac", options.address), options);
    };
    findings found;
    std::string none;
    found.places = read_items(session, {path("mac-table/mac-entry"), mac_entries.name}, none);
    found.moves = read_items(session, {path("moves/move"), moves.name}, found.history_since);
    return found;
}

void put_array(text_buffer &to, std::string_view name, const std::vector<std::string> &items)
{
    put_name(to, ',', name);
    to.put('[');
    for (const std::string &item : items) {
        to.put(&item == items.data() ? "" : ",");
        to.put(item);
    }
    to.put(']');
}

std::string nowhere_text(const std::string &address, const findings &found)
{
    const std::string since =
        found.history_since.empty() ? "" : " since " + found.history_since + ", when the history begins";
    return "nothing found: no bridge domain has " + address + ", and it has not moved" + since;
}

// ---- JSON ----

std::string json_of(const std::string &address, const findings &found)
{
    text_buffer made;
    put_name(made, '{', "mac-address");
    put_text(made, address);
    put_array(made, mac_entries.name, found.places);
    put_array(made, moves.name, found.moves);
    put_name(made, ',', "history-since");
    put_text(made, found.history_since);
    made.put('}');
    return std::string(made.text());
}

// ---- Text ----

// Seconds from the time until now. The text is that of the API: "2026-11-23T11:15:06.123Z".
int64_t seconds_since(const std::string &text)
{
    std::tm time = {};
    if (strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &time) == nullptr) {
        fail_damaged();
    }
    const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    return std::max<int64_t>(0, now - timegm(&time));
}

// Adds how long the address has been there.
std::string with_since(json_value place)
{
    const std::string since(text_of(place, "since"));
    text_buffer made;
    made.put(json_text(place));
    made.shorten(made.size() - 1);
    put_name(made, ',', since.empty() ? "since" : "since-age");
    since.empty() ? put_text(made, unknown_since) : made.put(std::to_string(seconds_since(since)));
    made.put('}');
    return std::string(made.text());
}

void print_record(output &out, const resource &shown, const look &wanted, const std::string &json)
{
    json_document document;
    item_printer printer(form::text, shown, wanted, out);
    printer.item(document.parse(json));
}

void print_text(output &out, const findings &found, const look &wanted)
{
    json_document document;
    for (const std::string &place : found.places) {
        print_record(out, found_places, wanted, with_since(document.parse(place)));
        out.pending().put('\n');
    }
    std::vector<std::string> placed;
    for (const std::string &move : found.moves) {
        placed.push_back(with_places(document.parse(move)));
    }
    text_buffer rest;
    put_name(rest, '{', "history-since");
    put_text(rest, found.history_since);
    if (found.places.empty()) {
        put_name(rest, ',', "now");
        put_text(rest, "in no bridge domain");
    }
    put_array(rest, moves.name, placed);
    rest.put('}');
    print_record(out, found_moves, wanted, std::string(rest.text()));
}

} // namespace

void find_address(query_session &session)
{
    const client_options &options = session.options;
    const findings found = find_all(session);
    if (found.places.empty() && found.moves.empty()) {
        output none(session.progress_line, false, "");
        end_answer(session, none, base::failure(ENOENT, nowhere_text(options.address, found)));
        return;
    }
    output out(session.progress_line, options.strict, pager_command(options.no_pager));
    if (options.shown_as == form::text) {
        print_text(out, found, look_of(options));
    } else {
        out.pending().put(json_of(options.address, found) + "\n");
    }
    end_answer(session, out, base::success());
}

} // namespace l2fibctl
