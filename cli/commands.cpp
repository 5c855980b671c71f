// SPDX-License-Identifier: Apache-2.0

#include "cli/commands.h"

#include <algorithm>
#include <cerrno>

#include "base/result.h"
#include "cli/ending.h"
#include "cli/failure.h"
#include "cli/output/bridge_form.h"
#include "cli/output/printer.h"
#include "cli/query/plans.h"

namespace l2fibctl {

namespace {

using clock = std::chrono::steady_clock;

// ---- Showing ----

// Prints an item, or leaves it out.
using item_action = std::function<void(json_value item)>;

// Where the items of one command go.
struct display {
    query_session &session;
    output &out;
    item_printer &printer;

    uint64_t room() const { return session.options.limit - printer.count(); }
    bool makes_bridge_form() const { return session.options.shown_as == form::bridge_json; }
};

// Prints the items of one query that the filter accepts. Returns false once --limit is reached.
bool print_query(display &to, const list_request &list, const item_filter &filter, const item_action &print)
{
    // The daemon can limit the items only if the client prints every item that it receives.
    const uint64_t max_items = filter.empty() && !to.makes_bridge_form() ? to.room() : no_limit;
    return for_each_page(to.session, list, max_items, [&](const page &current) {
        for (const json_value item : current.items) {
            if (filter.accepts(item)) {
                print(item);
            }
            if (to.room() == 0) {
                return false;
            }
        }
        to.out.flush();
        return true;
    });
}

// Prints the items of all queries. If the daemon does not have what one of them names, the others still run. Then the
// result is a failure with the daemon's message about the first such query.
base::result print_plan(display &to, std::string_view name, const query_plan &plan, const item_action &print)
{
    base::result found;
    for (const query &one : plan.queries) {
        if (!one.scope.empty()) {
            to.printer.set_scope(one.scope);
        }
        try {
            if (!print_query(to, {one.path, name, one.has_pages}, plan.filter, print)) {
                return found;
            }
        } catch (const failure &error) {
            if (error.status != exit_status::nothing_found) {
                throw;
            }
            found = found.ok() ? base::failure(ENOENT, error.what()) : found;
        }
    }
    return found;
}

// Prints the entries of `plan`, then those of the VXLAN devices. Returns the result of the first.
base::result print_bridge_form(display &to, const query_plan &plan)
{
    bridge_names bridges;
    for_each_item(to.session, domains, [&](json_value item) {
        bridges.insert_or_assign(number_of(item, "bridge-id"), text_of(item, "bridge"));
    });
    const auto print = [&](const std::string &entry) {
        if (!entry.empty()) {
            to.printer.ready_item(entry);
        }
    };
    base::result found =
        print_plan(to, mac_entries.name, plan, [&](json_value item) { print(bridge_entry_of(item, bridges)); });
    // --flagged selects entries of bridges, and VXLAN devices have none.
    if (to.room() > 0 && !to.session.options.flagged) {
        // Its result does not count: the first plan has named a missing domain or port already.
        static_cast<void>(print_plan(to, tunnel_entries.name, plan_tunnel(to.session),
                                     [&](json_value item) { print(device_entry_of(item)); }));
    }
    return found;
}

// Returns a failure if the domain, port or address of the command does not exist.
base::result print_view(display &to, const view &selected)
{
    try {
        const query_plan plan = selected.make_plan(to.session);
        if (to.makes_bridge_form()) {
            return print_bridge_form(to, plan);
        }
        return print_plan(to, selected.shown->name, plan, [&](json_value item) { to.printer.item(item); });
    } catch (const failure &error) {
        if (error.status != exit_status::nothing_found) {
            throw;
        }
        return base::failure(ENOENT, error.what());
    }
}

// Corrects the result of print_view by the number of printed items: some items are a success, none are a failure.
base::result found_of(uint64_t printed, const base::result &by_name)
{
    if (printed > 0) {
        return base::success();
    }
    return by_name.ok() ? base::failure(ENOENT, "nothing found: no item matches") : by_name;
}

void show(query_session &session)
{
    const view &selected = view_of(session.options);
    output out(session.progress_line, session.options.strict);
    item_printer printer(session.options.shown_as, *selected.shown, out);
    display to = {session, out, printer};
    const base::result by_name = print_view(to, selected);
    const base::result found = found_of(printer.count(), by_name);
    printer.end();
    mark_changed_ports(session);
    end_answer(session, out, found, selected.heeds_mark);
}

// ---- Resync ----

constexpr char resync_path[] = "/restconf/operations/l2fib-mac:resync";

std::string domain_member(const std::string &name)
{
    text_buffer member;
    member.put(R"("domain":)");
    put_text(member, name);
    member.put(',');
    return std::string(member.text());
}

// Returns the scope of each request of the command, as a member of its JSON input. No member means everything.
std::vector<std::string> resync_scopes(query_session &session)
{
    const client_options &options = session.options;
    if (!options.domain.empty()) {
        return {domain_member(options.domain)};
    }
    if (options.port.empty()) {
        return {""};
    }
    std::vector<std::string> scopes;
    for (const named_port &port : find_ports(session)) {
        scopes.push_back(R"("port":)" + std::to_string(port.xcid) + ",");
    }
    return scopes;
}

// The daemon waits one second less than the client, so that its message arrives before the client gives up.
int64_t wait_seconds(clock::time_point deadline)
{
    const auto left = std::chrono::round<std::chrono::seconds>(deadline - clock::now());
    return std::max<int64_t>(0, left.count() - 1);
}

void send_resync(query_session &session, const std::string &scope, int64_t wait, page &reply)
{
    const std::string body = R"({"l2fib-mac:input":{)" + scope + R"("wait":)" + std::to_string(wait) + "}}";
    fetch(session.daemon, {resync_path, true, body}, "", reply, [&session] { session.progress_line.tick(); });
    session.worst.add(reply.completeness);
}

// An answer without a body has only the word of completeness, so the reason comes from the daemon's health. Without an
// answer there is no reason, and the command ends as it would have done.
void ask_for_reason(query_session &session)
{
    page reply;
    try {
        fetch(session.daemon, {data_path(health.name)}, health.name, reply,
              [&session] { session.progress_line.tick(); });
    } catch (const failure &) {
        return;
    }
    if (reply.completeness.state == session.worst.state) {
        session.worst.add(reply.completeness);
    }
}

void resync(query_session &session)
{
    const auto deadline = clock::now() + std::chrono::seconds(session.options.timeout_seconds);
    const std::vector<std::string> scopes = resync_scopes(session);
    session.progress_line.set_text("waiting for the forwarding plane");
    page reply;
    for (auto scope = scopes.begin(); scope != scopes.end() && !reply.problem; scope++) {
        send_resync(session, *scope, wait_seconds(deadline), reply);
    }
    const bool is_missing = reply.problem && reply.problem->status == exit_status::nothing_found;
    if (session.worst.state != completeness::whole && (is_missing || !reply.problem)) {
        ask_for_reason(session);
        fail_incomplete(session.worst, is_missing ? base::failure(ENOENT, reply.problem->what()) : base::success());
    }
    if (reply.problem) {
        throw failure(*reply.problem);
    }
}

} // namespace

void run(const client_options &options)
{
    query_session session{options};
    if (options.command == command_kind::resync) {
        resync(session);
    } else {
        show(session);
    }
}

} // namespace l2fibctl
