// Where the API's lists come from.
//
// Threads: a source belongs to one request.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "daemon/list.h"

namespace l2fibd {

// How a list of the operational database goes on when the entry that a page ended with has gone, and how it says so.
enum class list_order : uint8_t {
    by_domain, // bridge domain, port, address: says nothing there, as it also does when nothing follows
    by_port,   // address: goes on with the next one, and says nothing there when nothing follows
    by_age,    // oldest first: a bad request, as also when the table is empty
    by_vtep,   // port, address: goes on with the next port without a word
};

// A datalist, from its beginning or after an item. Throws api_error while it fetches: 410 with `restart` when the item
// to begin after has gone, and whatever the forwarding plane has failed with.
struct database_list {
    std::string path;
    list_order order = list_order::by_domain;
    std::optional<std::string> start_key = std::nullopt;
    std::string restart = {};
};

std::unique_ptr<list_source> make_database_source(database_list list);

// Lists that are no part of the MAC table; `start` is a key that one of their pages ended with. They throw api_error
// for a start that none of them has.
std::unique_ptr<list_source> make_domain_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_port_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_remote_destination_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_trace_source(const std::optional<std::string> &start);

// Whether a text could be the name of an item that a database list is continued after.
bool is_item_key(const std::string &key, list_order order);

} // namespace l2fibd
