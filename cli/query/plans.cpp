// SPDX-License-Identifier: Apache-2.0

#include "cli/query/plans.h"

#include <algorithm>
#include <set>

#include "base/text.h"
#include "base/visible.h"

namespace l2fibctl {

std::string data_path(std::string_view resource_path)
{
    return std::string("/restconf/data/l2fib-mac:").append(resource_path);
}

namespace {

// ---- Paths ----

// The path of a list in its container, such as "ports/port".
std::string list_path(const resource &listed)
{
    const std::string name(listed.name);
    return data_path(name + "s/" + name);
}

std::string domain_path(const std::string &name)
{
    return data_path("domains/domain=" + base::percent_encode(name));
}

std::string port_path(uint64_t xcid)
{
    return data_path("ports/port=" + std::to_string(xcid));
}

// ---- Parameters ----

constexpr std::string_view negation = "not-";
constexpr std::string_view filters_of_bridges[] = {"vlan", "type", "older-than", "newer-than"};

} // namespace

std::string with_filters(std::string path, const client_options &options, std::string_view named)
{
    for (const filter &one : options.filters) {
        if (one.name != named) {
            path = with_parameter(std::move(path), one.name, one.value);
        }
    }
    return path;
}

namespace {

// Adds one whole address as a prefix, for lists that do not ask the forwarding plane about an address.
std::string with_address(std::string path, const client_options &options)
{
    std::string digits = options.address;
    std::erase(digits, ':');
    return with_parameter(std::move(path), "mac-prefix", digits);
}

std::string with_switch(std::string path, std::string_view name, bool is_on)
{
    return with_parameter(std::move(path), name, is_on ? "true" : "");
}

// Whether the daemon counts this all the time: everything, one domain or one port.
bool is_counted(const client_options &options)
{
    const std::vector<filter> &filters = options.filters;
    const bool fits =
        filters.empty() || (filters.size() == 1 && (filters[0].name == "domain" || filters[0].name == "port"));
    return options.grouped_by.empty() && fits;
}

bool asks_for_since(const client_options &options)
{
    return options.wide || std::ranges::count(options.columns, "since") != 0;
}

// ---- Plans ----

// The daemon's filter `port` shows entries of a port as the whole table does, without the locked entries that
// --flagged is for. So --flagged --port reads the lists of the ports.
query_plan plan_flagged_of_ports(query_session &session)
{
    const client_options &options = session.options;
    query_plan made;
    for (const named_port &port : find_ports(session)) {
        std::string path = with_parameter(port_path(port.xcid) + "/mac-entry", "flagged", "true");
        made.queries.push_back({with_filters(with_address(std::move(path), options), options, "port")});
    }
    return made;
}

query_plan plan_mac(query_session &session)
{
    const client_options &options = session.options;
    const bool has_port = !filter_value(options, "port").empty();
    if (has_port && options.flagged) {
        return plan_flagged_of_ports(session);
    }
    if (has_port) {
        static_cast<void>(find_ports(session)); // for mark_changed_ports
    }
    // The daemon asks the forwarding plane about one address. In an order it selects among what the table has.
    std::string path = data_path("mac-table/mac-entry");
    path = options.sorted_by.empty() ? with_parameter(std::move(path), "mac", options.address)
                                     : with_address(std::move(path), options);
    path = with_filters(std::move(path), options);
    path = with_switch(std::move(path), "flagged", options.flagged);
    path = with_parameter(std::move(path), "sort", options.sorted_by);
    path = with_switch(std::move(path), "reverse", options.reverse);
    return {{{with_switch(std::move(path), "with-since", asks_for_since(options))}}};
}

// The lists in an order by time, which the daemon keeps in that order, so it sorts nothing.
query_plan plan_by_time(query_session &session)
{
    const client_options &options = session.options;
    if (options.reverse) {
        return plan_mac(session);
    }
    std::string path = with_parameter(data_path("mac-aging/mac-entry"), "sort", options.sorted_by);
    path = with_filters(with_address(std::move(path), options), options);
    return {{{with_switch(std::move(path), "with-since", asks_for_since(options))}}};
}

// The numbers that the daemon counts all the time: of everything, of a domain, or of a port.
query_plan plan_count(query_session &session)
{
    const client_options &options = session.options;
    if (options.filters.empty()) {
        return {{{data_path("mac-count"), "all", false}}};
    }
    query_plan made;
    if (const std::string domain = filter_value(options, "domain"); !domain.empty()) {
        for (const std::string &name : find_domains(session)) {
            made.queries.push_back({domain_path(name) + "/mac-count", name, false});
        }
        return made;
    }
    for (const named_port &port : find_ports(session)) {
        made.queries.push_back({port_path(port.xcid) + "/mac-count", port.name + " in " + port.domain, false});
    }
    return made;
}

query_plan plan_groups(query_session &session)
{
    const client_options &options = session.options;
    const std::string path = with_parameter(data_path("mac-counts/mac-count"), "by", group_word(options));
    return {{{with_filters(path, options)}}};
}

template <const resource &listed>
query_plan plan_list(query_session &session)
{
    return {{{with_filters(list_path(listed), session.options)}}};
}

query_plan plan_health(query_session & /*session*/)
{
    return {{{.path = data_path("health"), .has_pages = false}}};
}

query_plan plan_moves(query_session &session)
{
    const client_options &options = session.options;
    return {{{with_filters(with_parameter(data_path("moves/move"), "mac", options.address), options)}}};
}

std::string flaps_path(uint64_t window_seconds, const client_options &options)
{
    return with_filters(with_parameter(data_path("flaps/flap"), "window", std::to_string(window_seconds)), options);
}

query_plan plan_flaps(query_session &session)
{
    return {{{flaps_path(session.options.window_seconds, session.options)}}};
}

query_plan plan_top_addresses(query_session &session)
{
    constexpr uint64_t window_seconds = 60; // so that an address leaves the screen soon after it rests
    return {{{flaps_path(window_seconds, session.options)}}};
}

query_plan plan_events(query_session &session)
{
    return {{{with_filters("/events", session.options)}}};
}

// The entries of the same vendor, then the other entries of each port that has the address.
query_plan plan_near(query_session &session)
{
    const client_options &options = session.options;
    const std::string vendor = options.address.substr(0, sizeof("02:00:5e") - 1);
    const std::string table = data_path("mac-table/mac-entry");
    query_plan made = {{{with_filters(with_parameter(table, "mac-prefix", vendor), options)}}};
    std::set<uint64_t> xcids;
    for_each_item(session, with_parameter(table, "mac", options.address), mac_entries.name, [&](json_value item) {
        if (find(item, "xcid") && xcids.insert(number_of(item, "xcid")).second) {
            const std::string path = port_path(number_of(item, "xcid")) + "/mac-entry";
            made.queries.push_back({with_filters(with_parameter(path, "not-mac-prefix", vendor), options)});
        }
    });
    return made;
}

[[noreturn]] void fail_no_port(const client_options &options)
{
    const std::string domain = filter_value(options, "domain");
    const std::string place = domain.empty() ? "" : " in the bridge domain \"" + base::visible(domain) + "\"";
    throw failure(exit_status::nothing_found, "no port \"" + base::visible(filter_value(options, "port")) + "\"" + place
                                                  + "; \"l2fibctl show port\" lists the ports");
}

// The first row that fits counts.
constexpr view views[] = {
    {&aging_entries, plan_by_time, last_seen_word, command_kind::show_mac},
    {&mac_entries, plan_by_time, created_word, command_kind::show_mac},
    {&mac_entries, plan_mac, "", command_kind::show_mac},
    {&mac_groups, plan_groups, groups_variant, command_kind::show_count},
    {&mac_counts, plan_count, "", command_kind::show_count},
    {&domains, plan_list<domains>, "", command_kind::show_domain},
    {&ports, plan_list<ports>, "", command_kind::show_port},
    {&vteps, plan_list<vteps>, "", command_kind::show_vtep},
    {&tunnel_entries, plan_tunnel, "", command_kind::show_tunnel},
    {&health, plan_health, "", command_kind::show_health, false},
    {&traces, plan_list<traces>, "", command_kind::show_trace, false},
    {&moves, plan_moves, "", command_kind::show_moves, true, true},
    {&flaps, plan_flaps, "", command_kind::show_flaps, true, true},
    {&mac_entries, plan_near, "", command_kind::find},
    {&events, plan_events, "", command_kind::monitor, true, true},
    {&top_domains, plan_list<domains>, "domains", command_kind::top},
    {&flaps, plan_top_addresses, "addresses", command_kind::top, true, true},
    {&top_ports, plan_list<ports>, "", command_kind::top},
};

} // namespace

std::string group_word(const client_options &options)
{
    return options.grouped_by.empty() ? "domain" : options.grouped_by;
}

namespace {

std::string_view variant_of(const client_options &options)
{
    if (options.command == command_kind::top) {
        return options.words.empty() ? std::string_view() : std::string_view(options.words.front());
    }
    const bool has_groups = options.command == command_kind::show_count && !is_counted(options);
    return has_groups ? groups_variant : std::string_view(options.sorted_by);
}

} // namespace

const view *find_view(const client_options &options)
{
    const std::string_view variant = variant_of(options);
    const auto fits = [&](const view &row) {
        return row.command == options.command && (row.variant.empty() || row.variant == variant);
    };
    const auto *found = std::ranges::find_if(views, fits);
    return found != std::end(views) ? found : nullptr;
}

bool has_device_entries(const client_options &options)
{
    const auto is_met = [](const filter &one) { return std::ranges::count(filters_of_bridges, one.name) == 0; };
    return !options.flagged && std::ranges::all_of(options.filters, is_met);
}

// Entries of VXLAN devices meet every negated filter that is for entries of bridges.
query_plan plan_tunnel(query_session &session)
{
    client_options options = session.options;
    std::erase_if(options.filters, [](const filter &one) {
        return one.name.starts_with(negation)
               && std::ranges::count(filters_of_bridges, one.name.substr(negation.size())) != 0;
    });
    return {{{with_filters(with_address(data_path("tunnel-entries/tunnel-entry"), options), options)}}};
}

bool for_each_page(query_session &session, const list_request &list, uint64_t max_items,
                   const std::function<bool(const page &current)> &take)
{
    page_reader pages(session, list, max_items);
    while (const page *current = pages.next()) {
        if (!take(*current)) {
            return false;
        }
        if (current->problem) {
            throw failure(*current->problem);
        }
    }
    return true;
}

void for_each_item(query_session &session, const std::string &path, std::string_view name,
                   const std::function<void(json_value item)> &take)
{
    for_each_page(session, {path, name}, no_limit, [&](const page &current) {
        std::ranges::for_each(current.items, take);
        return true;
    });
}

void for_each_item(query_session &session, const resource &listed, const std::function<void(json_value item)> &take)
{
    for_each_item(session, list_path(listed), listed.name, take);
}

std::vector<std::string> find_domains(query_session &session)
{
    const std::string named = filter_value(session.options, "domain");
    if (named.find(':') != std::string::npos) { // a full name; no bridge has a colon in its name
        return {named};
    }
    std::vector<std::string> found;
    const std::string path = with_parameter(list_path(domains), "domain", named);
    for_each_item(session, path, domains.name, [&](json_value item) { found.emplace_back(text_of(item, "name")); });
    return found;
}

namespace {

std::vector<uint64_t> xcids_of(const std::vector<named_port> &found)
{
    std::vector<uint64_t> xcids;
    xcids.reserve(found.size());
    for (const named_port &port : found) {
        xcids.push_back(port.xcid);
    }
    return xcids;
}

} // namespace

std::vector<named_port> find_ports(query_session &session)
{
    const client_options &options = session.options;
    std::string path = with_parameter(list_path(ports), "port", filter_value(options, "port"));
    path = with_parameter(std::move(path), "domain", filter_value(options, "domain"));
    std::vector<named_port> found;
    try {
        for_each_item(session, path, ports.name, [&](json_value item) {
            found.push_back(
                {number_of(item, "xcid"), std::string(text_of(item, "name")), std::string(text_of(item, "domain"))});
        });
    } catch (const failure &error) {
        if (error.status != exit_status::nothing_found) {
            throw;
        }
    }
    if (found.empty()) {
        fail_no_port(options);
    }
    session.named_ports = xcids_of(found);
    return found;
}

void mark_changed_ports(query_session &session)
{
    const std::vector<uint64_t> before = session.named_ports;
    if (before.empty()) {
        return;
    }
    std::vector<uint64_t> now;
    try {
        now = xcids_of(find_ports(session));
    } catch (const failure &error) {
        if (error.status != exit_status::nothing_found) {
            throw;
        }
    }
    if (now != before) {
        session.worst.add({completeness::degraded, "the ports named \"" + filter_value(session.options, "port")
                                                       + "\" changed while the answer was made"});
    }
}

} // namespace l2fibctl
