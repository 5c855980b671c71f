// SPDX-License-Identifier: Apache-2.0

// Requests of the operational database as paths, and answers of several pages.
//
//     test::query({.path = "mac-table/domain/g:a/flagged", .kind = host::request_kind::list})
//
//     PATH   = OBJECT {"/" KEY}
//     OBJECT = "mac-table" | "mac-aging" | "mac-count" | "mac-vtep" | "mac-action"
//     KEY    = ("domain" | "port" | "mac" | "vtep" | "seg-info2" | "seg-info1") "/" VALUE | "flagged" | "resync-all"
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "host/database/operational_db_host.h"

namespace test {

struct asked {
    std::string path;
    host::request_kind kind = host::request_kind::datalist;
    uint32_t count = host::all_items;
    std::optional<std::string> start_key = std::nullopt;
    uint32_t timeout_seconds = host::default_request_timeout_seconds;
};

inline void set_key(host::operational_keys &keys, const std::string &name, std::istringstream &rest)
{
    if (name == "flagged" || name == "resync-all") {
        (name == "flagged" ? keys.only_flagged : keys.resync_all) = true;
        return;
    }
    std::string value;
    std::getline(rest, value, '/');
    const auto number = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 0));
    if (name == "domain") {
        keys.domain = value;
    } else if (name == "mac") {
        auto &[a, b, c, d, e, f] = keys.mac_addr.emplace();
        std::sscanf(value.c_str(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &a, &b, &c, &d, &e, &f);
    } else if (name == "vtep") {
        keys.vtep_addr = inet_addr(value.c_str());
    } else if (name == "port") {
        keys.port = number;
    } else if (name == "seg-info2" || name == "seg-info1") {
        (name == "seg-info2" ? keys.seg_info2 : keys.seg_info1) = number;
    } else {
        throw std::invalid_argument(name);
    }
}

inline host::operational_request request_of(const asked &wanted)
{
    static const std::string objects[] = {"mac-table", "mac-aging", "mac-count", "mac-vtep", "mac-action"};
    host::operational_request request;
    std::istringstream rest(wanted.path);
    std::string name;
    std::getline(rest, name, '/');
    request.object = static_cast<host::operational_object>(std::ranges::find(objects, name) - objects);
    while (std::getline(rest, name, '/')) {
        set_key(request.keys, name, rest);
    }
    request.kind = wanted.kind;
    request.count = wanted.count;
    request.start_key = wanted.start_key;
    request.timeout_seconds = wanted.timeout_seconds;
    return request;
}

inline host::operational_page query(const asked &wanted)
{
    return host::operational_wait(*host::operational_open(request_of(wanted)));
}

// Reads page after page until there is no more, `visit` returns false, or `count` items have come. Returns the status
// of the last page; ELOOP if the reading comes back to a start key.
template <typename Visit>
uint32_t read_pages(asked wanted, Visit visit)
{
    std::set<std::string> start_keys;
    const bool is_limited = wanted.count != 0 && wanted.count != host::all_items;
    for (;;) {
        const host::operational_page page = query(wanted);
        if (page.status != 0 || !visit(page) || !page.more || (is_limited && page.items.size() >= wanted.count)) {
            return page.status;
        }
        wanted.count -= is_limited ? static_cast<uint32_t>(page.items.size()) : 0;
        wanted.start_key = page.items.back().name;
        if (!start_keys.insert(*wanted.start_key).second) {
            return ELOOP;
        }
    }
}

} // namespace test
