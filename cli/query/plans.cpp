// SPDX-License-Identifier: Apache-2.0

#include "cli/query/plans.h"

#include <algorithm>

#include "base/text.h"
#include "base/visible.h"

namespace l2fibctl {

namespace {

// ---- Paths ----

std::string data_path(std::string_view resource_path)
{
    return std::string("/restconf/data/l2fib-mac:").append(resource_path);
}

std::string list_path(const resource &of)
{
    const std::string name(of.name);
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

std::string with_flagged(std::string path, const options &how)
{
    return with_parameter(std::move(path), "flagged", how.flagged ? "true" : "");
}

// ---- Plans ----

plan plan_mac_of_ports(session &with)
{
    plan made = {{}, {.address = with.how.address, .vtep = with.how.vtep}};
    for (const named_port &port : find_ports(with)) {
        made.parts.push_back({with_flagged(port_path(port.xcid) + "/mac-entry", with.how)});
    }
    return made;
}

// All that the operator asked for, of a resource that picks nothing itself.
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

plan plan_sorted(session &with)
{
    const std::string order_word = with.how.sorted_by == order::created ? "created" : "last-seen";
    return {{{with_parameter(data_path("mac-aging/mac-entry"), "sort", order_word)}}, whole_filter(with)};
}

plan plan_mac(session &with)
{
    const options &how = with.how;
    if (!how.port.empty()) {
        return plan_mac_of_ports(with);
    }
    if (!how.domain.empty() && !how.address.empty() && how.vtep.empty() && !how.flagged) {
        return {{{domain_path(how.domain) + "/mac-entry=" + how.address, "", false}}};
    }
    std::string path = how.domain.empty() ? data_path("mac-table/mac-entry") : domain_path(how.domain) + "/mac-entry";
    path = with_parameter(std::move(path), "mac", how.address);
    path = with_parameter(std::move(path), "vtep", how.vtep);
    return {{{with_flagged(std::move(path), how)}}};
}

plan plan_count(session &with)
{
    const options &how = with.how;
    if (!how.domain.empty()) {
        return {{{domain_path(how.domain) + "/mac-count", how.domain, false}}};
    }
    if (how.port.empty()) {
        return {{{data_path("mac-count"), "all", false}}};
    }
    plan made;
    for (const named_port &port : find_ports(with)) {
        made.parts.push_back({port_path(port.xcid) + "/mac-count", port.name + " in " + port.domain, false});
    }
    return made;
}

template <const resource &what>
plan plan_list(session & /*with*/)
{
    return {{{list_path(what)}}};
}

plan plan_health(session & /*with*/)
{
    return {{{data_path("health"), "", false}}};
}

constexpr planner planners[] = {
    {&mac_entries, plan_mac, command::show_mac},
    {&aging_entries, plan_sorted, command::show_mac, order::last_seen},
    {&mac_entries, plan_sorted, command::show_mac, order::created},
    {&mac_counts, plan_count, command::show_count},
    {&domains, plan_list<domains>, command::show_domain},
    {&ports, plan_list<ports>, command::show_port},
    {&vteps, plan_list<vteps>, command::show_vtep},
    {&tunnel_entries, plan_tunnel, command::show_tunnel},
    {&health, plan_health, command::show_health, order::usual, false},
    {&traces, plan_list<traces>, command::show_trace, order::usual, false},
};

} // namespace

bool item_filter::accepts(const json_value &item) const
{
    const auto fits = [&](const std::string &wanted, std::string_view member) {
        return wanted.empty() || text_of(item, member) == wanted;
    };
    return fits(domain, "domain") && fits(address, "mac-address") && fits(vtep, vtep_member)
           && (xcids.empty() || xcids.contains(number_of(item, "xcid")));
}

const planner &planner_of(const options &how)
{
    return *std::ranges::find_if(
        planners, [&](const planner &row) { return row.what == how.what && row.sorted_by == how.sorted_by; });
}

plan plan_tunnel(session &with)
{
    plan made = {{{data_path("tunnel-entries/tunnel-entry")}}, whole_filter(with)};
    made.filter.vtep_member = "destination";
    return made;
}

bool for_each_page(session &with, const list_request &what, uint64_t most_items,
                   const std::function<bool(const page &now)> &take)
{
    page_reader pages(with, what, most_items);
    while (const page *now = pages.next()) {
        if (!take(*now)) {
            return false;
        }
        if (now->problem) {
            throw failure(*now->problem);
        }
    }
    return true;
}

void for_each_item(session &with, const resource &of, const std::function<void(const json_value &item)> &take)
{
    for_each_page(with, {list_path(of), of.name}, UINT64_MAX, [&](const page &now) {
        std::ranges::for_each(now.items, take);
        return true;
    });
}

std::vector<named_port> find_ports(session &with)
{
    const options &how = with.how;
    const auto number = base::parse_number(how.port, UINT32_MAX);
    std::vector<named_port> by_name;
    std::vector<named_port> by_number;
    for_each_item(with, ports, [&](const json_value &item) {
        named_port port = {number_of(item, "xcid"), std::string(text_of(item, "name")),
                           std::string(text_of(item, "domain"))};
        if (!how.domain.empty() && port.domain != how.domain) {
            return;
        }
        if (port.name == how.port) {
            by_name.push_back(std::move(port));
        } else if (number && port.xcid == *number) {
            by_number.push_back(std::move(port));
        }
    });
    if (by_name.empty() && by_number.empty()) {
        throw failure{ending::nothing_found,
                      "no port \"" + base::visible(how.port) + "\""
                          + (how.domain.empty() ? "" : " in the bridge domain \"" + base::visible(how.domain) + "\"")};
    }
    return by_name.empty() ? by_number : by_name;
}

} // namespace l2fibctl
