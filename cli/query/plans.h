// SPDX-License-Identifier: Apache-2.0

// The plan of each command that shows something: which queries it sends, and which items of the answers it picks.
//
//      show mac --domain lab:br0           one query: domains/domain=lab:br0/mac-entry
//      show mac --port eth1                one query for each port with that name: ports/port=4/mac-entry, ...
//      show mac --aging --domain lab:br0   one query: mac-aging/mac-entry; the client picks the domain's items
//
// The room cli/query turns a command into items. This file decides the queries, pages.h sends them and parses the
// answers, http.h transports them, json.h reads their JSON, and resources.h describes their items.
//
// Threads: the main thread only.
#pragma once

#include <functional>
#include <set>
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

// Picks items where the daemon's resource has no parameter for it. An empty member accepts everything.
struct item_filter {
    std::string domain = {};
    std::set<uint64_t> xcids = {};
    std::string address = {};
    std::string vtep = {};
    std::string_view vtep_member = "vtep"; // the item's member that `vtep` is compared with

    bool empty() const { return domain.empty() && xcids.empty() && address.empty() && vtep.empty(); }
    bool accepts(json_value item) const;
};

struct query_plan {
    std::vector<query> queries;
    item_filter filter = {};
};

// What one command shows.
struct view {
    const resource *shown;
    query_plan (*make_plan)(query_session &session); // throws a failure if no plan is possible
    command_kind command;
    order sorted_by = order::usual;
    bool heeds_mark = true; // false: the daemon's mark changes neither output nor exit status
};

// `options` must have a command that shows something.
const view &view_of(const client_options &options);

query_plan plan_tunnel(query_session &session);

// Returns the path of a resource of the API, such as "health".
std::string data_path(std::string_view resource_path);

// Passes each page to `take` until that returns false; then returns false. Throws a page's problem after `take` had the
// page.
bool for_each_page(query_session &session, const list_request &list, uint64_t max_items,
                   const std::function<bool(const page &current)> &take);

// Passes all items of `domains` or `ports` to `take`.
void for_each_item(query_session &session, const resource &listed, const std::function<void(json_value item)> &take);

struct named_port {
    uint64_t xcid;
    std::string name;
    std::string domain;
};

// Returns the ports that --port and --domain name. One name means several ports if the interface is a port of several
// VLANs. A number means the xcid unless a port has that number as its name. Throws a failure if there is no such port.
std::vector<named_port> find_ports(query_session &session);

// Marks the answer as degraded if --port means other ports now than when the command asked for them. A port that
// changes its VNI gets another xcid, so the entries of the new one would be missing without a word.
void mark_changed_ports(query_session &session);

} // namespace l2fibctl
