// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/history/history_records.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "base/text.h"
#include "daemon/api/json/records.h"

namespace l2fibd {

namespace {

using forwarding::change_kind;
using forwarding::place_view;

constexpr int64_t ms_per_minute = 60'000;
constexpr int64_t min_counted_ms = 1'000; // of a rate: the history of a daemon that has just started is short

// The members that name a place: its port and its tunnel end point.
struct place_members {
    std::string_view port;
    std::string_view vtep;
};

constexpr place_members present = {"port", "vtep"};
constexpr place_members previous = {"from-port", "from-vtep"};
constexpr place_members other = {"other-port", "other-vtep"};

void write_place(json_writer &json, const place_members &names, const place_view &place)
{
    if (!place.port.empty()) {
        json.member(names.port, place.port);
    }
    if (place.vtep != std::array<uint8_t, base::ipv4_bytes>{}) {
        json.formatted_member(names.vtep, [&](char *at) { return base::write_ipv4_text(at, place.vtep); });
    }
}

// An entry is the same in all places that it has had, so any of them will do.
void write_entry(json_writer &json, const place_view &place, const forwarding::mac_address &mac)
{
    json.member("domain", place.domain);
    write_mac(json, "mac-address", mac);
    write_if_set(json, "vlan", place.vlan);
}

void write_reason(json_writer &json, bool by_limit)
{
    if (by_limit) {
        json.member("reason", "limit");
    }
}

} // namespace

void write_time_ms(json_writer &json, std::string_view name, int64_t time_ms)
{
    json.formatted_member(name, [&](char *at) { return base::write_utc_ms_text(at, time_ms); });
}

void write_change(json_writer &json, const forwarding::change_event &event)
{
    write_entry(json, *event.place, event.mac);
    write_flags(json, event.flags, 0);
    write_if_set(json, "vni", event.place->vni);
    write_place(json, present, *event.place);
    if (event.kind == change_kind::moved) {
        write_place(json, previous, *event.before);
    }
    write_reason(json, event.by_limit);
}

void write_move(json_writer &json, const forwarding::move_record &move)
{
    json.begin_object();
    json.member64("id", move.number);
    write_time_ms(json, "time", move.time_ms);
    json.member("event", forwarding::text_of(move.kind));
    write_entry(json, *move.before, move.mac);
    write_place(json, previous, *move.before);
    if (move.place != nullptr) {
        write_place(json, present, *move.place);
    }
    if (move.was_since_ms != 0) {
        write_since(json, "was-since", move.was_since_ms);
    }
    write_reason(json, move.by_limit);
    json.end_object();
}

void write_flap(json_writer &json, const forwarding::flap_record &flap, int64_t counted_ms)
{
    const double minutes = static_cast<double>(std::max(counted_ms, min_counted_ms)) / ms_per_minute;
    json.begin_object();
    write_entry(json, *flap.place, flap.mac);
    json.member("moves", flap.moves);
    json.formatted_member("per-minute", [&](char *at) {
        return at + std::snprintf(at, json_writer::max_formatted_bytes, "%.1f", flap.moves / minutes);
    });
    write_place(json, present, *flap.place);
    write_place(json, other, *flap.other);
    write_time_ms(json, "first", flap.first_ms);
    write_time_ms(json, "last", flap.last_ms);
    json.end_object();
}

} // namespace l2fibd
