// SPDX-License-Identifier: Apache-2.0

#include "cli/commands.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/failure.h"
#include "cli/output/bridge_form.h"
#include "cli/output/printer.h"
#include "cli/query/plans.h"

namespace l2fibctl {

namespace {

using clock = std::chrono::steady_clock;

// ---- Showing ----

// Prints an item, or leaves it out.
using item_printer = std::function<void(const json_value &item)>;

struct shown {
    session &with;
    output &out;
    printer &to;

    bool is_full() const { return to.printed() >= with.how.limit.value_or(UINT64_MAX); }
};

// Whether the printer wants more.
bool print_part(shown &of, std::string_view name, const part &one, const item_filter &filter, const item_printer &print)
{
    const bool daemon_limits = filter.empty() && of.with.how.shown_as != form::bridge_json;
    const uint64_t most = daemon_limits ? of.with.how.limit.value_or(UINT64_MAX) - of.to.printed() : UINT64_MAX;
    return for_each_page(of.with, {one.path, name, one.has_pages}, most, [&](const page &now) {
        for (const json_value &item : now.items) {
            if (filter.accepts(item)) {
                print(item);
            }
            if (of.is_full()) {
                return false;
            }
        }
        of.out.flush();
        return true;
    });
}

// A part that does not exist is no failure where others do. Returns the daemon's message about the first of these.
std::string print_plan(shown &of, std::string_view name, const plan &from, const item_printer &print)
{
    std::string missing;
    for (const part &one : from.parts) {
        if (!one.scope.empty()) {
            of.to.set_scope(one.scope);
        }
        try {
            if (!print_part(of, name, one, from.filter, print)) {
                return missing;
            }
        } catch (const failure &error) {
            if (error.how != ending::nothing_found) {
                throw;
            }
            missing = missing.empty() ? error.message : missing;
        }
    }
    return missing;
}

std::string print_bridge_form(shown &of, const plan &from)
{
    bridge_names bridges;
    for_each_item(of.with, domains, [&](const json_value &item) {
        bridges.insert_or_assign(number_of(item, "bridge-id"), text_of(item, "bridge"));
    });
    const auto print = [&](const std::string &entry) {
        if (!entry.empty()) {
            of.to.ready_item(entry);
        }
    };
    std::string missing =
        print_plan(of, mac_entries.name, from, [&](const json_value &item) { print(bridge_entry_of(item, bridges)); });
    // --flagged picks entries of bridges only.
    if (!of.is_full() && !of.with.how.flagged) {
        print_plan(of, tunnel_entries.name, plan_tunnel(of.with),
                   [&](const json_value &item) { print(device_entry_of(item)); });
    }
    return missing;
}

// Returns why nothing exists that could be shown; empty when something may.
std::string print_command(shown &of, const planner &by)
{
    try {
        const plan from = by.make(of.with);
        if (of.with.how.shown_as == form::bridge_json) {
            return print_bridge_form(of, from);
        }
        return print_plan(of, by.shown->name, from, [&](const json_value &item) { of.to.item(item); });
    } catch (const failure &error) {
        if (error.how != ending::nothing_found) {
            throw;
        }
        return error.message;
    }
}

[[noreturn]] void fail_incomplete(const mark &worst, const std::string &missing)
{
    throw failure{ending::incomplete, (missing.empty() ? "" : missing + "; ") + worst.text()};
}

void show(session &with)
{
    const planner &by = planner_of(with.how);
    output out(with.progress_line, with.how.strict);
    printer to(with.how.shown_as, *by.shown, out);
    shown of = {with, out, to};
    std::string missing = print_command(of, by);
    missing = to.printed() > 0 ? "" : missing.empty() ? "nothing found" : missing;
    to.end();
    const bool is_whole = with.worst.state == completeness::whole || !by.takes_mark;
    if (is_whole || !with.how.strict) {
        out.release();
    }
    if (!is_whole) {
        fail_incomplete(with.worst, missing);
    }
    if (!missing.empty()) {
        throw failure{ending::nothing_found, missing};
    }
}

// ---- Resync ----

using nlohmann::json;

// What each request of the command brings up to date.
std::vector<json> resync_scopes(session &with)
{
    const options &how = with.how;
    if (!how.domain.empty()) {
        return {{{"domain", how.domain}}};
    }
    if (how.port.empty()) {
        return {json::object()};
    }
    std::vector<json> scopes;
    for (const named_port &port : find_ports(with)) {
        scopes.push_back({{"port", port.xcid}});
    }
    return scopes;
}

// The daemon waits for a second less than we do, so that its message arrives before we give up.
int64_t wait_seconds(clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::seconds>(deadline - clock::now() + std::chrono::milliseconds(500));
    return std::max<int64_t>(0, left.count() - 1);
}

void resync(session &with)
{
    const auto deadline = clock::now() + std::chrono::seconds(with.how.timeout_seconds);
    std::vector<json> scopes = resync_scopes(with);
    with.progress_line.set_text("waiting for the forwarding plane");
    page reply;
    for (json &input : scopes) {
        input["wait"] = wait_seconds(deadline);
        const std::string body = json{{"l2fib-mac:input", input}}.dump(-1, ' ', true, json::error_handler_t::replace);
        fetch(with.daemon, {"/restconf/operations/l2fib-mac:resync", true, body}, "", reply,
              [&with] { with.progress_line.tick(); });
        with.worst.add(reply.completeness);
        if (reply.problem) {
            break;
        }
    }
    const bool is_missing = reply.problem && reply.problem->how == ending::nothing_found;
    if (with.worst.state != completeness::whole && (is_missing || !reply.problem)) {
        fail_incomplete(with.worst, is_missing ? reply.problem->message : "");
    }
    if (reply.problem) {
        throw failure(*reply.problem);
    }
}

} // namespace

void run(const options &how)
{
    session with{how};
    if (how.what == command::resync) {
        resync(with);
    } else {
        show(with);
    }
}

} // namespace l2fibctl
