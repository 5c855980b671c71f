// SPDX-License-Identifier: Apache-2.0

// Judges events and moves by the filters of a request. An event passes if one of its places does: a move from p1 to p2
// passes `port=p1` and `port=p2`. Names are those of the event's moment (filters.h).
//
// Threads: pure functions; any thread may call them.
#pragma once

#include <cstdint>

#include "daemon/api/filters.h"
#include "forwarding/feeder/answers/history.h"

namespace l2fibd {

// Filters of events and of moves. An event has no age, and a move has no type.
inline constexpr unsigned filters_of_events = filters_of_entries & ~unsigned{by_age};
inline constexpr unsigned filters_of_moves = filters_of_entries & ~unsigned{by_type};
inline constexpr unsigned filters_of_flaps = filters_of_events & filters_of_moves;

// Events of the kind `lost` pass every filter.
bool passes_event(const filters &given, const forwarding::change_event &event);

// The age of a move is the time since it happened. `now_ms` counts from the epoch.
bool passes_move(const filters &given, const forwarding::move_record &move, int64_t now_ms);

// Milliseconds since the epoch.
int64_t current_time_ms();

} // namespace l2fibd
