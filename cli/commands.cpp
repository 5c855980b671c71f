// SPDX-License-Identifier: Apache-2.0

#include "cli/commands.h"

#include <algorithm>
#include <cerrno>

#include "base/result.h"
#include "cli/completion.h"
#include "cli/ending.h"
#include "cli/failure.h"
#include "cli/find.h"
#include "cli/help.h"
#include "cli/live/monitor.h"
#include "cli/live/top.h"
#include "cli/live/watch.h"
#include "cli/output/bridge_form.h"
#include "cli/output/printer.h"
#include "cli/output/terminal.h"
#include "cli/query/places.h"
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
    std::string history_since = {}; // of a list of moves

    uint64_t room() const { return session.options.limit - printer.count(); }
    bool makes_bridge_form() const { return session.options.shown_as == form::bridge_json; }
};

// Prints the items of one query. Returns false once --limit is reached.
bool print_query(display &to, const list_request &list, const item_action &print)
{
    // The daemon can limit the items only if the client prints every item that it receives.
    const uint64_t max_items = to.makes_bridge_form() ? no_limit : to.room();
    return for_each_page(to.session, list, max_items, [&](const page &current) {
        to.history_since = current.history_since;
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

item_action item_action_of(display &to, const view &selected)
{
    const bool is_plain = to.session.options.shown_as != form::text && to.session.options.columns.empty();
    if (!selected.has_places || is_plain) {
        return [&to](json_value item) { to.printer.item(item); };
    }
    return [&to](json_value item) {
        json_document document;
        const std::string placed = with_places(item);
        to.printer.item(document.parse(placed));
    };
}

// Returns a failure if the domain, port or address of the command does not exist.
base::result print_view(display &to, const view &selected)
{
    try {
        const query_plan plan = selected.make_plan(to.session);
        if (to.makes_bridge_form()) {
            return print_bridge_form(to, plan);
        }
        return print_plan(to, selected.shown->name, plan, item_action_of(to, selected));
    } catch (const failure &error) {
        if (error.status != exit_status::nothing_found) {
            throw;
        }
        return base::failure(ENOENT, error.what());
    }
}

// Corrects the result of print_view by the number of printed items: some items are a success, none are a failure.
base::result found_of(const display &to, const base::result &by_name)
{
    if (to.printer.count() > 0) {
        return base::success();
    }
    const std::string since =
        to.history_since.empty() ? "" : " since " + to.history_since + ", when the history begins";
    return by_name.ok() ? base::failure(ENOENT, "nothing found: no item matches" + since) : by_name;
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
    look made = look_of(options);
    const bool is_usual = options.columns.empty() && !options.wide && options.shown_as == form::text;
    if (is_usual && selected.variant == groups_variant) {
        made.columns = columns_of_groups(group_word(options));
    }
    return made;
}

// The line below a list of moves. Without it a short history would look like a quiet network.
void print_history_note(const display &to, const look &wanted)
{
    if (!to.history_since.empty() && wanted.has_titles && to.session.options.shown_as == form::text) {
        to.out.pending().put("History since " + to.history_since + "\n");
        to.out.flush();
    }
}

// Prints to the sink, or to standard output if there is none.
void show_once(query_session &session, const text_sink &sink)
{
    const client_options &options = session.options;
    const view &selected = *find_view(options);
    const look wanted = look_of(options, selected);
    output out(session.progress_line, options.strict, pager_command(options.no_pager || options.watch_seconds != 0),
               sink);
    item_printer printer(options.shown_as, *selected.shown, wanted, out);
    display to = {session, out, printer};
    const base::result by_name = print_view(to, selected);
    const base::result found = found_of(to, by_name);
    printer.end();
    print_history_note(to, wanted);
    mark_changed_ports(session);
    end_answer(session, out, found, selected.heeds_mark);
}

void show(query_session &session)
{
    const client_options &options = session.options;
    if (options.watch_seconds != 0) {
        watch(options, std::chrono::seconds(options.watch_seconds), show_once);
    } else {
        show_once(session, {});
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

void run_find(query_session &session)
{
    const client_options &options = session.options;
    if (options.near) {
        show_once(session, {});
        return;
    }
    if (!options.columns.empty()) {
        throw failure(exit_status::wrong_usage, "find: --columns goes with --near, which prints a table");
    }
    find_address(session);
}

void run_monitor(query_session &session)
{
    if (session.options.shown_as == form::json) {
        throw failure(exit_status::wrong_usage, "monitor: --json: the events have no end; expected --json-lines");
    }
    monitor(session, find_view(session.options)->make_plan(session).queries.front().path);
}

// The orders of addresses are by changes only: a flapping address has no number of entries.
void run_top_command(query_session &session)
{
    const client_options &options = session.options;
    const view &selected = *find_view(options);
    const bool has_entries = selected.shown != &flaps;
    if (!has_entries && options.grouped_by == "entries") {
        throw failure(exit_status::wrong_usage, "top addresses: --by entries: expected changes");
    }
    if (!options.once && options.shown_as != form::text) {
        throw failure(exit_status::wrong_usage, "top: JSON goes with --once, which prints one table");
    }
    const top_settings settings = {
        .title = options.words.empty() ? "ports" : options.words.front(),
        .list = {selected.make_plan(session).queries.front().path, selected.shown->name},
        .shown = *selected.shown,
        .start = {.order = options.grouped_by == "entries" ? top_order::entries : top_order::changes,
                  .has_entries = has_entries},
        .has_places = selected.has_places,
        .interval = std::chrono::seconds(options.interval_seconds),
    };
    options.once ? print_top_once(session, settings) : run_top(session, settings);
}

struct command_function {
    command_kind command;
    void (*run)(query_session &session);
};

// All other commands show something by a view.
constexpr command_function functions[] = {
    {command_kind::find, run_find},
    {command_kind::monitor, run_monitor},
    {command_kind::top, run_top_command},
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
