// SPDX-License-Identifier: Apache-2.0

// The lists of moves and of flapping addresses. Their answers have the member "history-since": what happened before was
// forgotten, or was never seen. So nobody takes a short history for a whole one.
//
// `start` is the key of a cursor, as in lists/sources.h.
//
// Threads: a source belongs to one request.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "daemon/api/filters.h"
#include "daemon/api/lists/list.h"

namespace l2fibd {

// Moves and departures that pass the filters, the newest first. If these let one address pass only, its moves are found
// by an index.
std::unique_ptr<list_source> make_move_source(const filters &given, const std::optional<std::string> &start);

// Addresses that moved at least twice in the latest `window_seconds`, the one with most moves first.
std::unique_ptr<list_source> make_flap_source(const filters &given, uint32_t window_seconds,
                                              const std::optional<std::string> &start);

} // namespace l2fibd
