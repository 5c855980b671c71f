// SPDX-License-Identifier: Apache-2.0

// The sources of the API's lists, one for each kind of item.
//
// Cursors. `start` is the key of a cursor, or empty for the beginning of the list. Only the list that made a key can
// read it. Every function here throws api_error if `start` is a key of another list.
//
// Threads: a source belongs to one request.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "daemon/api/filters.h"
#include "daemon/api/lists/kept_selections.h"
#include "daemon/api/lists/list.h"
#include "forwarding/feeder/answers/reading.h"

namespace l2fibd {

// The entries of the MAC table that pass the filter, by bridge domain, port and address.
std::unique_ptr<list_source> make_table_source(const forwarding::row_filter &filter,
                                               const forwarding::row_details &details,
                                               const std::optional<std::string> &start);

// The entries of one address that pass the filter. Asks the forwarding plane for each of them.
std::unique_ptr<list_source> make_address_source(const forwarding::mac_address &mac,
                                                 const forwarding::row_filter &filter,
                                                 const std::optional<std::string> &start);

// What an ordered source uses of the rest of the daemon. The references outlive the source.
struct order_context {
    kept_selections &selections;
    const resync_requester &resyncs;
    bool is_aging_list = false; // items show the time that is left
    forwarding::row_details details = {};
};

// Entries in another order. `limit` is that of the answer. Takes what an earlier answer selected ahead, and gives back
// what is left.
std::unique_ptr<list_source> make_ordered_source(forwarding::order_request wanted,
                                                 const std::optional<std::string> &start, uint64_t limit,
                                                 const order_context &context);

// The counts of entries that pass the filter, by group.
std::unique_ptr<list_source> make_count_source(const forwarding::row_filter &filter, forwarding::count_group by,
                                               const std::optional<std::string> &start);

// Only what passes the filters.
std::unique_ptr<list_source> make_vtep_source(const filters &given, const std::optional<std::string> &start);
std::unique_ptr<list_source> make_domain_source(const filters &given, const std::optional<std::string> &start);
std::unique_ptr<list_source> make_port_source(const filters &given, const std::optional<std::string> &start);
std::unique_ptr<list_source> make_tunnel_entry_source(const filters &given, const std::optional<std::string> &start);

std::unique_ptr<list_source> make_trace_source(const std::optional<std::string> &start);

} // namespace l2fibd
