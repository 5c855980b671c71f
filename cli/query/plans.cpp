// SPDX-License-Identifier: Apache-2.0

#include "cli/query/plans.h"

#include <algorithm>

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

std::string with_flagged(std::string path, const client_options &options)
{
    return with_parameter(std::move(path), "flagged", options.flagged ? "true" : "");
}

// ---- Plans ----

query_plan plan_mac_of_ports(query_session &session)
{
    query_plan made = {{}, {.address = session.options.address, .vtep = session.options.vtep}};
    for (const named_port &port : find_ports(session)) {
        made.queries.push_back({with_flagged(port_path(port.xcid) + "/mac-entry", session.options)});
    }
    return made;
}

// The filter for a resource that has no parameters for domain, port, address and tunnel end point.
item_filter whole_filter(query_session &session)
{
    const client_options &options = session.options;
    item_filter made = {options.domain, {}, options.address, options.vtep};
    if (!options.port.empty()) {
        for (const named_port &port : find_ports(session)) {
            made.xcids.insert(port.xcid);
        }
    }
    return made;
}

query_plan plan_sorted(query_session &session)
{
    const std::string order_word = session.options.sorted_by == order::created ? created_word : last_seen_word;
    return {{{with_parameter(data_path("mac-aging/mac-entry"), "sort", order_word)}}, whole_filter(session)};
}

query_plan plan_mac(query_session &session)
{
    const client_options &options = session.options;
    if (!options.port.empty()) {
        return plan_mac_of_ports(session);
    }
    if (!options.domain.empty() && !options.address.empty() && options.vtep.empty() && !options.flagged) {
        return {{{.path = domain_path(options.domain) + "/mac-entry=" + options.address, .has_pages = false}}};
    }
    std::string path =
        options.domain.empty() ? data_path("mac-table/mac-entry") : domain_path(options.domain) + "/mac-entry";
    path = with_parameter(std::move(path), "mac", options.address);
    path = with_parameter(std::move(path), "vtep", options.vtep);
    return {{{with_flagged(std::move(path), options)}}};
}

query_plan plan_count(query_session &session)
{
    const client_options &options = session.options;
    if (!options.domain.empty()) {
        return {{{domain_path(options.domain) + "/mac-count", options.domain, false}}};
    }
    if (options.port.empty()) {
        return {{{data_path("mac-count"), "all", false}}};
    }
    query_plan made;
    for (const named_port &port : find_ports(session)) {
        made.queries.push_back({port_path(port.xcid) + "/mac-count", port.name + " in " + port.domain, false});
    }
    return made;
}

template <const resource &listed>
query_plan plan_list(query_session & /*session*/)
{
    return {{{list_path(listed)}}};
}

query_plan plan_health(query_session & /*session*/)
{
    return {{{.path = data_path("health"), .has_pages = false}}};
}

[[noreturn]] void fail_no_port(const client_options &options)
{
    const std::string place =
        options.domain.empty() ? "" : " in the bridge domain \"" + base::visible(options.domain) + "\"";
    throw failure(exit_status::nothing_found, "no port \"" + base::visible(options.port) + "\"" + place
                                                  + "; \"l2fibctl show port\" lists the ports");
}

constexpr view views[] = {
    {&mac_entries, plan_mac, command_kind::show_mac},
    {&aging_entries, plan_sorted, command_kind::show_mac, order::last_seen},
    {&mac_entries, plan_sorted, command_kind::show_mac, order::created},
    {&mac_counts, plan_count, command_kind::show_count},
    {&domains, plan_list<domains>, command_kind::show_domain},
    {&ports, plan_list<ports>, command_kind::show_port},
    {&vteps, plan_list<vteps>, command_kind::show_vtep},
    {&tunnel_entries, plan_tunnel, command_kind::show_tunnel},
    {&health, plan_health, command_kind::show_health, order::usual, false},
    {&traces, plan_list<traces>, command_kind::show_trace, order::usual, false},
};

} // namespace

bool item_filter::accepts(json_value item) const
{
    const auto fits = [&](const std::string &wanted, std::string_view member) {
        return wanted.empty() || text_of(item, member) == wanted;
    };
    return fits(domain, "domain") && fits(address, "mac-address") && fits(vtep, vtep_member)
           && (xcids.empty() || xcids.contains(number_of(item, "xcid")));
}

const view &view_of(const client_options &options)
{
    return *std::ranges::find_if(
        views, [&](const view &row) { return row.command == options.command && row.sorted_by == options.sorted_by; });
}

query_plan plan_tunnel(query_session &session)
{
    query_plan made = {{{data_path("tunnel-entries/tunnel-entry")}}, whole_filter(session)};
    made.filter.vtep_member = "destination";
    return made;
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

void for_each_item(query_session &session, const resource &listed, const std::function<void(json_value item)> &take)
{
    for_each_page(session, {list_path(listed), listed.name}, no_limit, [&](const page &current) {
        std::ranges::for_each(current.items, take);
        return true;
    });
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
    const auto number = base::parse_number(options.port, UINT32_MAX);
    std::vector<named_port> by_name;
    std::vector<named_port> by_number;
    for_each_item(session, ports, [&](json_value item) {
        named_port port = {number_of(item, "xcid"), std::string(text_of(item, "name")),
                           std::string(text_of(item, "domain"))};
        if (!options.domain.empty() && port.domain != options.domain) {
            return;
        }
        if (port.name == options.port) {
            by_name.push_back(std::move(port));
        } else if (number && port.xcid == *number) {
            by_number.push_back(std::move(port));
        }
    });
    if (by_name.empty() && by_number.empty()) {
        fail_no_port(options);
    }
    const std::vector<named_port> &found = by_name.empty() ? by_number : by_name;
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
        session.worst.add({completeness::degraded,
                           "the ports named \"" + session.options.port + "\" changed while the answer was made"});
    }
}

} // namespace l2fibctl
