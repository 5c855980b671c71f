// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/json/records.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <vector>

#include "base/text.h"
#include "l2fm_edm_table.h"

namespace l2fibd {

namespace {

constexpr uint64_t ns_per_second = 1'000'000'000;
constexpr uint64_t ns_per_microsecond = 1'000;

// ---- Flags ----

// The API's names for the bits of `flags` and of `ext_flags`.
struct flag_name {
    uint16_t flag;
    uint16_t ext_flag;
    std::string_view name;
};

constexpr flag_name flag_names[] = {
    {EDM_MAC_PBB, 0, "backbone"},          {EDM_MAC_STATIC, 0, "static"},
    {EDM_MAC_LOCAL, 0, "local"},           {EDM_MAC_BD_FIXED, 0, "domain-fixed"},
    {EDM_MAC_STICKY, 0, "sticky"},         {EDM_MAC_BD_OWN, 0, "bridge-own"},
    {EDM_MAC_BD_40, 0, "flag-0040"},       {EDM_MAC_EXTERN_LEARNED, 0, "extern-learned"},
    {EDM_MAC_BD_200, 0, "flag-0200"},      {EDM_MAC_BD_400, 0, "flag-0400"},
    {EDM_MAC_OFFLOADED, 0, "offloaded"},   {EDM_MAC_TIMESTAMP_VALID, 0, "timestamped"},
    {EDM_MAC_4000, 0, "flag-4000"},        {EDM_MAC_LOCKED, 0, "locked"},
    {0, EDM_MAC_EXT_INACTIVE, "inactive"},
};

constexpr std::string_view origin_words[forwarding::row_origins] = {"learned", "static", "local"};

} // namespace

void write_since(json_writer &json, std::string_view name, int64_t since_ms)
{
    constexpr int64_t second_ms = 1000;
    json.formatted_member(name, [&](char *at) { return base::write_utc_text(at, since_ms / second_ms); });
}

namespace {

void write_times(json_writer &json, const forwarding::mac_row &row, bool is_ordered)
{
    json.member("age", row.age);
    if (row.last_seen != 0) {
        json.formatted_member("last-seen", [&](char *at) { return base::write_utc_text(at, row.last_seen); });
    }
    if (row.since_ms != 0) {
        write_since(json, "since", row.since_ms);
    }
    if (is_ordered && row.time_left) {
        json.member("time-left", *row.time_left);
    }
}

// ---- Places ----

void write_segment(json_writer &json, const forwarding::mac_row &row)
{
    write_if_set(json, "vlan", row.vlan);
    write_if_set(json, "vni", row.vni);
    write_if_set(json, "source-vni", row.source_vni);
    if ((row.flags & EDM_MAC_VNI) != 0 && row.vtep != std::array<uint8_t, base::ipv4_bytes>{}) {
        json.formatted_member("vtep", [&](char *at) { return base::write_ipv4_text(at, row.vtep); });
    } else if (row.ipv6_vtep != base::ip_address{}) {
        json.member("vtep", base::ip_text(row.ipv6_vtep));
    }
    if ((row.flags & EDM_MAC_PBB) != 0) {
        write_mac(json, "backbone-mac", row.backbone);
    }
    if (row.node_id != EDM_NODE_UNKNOWN) {
        json.member("node-id", row.node_id);
    }
}

} // namespace

void write_flags(json_writer &json, uint16_t flags, uint16_t ext_flags)
{
    json.member("origin", origin_words[static_cast<size_t>(forwarding::origin_of(flags))]);
    json.begin_array("flags");
    for (const flag_name &name : flag_names) {
        if ((flags & name.flag) != 0 || (ext_flags & name.ext_flag) != 0) {
            json.text(name.name);
        }
    }
    json.end_array();
}

void write_row(json_writer &json, const forwarding::mac_row &row, bool is_ordered)
{
    json.begin_object();
    json.member("domain", row.domain != nullptr ? row.domain->name : std::string_view());
    write_mac(json, "mac-address", row.mac);
    json.member("bridge-id", row.bridge_id);
    if (row.xcid != EDM_XCID_DUMMY) {
        json.member("xcid", row.xcid);
    }
    if (row.port != nullptr) {
        json.member("port", row.port->name);
    }
    write_flags(json, row.flags, row.ext_flags);
    write_times(json, row, is_ordered);
    write_segment(json, row);
    json.end_object();
}

void write_vtep(json_writer &json, const forwarding::vtep_view &vtep, const forwarding::object_views *objects)
{
    json.begin_object();
    json.member("xcid", vtep.xcid);
    json.member("address", base::ip_text(vtep.address));
    const forwarding::port_view *port = objects != nullptr ? objects->find_port(vtep.bridge_id, vtep.xcid) : nullptr;
    if (port != nullptr) {
        json.member("port", port->name);
        json.member("domain", port->domain);
    }
    write_if_set(json, "vni", vtep.vni);
    json.end_object();
}

void write_mac_count(json_writer &json, const forwarding::entry_counts &counts, bool with_own)
{
    json.begin_object();
    json.member("total", counts.total);
    json.member("learned", counts.learned);
    json.member("static", counts.fixed);
    json.member("local", counts.local);
    if (with_own) {
        json.member("bridge-own", counts.bridge_own);
    }
    json.end_object();
}

namespace {

void write_place(json_writer &json, const forwarding::group_key &key, const forwarding::object_views &objects)
{
    const auto [bridge_id, xcid] = key.place;
    if (const auto *domain = objects.find_domain(bridge_id); domain != nullptr) {
        json.member("domain", domain->name);
    }
    if (xcid == 0 || xcid == EDM_XCID_DUMMY) {
        return;
    }
    if (const auto *port = objects.find_port(bridge_id, xcid); port != nullptr) {
        json.member("port", port->name);
    }
    json.member("xcid", xcid);
}

void write_group_vtep(json_writer &json, const base::ip_address &vtep)
{
    if (vtep != base::ip_address{}) {
        const std::span all(vtep);
        json.member("vtep", base::ip_text(base::is_ipv4(vtep) ? all.last(base::ipv4_bytes) : all));
    }
}

} // namespace

void write_group_count(json_writer &json, const forwarding::group_count &group, forwarding::count_group by,
                       const forwarding::object_views &objects)
{
    using forwarding::count_group;
    json.begin_object();
    switch (by) {
    case count_group::domain:
    case count_group::port: write_place(json, group.key, objects); break;
    case count_group::vlan: write_if_set(json, "vlan", group.key.vlan); break;
    case count_group::vtep: write_group_vtep(json, group.key.vtep); break;
    case count_group::type: json.member("origin", origin_words[static_cast<size_t>(group.key.type)]); break;
    }
    json.member("entries", group.entries);
    for (size_t origin = 0; origin < forwarding::row_origins; origin++) {
        json.member(origin_words[origin], group.by_origin[origin]);
    }
    json.end_object();
}

namespace {

void write_activity(json_writer &json, const forwarding::object_activity &activity)
{
    json.member("entries", static_cast<uint32_t>(activity.entries));
    json.member64("changes", activity.changes);
}

} // namespace

void write_domain(json_writer &json, const forwarding::domain_view &domain, const forwarding::object_activity &activity)
{
    json.begin_object();
    json.member("name", domain.name);
    json.member("bridge-id", domain.bridge_id);
    json.member("bridge", domain.bridge);
    json.member("ifindex", domain.bridge_ifindex);
    json.name("vlan-aware");
    json.boolean(domain.vlan_aware);
    write_if_set(json, "vlan", domain.vlan);
    write_activity(json, activity);
    json.end_object();
}

void write_port(json_writer &json, const forwarding::port_view &port, const forwarding::object_activity &activity)
{
    constexpr std::string_view kinds[] = {"interface", "vxlan", "tunnel"};
    json.begin_object();
    json.member("xcid", port.xcid);
    json.member("name", port.name);
    json.member("ifindex", port.ifindex);
    json.member("kind", kinds[static_cast<size_t>(port.kind)]);
    json.member("oper-status", port.up ? "up" : "down");
    json.member("domain", port.domain);
    json.member("bridge-id", port.bridge_id);
    write_if_set(json, "vlan", port.vlan);
    write_if_set(json, "vni", port.vni);
    write_activity(json, activity);
    json.end_object();
}

namespace {

struct bit_word {
    uint8_t bit;
    std::string_view word;
};

// The states and flags of a VXLAN device's own entries. The usual ones, such as reachable, have no word.
constexpr bit_word tunnel_state_words[] = {
    {forwarding::fdb_permanent, "permanent"},
    {forwarding::fdb_noarp, "static"},
    {forwarding::fdb_stale, "stale"},
};

constexpr bit_word tunnel_flag_words[] = {
    {forwarding::fdb_sticky, "sticky"},
    {forwarding::fdb_extern_learn, "extern-learned"},
    {forwarding::fdb_offloaded, "offloaded"},
};

void write_words(json_writer &json, std::span<const bit_word> words, uint8_t bits)
{
    for (const bit_word &row : words) {
        if ((bits & row.bit) != 0) {
            json.text(row.word);
        }
    }
}

// Writes where a VXLAN device's own entry sends frames.
void write_destination(json_writer &json, const forwarding::fdb_destination &destination)
{
    switch (destination.kind) {
    case forwarding::destination_kind::ipv4:
        json.member("destination", base::ip_text(std::span(destination.address).first(base::ipv4_bytes)));
        break;
    case forwarding::destination_kind::ipv6: json.member("destination", base::ip_text(destination.address)); break;
    case forwarding::destination_kind::next_hop: json.member("next-hop-id", destination.next_hop); break;
    default: break;
    }
}

} // namespace

void write_tunnel_entry(json_writer &json, const forwarding::tunnel_entry &entry)
{
    json.begin_object();
    if (entry.bridge_id != 0) {
        json.member("domain", entry.domain);
        json.member("bridge-id", entry.bridge_id);
        json.member("xcid", entry.xcid);
    }
    json.member("port", entry.port);
    write_mac(json, "mac-address", entry.record.mac);
    write_destination(json, entry.record.destination);
    write_if_set(json, "udp-port", entry.record.destination.port);
    write_if_set(json, "vni", entry.record.destination.vni);
    write_if_set(json, "source-vni", entry.record.source_vni);
    json.begin_array("flags");
    write_words(json, tunnel_state_words, entry.record.state);
    write_words(json, tunnel_flag_words, entry.record.flags);
    json.end_array();
    json.end_object();
}

void write_trace(json_writer &json, const host::trace_point &point, host::trace_ring ring)
{
    std::string time = base::utc_text(static_cast<int64_t>(point.time_ns / ns_per_second));
    char fraction[16];
    std::snprintf(fraction, sizeof(fraction), ".%06uZ",
                  static_cast<unsigned>(point.time_ns % ns_per_second / ns_per_microsecond));
    time.replace(time.size() - 1, 1, fraction);
    json.begin_object();
    json.member("ring", ring == host::trace_ring::normal ? "normal" : "error");
    json.member64("sequence", point.sequence);
    json.member("time", time);
    json.member("id", point.id);
    json.member("thread", point.thread_id);
    json.member("function", point.function);
    json.begin_array("values");
    for (uint32_t i = 0; i < point.value_count; i++) {
        json.text(std::to_string(point.values[i]));
    }
    json.end_array();
    json.member("text", host::trace_format(point));
    json.end_object();
}

} // namespace l2fibd
