// SPDX-License-Identifier: Apache-2.0

#include "cli/commands.h"

#include <algorithm>
#include <cerrno>

#include "base/result.h"
#include "cli/completion.h"
#include "cli/failure.h"
#include "cli/help.h"
#include "cli/line/table.h"
#include "cli/output/bridge_form.h"
#include "cli/output/printer.h"
#include "cli/output/terminal.h"
#include "cli/query/plans.h"

namespace l2fibctl {

namespace {

using clock = std::chrono::steady_clock;

// A failed `found` says why nothing was found.
[[noreturn]] void fail_incomplete(const completeness_mark &worst, const base::result &found)
{
    throw failure(exit_status::incomplete, (found.ok() ? "" : found.text + "; ") + worst.text());
}

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

// Prints the items of one query. Returns false once --limit is reached.
bool print_query(display &to, const list_request &list, const item_action &print)
{
    // The daemon can limit the items only if the client prints every item that it receives.
    const uint64_t max_items = to.makes_bridge_form() ? no_limit : to.room();
    return for_each_page(to.session, list, max_items, [&](const page &current) {
        for (const json_value item : current.items) {
            print(item);
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
            if (!print_query(to, {one.path, name, one.has_pages}, print)) {
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
    if (to.room() > 0 && has_device_entries(to.session.options)) {
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

// The columns that name a group of show count.
struct group_columns {
    std::string_view word; // of --by
    std::vector<std::string> columns;
};

std::vector<std::string> columns_of_groups(std::string_view word)
{
    const group_columns rows[] = {{"domain", {"domain"}},
                                  {"port", {"domain", "port"}},
                                  {"vlan", {"vlan"}},
                                  {"vtep", {"vtep"}},
                                  {"type", {"origin"}}};
    std::vector<std::string> columns = std::ranges::find(rows, word, &group_columns::word)->columns;
    columns.insert(columns.end(), {"entries", "learned", "static", "local"});
    return columns;
}

look look_of(const client_options &options, const view &selected)
{
    look made = {options.columns, options.wide, !options.no_header, wants_colors(options.color),
                 is_on_terminal() && !options.wide};
    const bool is_usual = options.columns.empty() && !options.wide && options.shown_as == form::text;
    if (is_usual && selected.variant == groups_variant) {
        made.columns = columns_of_groups(group_word(options));
    }
    return made;
}

void show(query_session &session)
{
    const client_options &options = session.options;
    const view &selected = *find_view(options);
    output out(session.progress_line, options.strict, pager_command(options.no_pager || options.watch_seconds != 0));
    item_printer printer(options.shown_as, *selected.shown, look_of(options, selected), out);
    display to = {session, out, printer};
    const base::result by_name = print_view(to, selected);
    const base::result found = found_of(printer.count(), by_name);
    printer.end();
    mark_changed_ports(session);
    const bool is_whole = session.worst.state == completeness::whole || !selected.heeds_mark;
    if (is_whole || !options.strict) {
        out.release();
    }
    out.finish();
    if (!is_whole) {
        fail_incomplete(session.worst, found);
    }
    if (!found.ok()) {
        throw failure(exit_status::nothing_found, found.text);
    }
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
    std::vector<std::string> scopes;
    if (!filter_value(session.options, "domain").empty()) {
        for (const std::string &name : find_domains(session)) {
            scopes.push_back(domain_member(name));
        }
        return scopes;
    }
    if (filter_value(session.options, "port").empty()) {
        return {""};
    }
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
    session.worst = {}; // the lists of domains and ports came before the resync
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

// ---- Commands of their own ----

[[noreturn]] void fail_unavailable(const query_session &session)
{
    throw failure(exit_status::wrong_usage,
                  words_of(row_of(session.options.command)) + ": this build does not have the command yet");
}

void find_address(query_session &session)
{
    fail_unavailable(session);
}

void monitor(query_session &session)
{
    fail_unavailable(session);
}

void top(query_session &session)
{
    fail_unavailable(session);
}

void show_moves(query_session &session)
{
    fail_unavailable(session);
}

void show_flaps(query_session &session)
{
    fail_unavailable(session);
}

struct command_function {
    command_kind command;
    void (*run)(query_session &session);
};

// All other commands show something by a view.
constexpr command_function functions[] = {
    {command_kind::find, find_address},
    {command_kind::monitor, monitor},
    {command_kind::top, top},
    {command_kind::show_moves, show_moves},
    {command_kind::show_flaps, show_flaps},
    {command_kind::resync, resync},
    {command_kind::help, explain},
    {command_kind::completion, print_completion_script},
    {command_kind::complete_words, complete},
};

} // namespace

void run(const client_options &options)
{
    query_session session{options};
    const auto *own = std::ranges::find(functions, options.command, &command_function::command);
    const auto function = own != std::end(functions) ? own->run : show;
    function(session);
}

} // namespace l2fibctl
