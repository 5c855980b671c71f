// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/answers/history.h"

#include "forwarding/feeder/answers/asking.h"
#include "forwarding/feeder/feeder.h"

namespace forwarding {
namespace {

// Returns a share of the log, with which the module may stop; null while nothing runs.
std::shared_ptr<const change_log> log_now()
{
    std::shared_ptr<const change_log> log;
    with_feeder([&](feeder &feed) { log = feed.log_of_changes(); });
    return log;
}

} // namespace

const char *text_of(change_kind kind)
{
    constexpr const char *texts[] = {"learned", "moved", "aged", "removed", "changed", "lost"};
    static_assert(std::size(texts) == change_kinds);
    return texts[static_cast<size_t>(kind)];
}

// ---- Events ----

uint64_t newest_event()
{
    const auto log = log_now();
    return log != nullptr ? log->newest() : 0;
}

event_batch read_events(uint64_t from, size_t max_events)
{
    const auto log = log_now();
    return log != nullptr ? log->read(from, max_events) : event_batch{{}, 0, from};
}

bool await_event(uint64_t number, std::chrono::milliseconds at_most)
{
    const auto log = log_now();
    return log != nullptr && log->await(number, at_most);
}

void wake_event_readers()
{
    if (const auto log = log_now(); log != nullptr) {
        log->wake();
    }
}

// ---- Moves and departures ----

move_page read_moves(const move_filter &filter, uint64_t before, size_t max_moves)
{
    const auto log = log_now();
    return log != nullptr ? log->read_moves(filter, before, max_moves) : move_page{};
}

flap_page find_flaps(int64_t window_ms, const std::function<bool(const move_record &)> &wanted)
{
    const auto log = log_now();
    return log != nullptr ? log->find_flaps(window_ms, wanted) : flap_page{};
}

// ---- Bridge domains and ports ----

std::vector<object_activity> domain_activity(std::span<const uint16_t> bridge_ids)
{
    std::vector<object_activity> found(bridge_ids.size());
    on_cache_thread([&](feeder &feed) { found = feed.domain_activity(bridge_ids); });
    return found;
}

std::vector<object_activity> port_activity(std::span<const uint32_t> xcids)
{
    std::vector<object_activity> found(xcids.size());
    on_cache_thread([&](feeder &feed) { found = feed.port_activity(xcids); });
    return found;
}

} // namespace forwarding
