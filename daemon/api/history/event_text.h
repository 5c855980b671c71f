// SPDX-License-Identifier: Apache-2.0

// Writes events as the text of server-sent events (event_stream.h shows one). docs/api.md describes their members.
//
// Threads: pure functions, except that each may read the clock; any thread may call them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "forwarding/feeder/answers/history.h"

namespace l2fibd {

// The number of the event that an id of this process names. Empty if another process made the id. Throws api_error if
// the text is no id of an event.
std::optional<uint64_t> number_of_event(const std::string &id);

// These append one event to the text. `number` is that of the id which the client gets with the event.

// A stream begins behind the event `number`.
void append_begin(std::string &text, uint64_t number);

// Events up to `number` are missing. A count of 0 is unknown.
void append_missed(std::string &text, uint64_t number, uint64_t count, std::string_view reason);

void append_event(std::string &text, const forwarding::change_event &event);

// Appends an id without an event: the client has nothing to show, and continues behind `number`.
void append_position(std::string &text, uint64_t number);

} // namespace l2fibd
