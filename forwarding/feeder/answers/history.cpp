// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/answers/history.h"

namespace forwarding {

const char *text_of(change_kind kind)
{
    constexpr const char *texts[] = {"learned", "moved", "aged", "removed", "changed", "lost"};
    return texts[static_cast<size_t>(kind)];
}

// ---- Events ----

uint64_t newest_event()
{
    return 0;
}

event_batch read_events(uint64_t from, size_t /*max_events*/)
{
    return {{}, 0, from};
}

bool await_event(uint64_t /*number*/, std::chrono::milliseconds /*at_most*/)
{
    return false;
}

void wake_event_readers() {}

// ---- Moves and departures ----

move_page read_moves(const move_filter & /*filter*/, uint64_t /*before*/, size_t /*max_moves*/)
{
    return {};
}

flap_page find_flaps(int64_t /*window_ms*/, const std::function<bool(const move_record &)> & /*wanted*/)
{
    return {};
}

// ---- Bridge domains and ports ----

std::vector<object_activity> domain_activity(std::span<const uint16_t> bridge_ids)
{
    return std::vector<object_activity>(bridge_ids.size());
}

std::vector<object_activity> port_activity(std::span<const uint32_t> xcids)
{
    return std::vector<object_activity>(xcids.size());
}

} // namespace forwarding
