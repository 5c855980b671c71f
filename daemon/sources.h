// Where the API's lists come from.
//
// Threads: a source belongs to one request.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "daemon/list.h"

namespace l2fibd {

// The lists of the operational database, by their order.
enum class list_order : uint8_t { by_domain, by_port, by_age, by_vtep };

// A datalist, from its beginning or after the items of a continuation. Throws api_error, while it is made for a
// continuation that is none of this list, while it fetches 410 with `restart` when the continuation's items have gone,
// and whatever the forwarding plane has failed with.
struct database_list {
    std::string path;
    list_order order = list_order::by_domain;
    std::optional<std::string> cursor = std::nullopt;
    std::string restart = {};
    std::string domain = {}; // what all its entries belong to; empty: they differ
    std::string mac = {};    // likewise
};

std::unique_ptr<list_source> make_database_source(database_list list);

// Lists that are no part of the MAC table; `start` is a key that one of their pages ended with. They throw api_error
// for a start that none of them has.
std::unique_ptr<list_source> make_domain_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_port_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_tunnel_entry_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_trace_source(const std::optional<std::string> &start);

} // namespace l2fibd
