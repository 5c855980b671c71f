// SPDX-License-Identifier: Apache-2.0

// Writes what has happened to entries as JSON: events, moves and flapping addresses. docs/api.md shows each of them.
//
// Threads: pure functions; any thread may call them.
#pragma once

#include <cstdint>
#include <string_view>

#include "daemon/api/json/json_writer.h"
#include "forwarding/feeder/answers/history.h"

namespace l2fibd {

// Writes a time in UTC with milliseconds. `time_ms` counts from the epoch.
void write_time_ms(json_writer &json, std::string_view name, int64_t time_ms);

// Writes the members that say what happened to which entry; the event's name and time are the caller's. The event is
// not of the kind `lost`.
void write_change(json_writer &json, const forwarding::change_event &event);

void write_move(json_writer &json, const forwarding::move_record &move);

// `counted_ms` is the time in which the moves were counted.
void write_flap(json_writer &json, const forwarding::flap_record &flap, int64_t counted_ms);

} // namespace l2fibd
