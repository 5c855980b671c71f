// SPDX-License-Identifier: Apache-2.0

// Where the API's lists come from.
//
// Threads: a source belongs to one request.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "daemon/api/list.h"
#include "forwarding/feeder/reading.h"

namespace l2fibd {

// Continuations are texts that only the list that made them understands; `start` is one, or nothing for the beginning.
// Each of these throws api_error for a start that is none of its own.

// The MAC table, or a part of it, by bridge domain, port and address.
std::unique_ptr<list_source> make_table_source(const forwarding::row_filter &filter,
                                               const std::optional<std::string> &start);

// One address, in all bridge domains or in that of the filter, after asking the forwarding plane.
std::unique_ptr<list_source> make_address_source(const forwarding::mac_address &mac,
                                                 const forwarding::row_filter &filter,
                                                 const std::optional<std::string> &start);

// All entries in another order; `limit` bounds the memory.
std::unique_ptr<list_source> make_ordered_source(forwarding::row_order order, const std::optional<std::string> &start,
                                                 uint64_t limit);

std::unique_ptr<list_source> make_vtep_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_domain_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_port_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_tunnel_entry_source(const std::optional<std::string> &start);
std::unique_ptr<list_source> make_trace_source(const std::optional<std::string> &start);

} // namespace l2fibd
