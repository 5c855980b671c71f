// SPDX-License-Identifier: Apache-2.0

// Where an address came from and where it is, in one text each, for events, moves and flaps.
//
//      {"event":"moved","from-port":"p1","port":"vxlan7","vtep":"192.0.2.1"}     from p1 to vxlan7/192.0.2.1
//      {"event":"aged","port":"p1"}                                               from p1
//
// Threads: pure functions.
#pragma once

#include <string>
#include <string_view>

#include "cli/query/json.h"

namespace l2fibctl {

// The members that `with_places` adds.
inline constexpr std::string_view from_member = "from";
inline constexpr std::string_view to_member = "to";

// Returns the item as JSON, with a text for each place that the item has. The places of an item of `flaps` are the two
// latest ones.
std::string with_places(json_value item);

} // namespace l2fibctl
