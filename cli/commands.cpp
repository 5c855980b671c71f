#include "cli/commands.h"

#include <algorithm>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "cli/bridge_form.h"
#include "cli/failure.h"
#include "cli/http.h"
#include "cli/resources.h"
#include "cli/splitter.h"
#include "daemon/text.h"
#include "daemon/visible.h"

namespace l2fibctl {

namespace {

using nlohmann::json;

constexpr std::string_view data = "/restconf/data/l2fib-mac:";
constexpr uint64_t most_per_request = 1'000'000;

// One request of a command; `scope` tells counts apart.
struct part {
    std::string path;
    std::string scope = {};
};

// What the client picks itself, where the resource that is asked cannot.
struct item_filter {
    std::string domain = {};
    std::set<uint64_t> xcids = {};
    std::string address = {};
    std::string vtep = {};
    const char *vtep_member = "vtep";

    bool empty() const { return domain.empty() && xcids.empty() && address.empty() && vtep.empty(); }
    bool accepts(const json &item) const
    {
        const auto fits = [&](const std::string &wanted, const char *member) {
            return wanted.empty() || item.value(member, "") == wanted;
        };
        return fits(domain, "domain") && fits(address, "mac-address") && fits(vtep, vtep_member)
               && (xcids.empty() || xcids.contains(item.value("xcid", uint64_t(0))));
    }
};

struct plan {
    const resource *what;
    std::vector<part> parts;
    item_filter filter = {};
};

struct session {
    const options &how;
    progress progress_line = {};
    connection daemon{how.socket, how.timeout_seconds, progress_line};
};

// ---- Paths ----

std::string data_path(std::string_view resource_path)
{
    return std::string(data).append(resource_path);
}

std::string domain_path(const std::string &name)
{
    return data_path("domains/domain=" + l2fibd::percent_encode(name));
}

std::string port_path(uint64_t xcid)
{
    return data_path("ports/port=" + std::to_string(xcid));
}

std::string with_parameter(std::string path, std::string_view name, const std::string &value)
{
    if (!value.empty()) {
        path += path.find('?') == std::string::npos ? '?' : '&';
        path.append(name).append("=").append(l2fibd::percent_encode(value));
    }
    return path;
}

// ---- Items of an answer ----

// Whatever is wrong with an answer that claims success: only the whole of it counts.
[[noreturn]] void fail_damaged()
{
    throw failure{ending::cut, "the daemon's answer is damaged"};
}

bool take_item(std::string_view text, const std::function<bool(json &item)> &take)
{
    try {
        json item = json::parse(text);
        if (item.is_object()) {
            return take(item);
        }
    } catch (const json::exception &) {
        // No JSON, or a member of another type than the API's.
    }
    fail_damaged();
}

// Hands over the items of one resource until `take` returns false. Returns false then.
bool for_each_item(session &with, const std::string &path, std::string_view name,
                   const std::function<bool(json &item)> &take)
{
    const std::string member = "l2fib-mac:" + std::string(name);
    splitter items([&](std::string_view of_member, std::string_view text) {
        if (of_member != member) {
            return true;
        }
        with.progress_line.count_item();
        return take_item(text, take);
    });
    bool wants_more = true;
    const bool ended = with.daemon.perform({path}, [&](std::string_view bytes) {
        wants_more = items.feed(bytes);
        return wants_more;
    });
    if (ended && !items.complete()) {
        fail_damaged();
    }
    return ended;
}

// ---- Ports by name ----

struct named_port {
    uint64_t xcid;
    std::string name;
    std::string domain;
};

// A name may stand for several ports, one for each VLAN of the interface. A number is an xcid unless a port is called
// so.
std::vector<named_port> find_ports(session &with)
{
    const options &how = with.how;
    const auto number = l2fibd::parse_number(how.port, UINT32_MAX);
    std::vector<named_port> by_name;
    std::vector<named_port> by_number;
    for_each_item(with, data_path("ports/port"), ports.name, [&](json &item) {
        named_port port = {item.value("xcid", uint64_t(0)), item.value("name", ""), item.value("domain", "")};
        if (!how.domain.empty() && port.domain != how.domain) {
            return true;
        }
        if (port.name == how.port) {
            by_name.push_back(std::move(port));
        } else if (number && port.xcid == *number) {
            by_number.push_back(std::move(port));
        }
        return true;
    });
    if (by_name.empty() && by_number.empty()) {
        throw failure{
            ending::nothing_found,
            "no port \"" + l2fibd::visible(how.port) + "\""
                + (how.domain.empty() ? "" : " in the bridge domain \"" + l2fibd::visible(how.domain) + "\"")};
    }
    return by_name.empty() ? by_number : by_name;
}

// ---- Plans ----

plan plan_mac_of_ports(session &with)
{
    plan made = {&mac_entries, {}, {.address = with.how.address, .vtep = with.how.vtep}};
    for (const named_port &port : find_ports(with)) {
        made.parts.push_back(
            {with_parameter(port_path(port.xcid) + "/mac-entry", "flagged", with.how.flagged ? "true" : "")});
    }
    return made;
}

// Everything that was asked for, of a resource that picks nothing itself.
item_filter whole_filter(session &with)
{
    const options &how = with.how;
    item_filter made = {how.domain, {}, how.address, how.vtep};
    if (!how.port.empty()) {
        for (const named_port &port : find_ports(with)) {
            made.xcids.insert(port.xcid);
        }
    }
    return made;
}

plan plan_aging(session &with)
{
    return {&mac_entries, {{data_path("mac-aging/mac-entry")}}, whole_filter(with)};
}

plan plan_tunnel(session &with)
{
    plan made = {&tunnel_entries, {{data_path("tunnel-entries/tunnel-entry")}}, whole_filter(with)};
    made.filter.vtep_member = "destination";
    return made;
}

plan plan_mac(session &with)
{
    const options &how = with.how;
    if (how.aging) {
        return plan_aging(with);
    }
    if (!how.port.empty()) {
        return plan_mac_of_ports(with);
    }
    if (!how.domain.empty() && !how.address.empty() && how.vtep.empty() && !how.flagged) {
        // The forwarding plane itself is asked about a single entry.
        return {&mac_entries, {{domain_path(how.domain) + "/mac-entry=" + how.address}}};
    }
    std::string path = how.domain.empty() ? data_path("mac-table/mac-entry") : domain_path(how.domain) + "/mac-entry";
    path = with_parameter(std::move(path), "mac", how.address);
    path = with_parameter(std::move(path), "vtep", how.vtep);
    return {&mac_entries, {{with_parameter(std::move(path), "flagged", how.flagged ? "true" : "")}}};
}

plan plan_count(session &with)
{
    const options &how = with.how;
    if (!how.domain.empty()) {
        return {&mac_counts, {{domain_path(how.domain) + "/mac-count", how.domain}}};
    }
    if (how.port.empty()) {
        return {&mac_counts, {{data_path("mac-count"), "all"}}};
    }
    plan made = {&mac_counts, {}};
    for (const named_port &port : find_ports(with)) {
        made.parts.push_back({port_path(port.xcid) + "/mac-count", port.name + " in " + port.domain});
    }
    return made;
}

template <const resource &what>
plan plan_list(session &)
{
    return {&what, {{data_path(std::string(what.name) + "s/" + std::string(what.name))}}};
}

plan plan_health(session &)
{
    return {&health, {{data_path("health")}}};
}

struct planner {
    command what;
    plan (*make)(session &with);
};

constexpr planner planners[] = {
    {command::show_mac, plan_mac},
    {command::show_count, plan_count},
    {command::show_domain, plan_list<domains>},
    {command::show_port, plan_list<ports>},
    {command::show_vtep, plan_list<vteps>},
    {command::show_tunnel, plan_tunnel},
    {command::show_health, plan_health},
    {command::show_trace, plan_list<traces>},
};

// ---- Carrying out ----

bridge_names names_of_bridges(session &with)
{
    bridge_names names;
    for_each_item(with, data_path("domains/domain"), domains.name, [&](json &item) {
        names.insert_or_assign(item.value("bridge-id", uint64_t(0)), item.value("bridge", ""));
        return true;
    });
    return names;
}

// Makes what is printed from an item; null leaves it out.
using item_form = std::function<json(json &item)>;

// Whether the printer wants more.
bool print_part(session &with, const plan &from, const part &one, const item_form &made_of, printer &to)
{
    const uint64_t limit = with.how.limit.value_or(UINT64_MAX);
    const bool prints_all = from.filter.empty() && with.how.shown_as != form::bridge_json;
    const bool daemon_limits = limit <= most_per_request && prints_all && from.what->shown_as == layout::table
                               && from.what != &mac_counts && one.path.find("mac-entry=") == std::string::npos;
    const std::string path = with_parameter(one.path, "limit", daemon_limits ? std::to_string(limit) : "");
    return for_each_item(with, path, from.what->name, [&](json &item) {
        if (!from.filter.accepts(item)) {
            return true;
        }
        if (!one.scope.empty()) {
            item["scope"] = one.scope;
        }
        if (const json shown = made_of(item); !shown.is_null()) {
            to.item(shown);
        }
        return to.printed() < limit;
    });
}

bool print_plan(session &with, const plan &from, const item_form &made_of, printer &to)
{
    return std::ranges::all_of(from.parts, [&](const part &one) { return print_part(with, from, one, made_of, to); });
}

void print_bridge_form(session &with, const plan &from, printer &to)
{
    const bridge_names bridges = names_of_bridges(with);
    const bool wants_more = print_plan(
        with, from, [&](json &item) { return bridge_entry_of(item, bridges); }, to);
    // What the flags of a bridge's entry pick is none of the devices'.
    if (wants_more && !with.how.flagged) {
        print_plan(with, plan_tunnel(with), device_entry_of, to);
    }
}

void show(session &with, const plan &from)
{
    const bool as_bridge = with.how.shown_as == form::bridge_json;
    output out(with.progress_line);
    printer to(with.how.shown_as, as_bridge ? bridge_entries : *from.what, out);
    if (as_bridge) {
        print_bridge_form(with, from, to);
    } else {
        print_plan(
            with, from, [](json &item) { return std::move(item); }, to);
    }
    to.end();
    if (to.printed() == 0) {
        throw failure{ending::nothing_found, "nothing found"};
    }
}

void resync(session &with)
{
    const options &how = with.how;
    std::vector<json> inputs;
    if (!how.domain.empty()) {
        inputs.push_back({{"domain", how.domain}});
    } else if (how.port.empty()) {
        inputs.emplace_back();
    } else {
        for (const named_port &port : find_ports(with)) {
            inputs.push_back({{"port", port.xcid}});
        }
    }
    for (const json &input : inputs) {
        const std::string body =
            input.is_null() ? "" : json{{"l2fib-mac:input", input}}.dump(-1, ' ', true, json::error_handler_t::replace);
        with.daemon.perform({"/restconf/operations/l2fib-mac:resync", true, body},
                            [](std::string_view) { return true; });
    }
}

} // namespace

void run(const options &how)
{
    session with{how};
    if (how.what == command::resync) {
        resync(with);
        return;
    }
    const auto *found = std::ranges::find(planners, how.what, &planner::what);
    show(with, found->make(with));
}

} // namespace l2fibctl
