// SPDX-License-Identifier: Apache-2.0

// The API's JSON of single items, from rows of the table and from the forwarding plane's views.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "daemon/api/json_writer.h"
#include "forwarding/feeder/reading.h"
#include "forwarding/forwarding.h"
#include "host/trace/trace_reader.h"

namespace l2fibd {

// `is_ordered` for lists in another order, which show the time that is left.
void write_row(json_writer &json, const forwarding::mac_row &row, bool is_ordered);

// `objects` may be null.
void write_vtep(json_writer &json, const forwarding::vtep_view &vtep, const forwarding::object_views *objects);

// `with_own` for the whole table's, which alone counts the bridges' own.
void write_mac_count(json_writer &json, const forwarding::entry_counts &counts, bool with_own);

void write_domain(json_writer &json, const forwarding::domain_view &domain);
void write_port(json_writer &json, const forwarding::port_view &port);
void write_tunnel_entry(json_writer &json, const forwarding::tunnel_entry &entry);
void write_trace(json_writer &json, const host::trace_point &point, host::trace_ring ring);

} // namespace l2fibd
