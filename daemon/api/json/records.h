// SPDX-License-Identifier: Apache-2.0

// Writes single items as JSON: rows of the table, objects of the forwarding plane, trace points. docs/api.md shows each
// of them.
//
// Threads: pure functions; any thread may call them.
#pragma once

#include "base/text.h"
#include "daemon/api/json/json_writer.h"
#include "forwarding/feeder/answers/history.h"
#include "forwarding/feeder/answers/reading.h"
#include "forwarding/forwarding.h"
#include "host/trace/trace_reader.h"

namespace l2fibd {

// Parts of items. `name` is that of the member.
inline void write_if_set(json_writer &json, std::string_view name, uint32_t number) // unless it is 0
{
    if (number != 0) {
        json.member(name, number);
    }
}

inline void write_mac(json_writer &json, std::string_view name, const forwarding::mac_address &mac)
{
    json.formatted_member(name, [&](char *at) { return base::write_mac_text(at, mac); });
}

// Writes `origin` and `flags`, from EDM_MAC_ and EDM_MAC_EXT_ bits.
void write_flags(json_writer &json, uint16_t flags, uint16_t ext_flags);

// Writes when an entry came to a place, in milliseconds since the epoch. The text has whole seconds: that is how exact
// these times are.
void write_since(json_writer &json, std::string_view name, int64_t since_ms);

// Shows the time that is left with `is_ordered`, in the lists of mac-aging.
void write_row(json_writer &json, const forwarding::mac_row &row, bool is_ordered);

// `objects` may be null.
void write_vtep(json_writer &json, const forwarding::vtep_view &vtep, const forwarding::object_views *objects);

// Shows the count of the bridges' own addresses with `with_own`. Only the whole table has one.
void write_mac_count(json_writer &json, const forwarding::entry_counts &counts, bool with_own);

// Shows the members that name the group of a count by `by`. A name is left out if the object has gone.
void write_group_count(json_writer &json, const forwarding::group_count &group, forwarding::count_group by,
                       const forwarding::object_views &objects);

void write_domain(json_writer &json, const forwarding::domain_view &domain,
                  const forwarding::object_activity &activity);
void write_port(json_writer &json, const forwarding::port_view &port, const forwarding::object_activity &activity);
void write_tunnel_entry(json_writer &json, const forwarding::tunnel_entry &entry);
void write_trace(json_writer &json, const host::trace_point &point, host::trace_ring ring);

} // namespace l2fibd
