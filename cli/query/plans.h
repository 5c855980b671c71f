// SPDX-License-Identifier: Apache-2.0

// The requests of each command: which resources it asks for, and which of their items it picks.
//
// Threads: the main one.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "cli/query/json.h"
#include "cli/query/pages.h"
#include "cli/query/resources.h"

namespace l2fibctl {

// One request of a command. `scope` tells counts apart.
struct part {
    std::string path;
    std::string scope = {};
    bool has_pages = true;
};

// What the client picks itself, where the daemon's resource takes no such parameter.
struct item_filter {
    std::string domain = {};
    std::set<uint64_t> xcids = {};
    std::string address = {};
    std::string vtep = {};
    std::string_view vtep_member = "vtep";

    bool empty() const { return domain.empty() && xcids.empty() && address.empty() && vtep.empty(); }
    bool accepts(const json_value &item) const;
};

struct plan {
    std::vector<part> parts;
    item_filter filter = {};
};

// What a command shows, and how it finds out what to ask for.
struct planner {
    const resource *shown;
    plan (*make)(session &with);
    command what;
    order sorted_by = order::usual;
    bool takes_mark = true; // false: an answer that is not whole ends like any other
};

// Of a command that shows something.
const planner &planner_of(const options &how);

plan plan_tunnel(session &with);

// Hands over the pages of one resource until `take` returns false; false then. Throws a page's problem after `take`.
bool for_each_page(session &with, const list_request &what, uint64_t most_items,
                   const std::function<bool(const page &now)> &take);

// Hands over all items of `domains` or `ports`.
void for_each_item(session &with, const resource &of, const std::function<void(const json_value &item)> &take);

struct named_port {
    uint64_t xcid;
    std::string name;
    std::string domain;
};

// The ports of --port and --domain. A name may stand for several ports, one for each VLAN of the interface. A number is
// an xcid unless a port has it as its name. Throws a failure when there is none.
std::vector<named_port> find_ports(session &with);

} // namespace l2fibctl
