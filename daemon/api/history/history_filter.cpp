// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/history/history_filter.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "base/text.h"

namespace l2fibd {

namespace {

using forwarding::place_view;

constexpr int64_t ms_per_second = 1'000;

base::ip_address vtep_of(const place_view &place)
{
    return place.vtep != std::array<uint8_t, base::ipv4_bytes>{} ? base::ip_of(place.vtep) : base::ip_address{};
}

bool passes_place(const filters &given, const forwarding::mac_address &mac, uint16_t flags, const place_view *place)
{
    return place != nullptr
           && passes_names(given,
                           {.domain = place->domain, .vlan = place->vlan, .port = place->port, .xcid = place->xcid})
           && forwarding::passes_values(
               given.rest,
               {.mac = mac, .flags = flags, .vlan = place->vlan, .vni = place->vni, .vtep = vtep_of(*place)});
}

} // namespace

bool passes_event(const filters &given, const forwarding::change_event &event)
{
    return event.kind == forwarding::change_kind::lost || passes_place(given, event.mac, event.flags, event.place.get())
           || passes_place(given, event.mac, event.flags, event.before.get());
}

bool passes_move(const filters &given, const forwarding::move_record &move, int64_t now_ms)
{
    const auto age = static_cast<uint32_t>(std::max<int64_t>(now_ms - move.time_ms, 0) / ms_per_second);
    return given.rest.ages.holds(age)
           && (passes_place(given, move.mac, 0, move.place.get())
               || passes_place(given, move.mac, 0, move.before.get()));
}

int64_t current_time_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

} // namespace l2fibd
