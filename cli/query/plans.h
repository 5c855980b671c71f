// SPDX-License-Identifier: Apache-2.0

// The plan of each command that shows something: which queries it sends. The filters of the command line go to the
// daemon as parameters.
//
//      show mac --domain lab:br0           one query: mac-table/mac-entry?domain=lab:br0
//      show mac --sort last-seen           one query: mac-aging/mac-entry?sort=last-seen
//      show count --port eth1              one query for each port with that name: ports/port=4/mac-count, ...
//
// The room cli/query turns a command into items. This file decides the queries, pages.h sends them and parses the
// answers, http.h transports them, json.h reads their JSON, and resources.h describes their items.
//
// Threads: the main thread only.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/query/json.h"
#include "cli/query/pages.h"
#include "cli/query/resources.h"

namespace l2fibctl {

struct query {
    std::string path;
    std::string scope = {}; // the value of `scope_member`; empty: the items have no such member
    bool has_pages = true;
};

struct query_plan {
    std::vector<query> queries;
};

// What one command shows.
struct view {
    const resource *shown;
    query_plan (*make_plan)(query_session &session); // throws a failure if no plan is possible
    std::string_view variant; // the order, or groups_variant; empty: every other case of the command
    command_kind command;
    bool heeds_mark = true;  // false: the daemon's mark changes neither output nor exit status
    bool has_places = false; // text has the columns From and To (places.h)
};

// Of show count: a row for each group.
inline constexpr std::string_view groups_variant = "groups";

// The word of --by, which filters imply.
std::string group_word(const client_options &options);

// Returns null if the command shows nothing by a view.
const view *find_view(const client_options &options);

// Whether entries of VXLAN devices can meet the filters. They have no VLAN, type and age, and --flagged selects entries
// of bridges.
bool has_device_entries(const client_options &options);

query_plan plan_tunnel(query_session &session);

// Returns the path of a resource of the API, such as "health".
std::string data_path(std::string_view resource_path);

// Adds the filters of the command line, except the one that the path names already.
std::string with_filters(std::string path, const client_options &options, std::string_view named = {});

// Passes each page to `take` until that returns false; then returns false. Throws a page's problem after `take` had the
// page.
bool for_each_page(query_session &session, const list_request &list, uint64_t max_items,
                   const std::function<bool(const page &current)> &take);

// Passes all items of `domains` or `ports` to `take`.
void for_each_item(query_session &session, const resource &listed, const std::function<void(json_value item)> &take);

// Passes all items of the list `name` at `path` to `take`.
void for_each_item(query_session &session, const std::string &path, std::string_view name,
                   const std::function<void(json_value item)> &take);

// Returns the full names of the bridge domains that --domain names. Throws a failure if there is none.
std::vector<std::string> find_domains(query_session &session);

struct named_port {
    uint64_t xcid;
    std::string name;
    std::string domain;
};

// Returns the ports that --port and --domain name. One name means several ports if the interface is a port of several
// VLANs. Throws a failure if there is no such port.
std::vector<named_port> find_ports(query_session &session);

// Marks the answer as degraded if --port means other ports now than when the command asked for them. A port that
// changes its VNI gets another xcid, so the entries of the new one would be missing without a word.
void mark_changed_ports(query_session &session);

} // namespace l2fibctl
