// SPDX-License-Identifier: Apache-2.0

#include "cli/query/resources.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "base/text.h"
#include "base/visible.h"
#include "cli/query/places.h"

namespace l2fibctl {

namespace {

constexpr std::string_view unlimited_text = "18446744073709551615"; // the API's number for a pool without a limit

// Appends plain ASCII.
size_t add_plain(text_buffer &to, std::string_view text)
{
    to.put(text);
    return text.size();
}

size_t add_string(text_buffer &to, json_value value)
{
    const std::string_view text = value.text();
    if (text.empty()) {
        return add_plain(to, "-");
    }
    if (value.is_plain()) {
        return add_plain(to, text);
    }
    const std::string shown = base::visible(text);
    to.put(shown);
    return base::width_of(shown);
}

size_t add_text(text_buffer &to, json_value value);

size_t add_list(text_buffer &to, json_value list)
{
    size_t width = 0;
    for (json_value element = list.first(); element != list.end(); element = element.next()) {
        width += element == list.first() ? 0 : add_plain(to, ", ");
        width += add_text(to, element);
    }
    return list.is_empty() ? add_plain(to, "-") : width;
}

// Appends plain ASCII: put_value escapes everything else.
size_t add_json(text_buffer &to, json_value value)
{
    const size_t start = to.size();
    put_value(to, value);
    return to.size() - start;
}

size_t add_text(text_buffer &to, json_value value)
{
    switch (value.kind()) {
    case json_kind::text: return add_string(to, value);
    case json_kind::array: return add_list(to, value);
    case json_kind::boolean: return add_plain(to, value.boolean() ? "yes" : "no");
    default: return add_json(to, value);
    }
}

char *write_two_digits(char *at, uint64_t number)
{
    constexpr uint64_t ten = base::decimal;
    *at++ = static_cast<char>('0' + number / ten);
    *at++ = static_cast<char>('0' + number % ten);
    return at;
}

// 45296 seconds become "12:34:56", 93784 seconds (more than a day) become "1d02h".
size_t add_age(text_buffer &to, json_value value)
{
    constexpr uint64_t minute = 60;
    constexpr uint64_t hour = 60 * minute;
    constexpr uint64_t day = 24 * hour;
    constexpr size_t max_age_length = sizeof("18446744073709551615d00h");
    if (value.kind() != json_kind::natural) {
        return add_text(to, value);
    }
    const uint64_t seconds = value.natural();
    char *start = to.room_for(max_age_length);
    char *at = start;
    if (seconds < day) {
        at = write_two_digits(at, seconds / hour);
        *at++ = ':';
        at = write_two_digits(at, seconds % hour / minute);
        *at++ = ':';
        at = write_two_digits(at, seconds % minute);
    } else {
        at = std::to_chars(at, start + max_age_length, seconds / day).ptr;
        *at++ = 'd';
        at = write_two_digits(at, seconds % day / hour);
        *at++ = 'h';
    }
    to.end_at(at);
    return static_cast<size_t>(at - start);
}

size_t add_limit(text_buffer &to, json_value value)
{
    const bool is_unlimited = value.is_text() && value.text() == unlimited_text;
    return is_unlimited ? add_plain(to, "none") : add_text(to, value);
}

// ---- Colours ----

// Terminals show these on light and on dark backgrounds. Yellow vanishes on white, and blue on black.
constexpr std::string_view red = "\x1b[31m";
constexpr std::string_view green = "\x1b[32m";
constexpr std::string_view magenta = "\x1b[35m";
constexpr std::string_view cyan = "\x1b[36m";
constexpr std::string_view dim = "\x1b[2m";

struct word_color {
    std::string_view word;
    std::string_view color;
};
constexpr word_color word_colors[] = {
    {"learned", green}, {"static", magenta}, {"local", cyan}, {"up", green}, {"down", red}};

std::string_view color_of_word(json_value value)
{
    const auto *found =
        value.is_text() ? std::ranges::find(word_colors, value.text(), &word_color::word) : std::end(word_colors);
    return found != std::end(word_colors) ? found->color : std::string_view();
}

constexpr uint64_t fresh_seconds = 10; // about as long as it takes to look
constexpr uint64_t old_seconds = 300;  // the kernel's ageing time unless it is changed

std::string_view color_of_age(json_value value)
{
    if (value.kind() != json_kind::natural) {
        return {};
    }
    const uint64_t seconds = value.natural();
    return seconds < fresh_seconds ? green : seconds >= old_seconds ? dim : std::string_view();
}

// ---- Kinds of columns ----

constexpr unsigned domain_width = 22; // with --wide, and where there is room
constexpr unsigned port_width = 15;   // the kernel's maximum for an interface's name

constexpr column_kind name_kind = {domain_width, false, add_text, 0, true};
constexpr column_kind port_kind = {port_width, false, add_text, 0, true};
constexpr column_kind short_name_kind = {16, false, add_text, domain_width, true}; // a row fits 100 characters
constexpr column_kind short_port_kind = {11, false, add_text, port_width, true};
constexpr column_kind mac_kind = {17, false, add_text};
constexpr column_kind ipv4_kind = {15, false, add_text};
constexpr column_kind ip_kind = {20, false, add_text, 39};
constexpr column_kind word_kind = {9, false, add_text, 0, false, color_of_word};
constexpr column_kind origin_kind = {7, false, add_text, 0, false, color_of_word};
constexpr column_kind age_kind = {8, true, add_age, 0, false, color_of_age};
constexpr column_kind left_kind = {8, true, add_age};
constexpr column_kind time_kind = {24, false, add_text};
constexpr column_kind event_kind = {7, false, add_text, 0, false, color_of_word};
constexpr column_kind moved_domain_kind = {14, false, add_text, domain_width, true};
constexpr column_kind place_kind = {15, false, add_text}; // a port, perhaps with a VTEP
constexpr column_kind rest_age_kind = {0, false, add_age};
constexpr column_kind moves_kind = {5, true, add_text};
constexpr column_kind id_kind = {10, true, add_text};
constexpr column_kind vlan_kind = {4, true, add_text, 5};
constexpr column_kind wide_vlan_kind = {5, true, add_text};
constexpr column_kind vni_kind = {8, true, add_text};
constexpr column_kind number_kind = {9, true, add_text};
constexpr column_kind sum_kind = {.width = 9, .is_right_aligned = true, .format = add_text, .is_summed = true};
constexpr column_kind entries_kind = {8, true, add_text};
constexpr column_kind changes_kind = {9, true, add_text};
constexpr column_kind state_kind = {5, false, add_text, 0, false, color_of_word};
constexpr column_kind limit_kind = {9, true, add_limit};
constexpr column_kind rest_kind = {0, false, add_text}; // for the last column, which needs no padding

constexpr bool rare = false; // for column::is_usual

constexpr column mac_entry_columns[] = {
    {"domain", "Domain", &short_name_kind},
    {"mac-address", "MAC Address", &mac_kind},
    {"bridge-id", "Bridge ID", &number_kind, {}, rare},
    {"xcid", "XCID", &id_kind, {}, rare},
    {"port", "Port", &short_port_kind},
    {"origin", "Type", &origin_kind},
    {"age", "Age", &age_kind},
    {"last-seen", "Last Seen", &time_kind, {}, rare},
    {"since", "Since", &time_kind, {}, rare},
    {"vlan", "VLAN", &vlan_kind},
    {"vni", "VNI", &vni_kind},
    {"source-vni", "From VNI", &vni_kind, {}, rare},
    {"vtep", "VTEP", &ipv4_kind},
    {"backbone-mac", "Backbone MAC", &mac_kind, {}, rare},
    {"node-id", "Node", &number_kind, {}, rare},
    {"flags", "Flags", &rest_kind, {}, rare},
};

// The time left stands behind the age. The VNI gives it its room in a row.
constexpr auto columns_with_time_left()
{
    std::array<column, std::size(mac_entry_columns) + 1> result = {};
    const auto *end = std::ranges::find(mac_entry_columns, "age", &column::member) + 1;
    auto to = std::copy(std::begin(mac_entry_columns), end, result.begin());
    *to++ = {"time-left", "Left", &left_kind};
    std::copy(end, std::end(mac_entry_columns), to);
    std::ranges::find(result, "vni", &column::member)->is_usual = rare;
    return result;
}
constexpr auto aging_entry_columns = columns_with_time_left();

constexpr column mac_count_columns[] = {
    {scope_member, "Scope", &name_kind}, {"total", "Total", &number_kind}, {"learned", "Learned", &number_kind},
    {"static", "Static", &number_kind},  {"local", "Local", &number_kind}, {"bridge-own", "Bridge", &number_kind},
};

constexpr column mac_group_columns[] = {
    {"domain", "Domain", &name_kind},  {"port", "Port", &port_kind},      {"xcid", "XCID", &id_kind, {}, rare},
    {"vlan", "VLAN", &wide_vlan_kind}, {"vtep", "VTEP", &ip_kind},        {"origin", "Type", &word_kind},
    {"entries", "Entries", &sum_kind}, {"learned", "Learned", &sum_kind}, {"static", "Static", &sum_kind},
    {"local", "Local", &sum_kind},
};

constexpr column domain_columns[] = {
    {"name", "Domain", &name_kind},
    {"bridge-id", "Bridge ID", &number_kind},
    {"bridge", "Bridge", &port_kind},
    {"ifindex", "Ifindex", &number_kind},
    {"vlan-aware", "Aware", &word_kind, {}, rare},
    {"vlan", "VLAN", &wide_vlan_kind},
    {"entries", "Entries", &number_kind},
    {"changes", "Changes", &id_kind},
};

constexpr column port_columns[] = {
    {"xcid", "XCID", &number_kind},
    {"name", "Port", &port_kind},
    {"ifindex", "Ifindex", &number_kind, {}, rare},
    {"kind", "Type", &word_kind},
    {"oper-status", "State", &state_kind},
    {"domain", "Domain", &short_name_kind},
    {"bridge-id", "Bridge ID", &number_kind, {}, rare},
    {"vlan", "VLAN", &vlan_kind},
    {"vni", "VNI", &vni_kind},
    {"entries", "Entries", &entries_kind},
    {"changes", "Changes", &changes_kind},
};

constexpr column vtep_columns[] = {
    {"address", "VTEP", &ipv4_kind},  {"port", "Port", &port_kind}, {"xcid", "XCID", &id_kind},
    {"domain", "Domain", &name_kind}, {"vni", "VNI", &vni_kind},
};

constexpr column tunnel_entry_columns[] = {
    {"domain", "Domain", &short_name_kind},
    {"mac-address", "MAC Address", &mac_kind},
    {"bridge-id", "Bridge ID", &number_kind, {}, rare},
    {"xcid", "XCID", &id_kind, {}, rare},
    {"port", "Port", &short_port_kind},
    {"destination", "Destination", &ip_kind},
    {"next-hop-id", "Next Hop", &vni_kind},
    {"vni", "VNI", &vni_kind},
    {"source-vni", "From VNI", &vni_kind},
    {"udp-port", "UDP Port", &vni_kind, {}, rare},
    {"flags", "Flags", &rest_kind, {}, rare},
};

constexpr column trace_columns[] = {
    {"time", "Time", &time_kind, {}, rare},       {"ring", "Ring", &word_kind},
    {"sequence", "Sequence", &number_kind},       {"id", "Id", &number_kind, {}, rare},
    {"thread", "Thread", &number_kind, {}, rare}, {"function", "Function", &name_kind, {}, rare},
    {"values", "Values", &name_kind, {}, rare},   {"text", "Point", &rest_kind},
};

// The columns From and To are texts that cli/query/places.h adds.
constexpr column event_columns[] = {
    {"time", "Time", &time_kind},
    {"event", "Event", &event_kind},
    {"mac-address", "MAC Address", &mac_kind},
    {"domain", "Domain", &moved_domain_kind},
    {from_member, "From", &place_kind},
    {to_member, "To", &place_kind},
    {"id", "Id", &name_kind, {}, rare},
    {"origin", "Type", &origin_kind, {}, rare},
    {"vlan", "VLAN", &vlan_kind, {}, rare},
    {"vni", "VNI", &vni_kind, {}, rare},
    {"from-port", "From Port", &port_kind, {}, rare},
    {"from-vtep", "From VTEP", &ipv4_kind, {}, rare},
    {"port", "Port", &port_kind, {}, rare},
    {"vtep", "VTEP", &ipv4_kind, {}, rare},
    {"reason", "Reason", &word_kind, {}, rare},
    {"flags", "Flags", &rest_kind, {}, rare},
};

constexpr column move_columns[] = {
    {"id", "Id", &number_kind, {}, rare},
    {"time", "Time", &time_kind},
    {"event", "Event", &event_kind},
    {"domain", "Domain", &moved_domain_kind},
    {"mac-address", "MAC Address", &mac_kind},
    {"vlan", "VLAN", &vlan_kind, {}, rare},
    {from_member, "From", &place_kind},
    {to_member, "To", &place_kind},
    {"from-port", "From Port", &port_kind, {}, rare},
    {"from-vtep", "From VTEP", &ipv4_kind, {}, rare},
    {"port", "Port", &port_kind, {}, rare},
    {"vtep", "VTEP", &ipv4_kind, {}, rare},
    {"was-since", "There Since", &time_kind, {}, rare},
    {"reason", "Reason", &rest_kind, {}, rare},
};

constexpr column flap_columns[] = {
    {"domain", "Domain", &moved_domain_kind},
    {"mac-address", "MAC Address", &mac_kind},
    {"vlan", "VLAN", &vlan_kind, {}, rare},
    {"moves", "Moves", &moves_kind},
    {"per-minute", "Per Minute", &id_kind},
    {from_member, "From", &place_kind},
    {to_member, "To", &place_kind},
    {"other-port", "From Port", &port_kind, {}, rare},
    {"other-vtep", "From VTEP", &ipv4_kind, {}, rare},
    {"port", "Port", &port_kind, {}, rare},
    {"vtep", "VTEP", &ipv4_kind, {}, rare},
    {"first", "First", &time_kind, {}, rare},
    {"last", "Last", &time_kind, {}, rare},
};

// Of `find`: a place as a record. The record has no room for ids.
constexpr column found_place_columns[] = {
    {"mac-address", "Address", &rest_kind},
    {"domain", "Domain", &rest_kind},
    {"port", "Port", &rest_kind},
    {"vtep", "VTEP", &rest_kind},
    {"vni", "VNI", &rest_kind},
    {"vlan", "VLAN", &rest_kind},
    {"origin", "Type", &rest_kind},
    {"flags", "Flags", &rest_kind},
    {"since", "There since", &rest_kind},
    {"since-age", "For", &rest_age_kind},
    {"last-seen", "Last seen", &rest_kind},
    {"age", "Age", &rest_age_kind},
};

constexpr column previous_place_columns[] = {
    {"time", "Time", &time_kind},       {"event", "Event", &event_kind}, {"domain", "Domain", &moved_domain_kind},
    {from_member, "From", &place_kind}, {to_member, "To", &place_kind},  {"was-since", "There Since", &rest_kind},
};
constexpr resource previous_places = {"move", layout::table, previous_place_columns};

constexpr column found_move_columns[] = {
    {"now", "Now", &rest_kind},
    {"move", "Places before", &rest_kind, &previous_places},
    {"history-since", "History since", &rest_kind},
};

// Of `top`. The client adds the changes a second.
constexpr column top_port_columns[] = {
    {"name", "Port", &port_kind},
    {"domain", "Domain", &name_kind},
    {"entries", "Entries", &number_kind},
    {"changes-per-second", "Changes/s", &number_kind},
    {"changes", "Changes", &id_kind},
    {"xcid", "XCID", &id_kind, {}, rare},
    {"ifindex", "Ifindex", &number_kind, {}, rare},
    {"kind", "Type", &word_kind, {}, rare},
    {"oper-status", "State", &state_kind, {}, rare},
    {"bridge-id", "Bridge ID", &number_kind, {}, rare},
    {"vlan", "VLAN", &vlan_kind, {}, rare},
    {"vni", "VNI", &vni_kind, {}, rare},
};

constexpr column top_domain_columns[] = {
    {"name", "Domain", &name_kind},
    {"bridge", "Bridge", &port_kind},
    {"entries", "Entries", &number_kind},
    {"changes-per-second", "Changes/s", &number_kind},
    {"changes", "Changes", &id_kind},
    {"bridge-id", "Bridge ID", &number_kind, {}, rare},
    {"ifindex", "Ifindex", &number_kind, {}, rare},
    {"vlan-aware", "Aware", &word_kind, {}, rare},
    {"vlan", "VLAN", &vlan_kind, {}, rare},
};

constexpr column reason_columns[] = {
    {"count", "Count", &number_kind},
    {"reason", "Reason", &rest_kind},
};
constexpr resource reasons = {"reason", layout::table, reason_columns};

constexpr column pool_columns[] = {
    {"name", "Pool", &name_kind},
    {"element-size", "Size", &number_kind},
    {"in-use", "In Use", &number_kind},
    {"peak", "Peak", &number_kind},
    {"bytes", "Bytes", &id_kind},
    {"failures", "Failures", &number_kind},
    {"refused-frees", "Bad Frees", &number_kind},
};
constexpr resource pools = {"pool", layout::table, pool_columns};

constexpr column tree_columns[] = {
    {"nodes", "Nodes", &rest_kind},
    {"bytes", "Bytes", &rest_kind},
    {"mapped-bytes", "Mapped bytes", &rest_kind},
};
constexpr resource trees = {"trees", layout::record, tree_columns};

constexpr column slab_columns[] = {
    {"taken", "Taken", &rest_kind},
    {"peak", "Peak", &rest_kind},
    {"limit", "Limit", &limit_kind},
    {"refused", "Refused", &rest_kind},
};
constexpr resource slabs = {"slabs", layout::record, slab_columns};

constexpr column memory_columns[] = {
    {"bytes", "Bytes", &rest_kind},
    {"trees", "Trees", &rest_kind, &trees},
    {"slabs", "Slabs", &rest_kind, &slabs},
    {"pool", "Pools", &rest_kind, &pools},
};
constexpr resource memory = {"memory", layout::record, memory_columns};

constexpr column request_columns[] = {
    {"active", "Active", &rest_kind},
    {"refused", "Refused", &rest_kind},
    {"lists-live", "Lists under way", &rest_kind},
    {"lists-created", "Lists created", &rest_kind},
    {"lists-answered", "Lists answered", &rest_kind},
    {"lists-freed", "Lists freed", &rest_kind},
    {"lists-abandoned", "Lists abandoned", &rest_kind},
    {"list-refusals", "List uses refused", &rest_kind},
    {"answers-dropped", "Answers dropped", &rest_kind},
    {"connections", "Connections", &rest_kind},
    {"connections-refused", "Connections refused", &rest_kind},
    {"watchers", "Watchers", &rest_kind},
    {"watchers-refused", "Watchers refused", &rest_kind},
};
constexpr resource requests = {"requests", layout::record, request_columns};

constexpr column limited_columns[] = {
    {"domain", "Domain", &name_kind},
    {"port", "Port", &port_kind},
    {"evicted", "Evicted", &number_kind},
    {"refused", "Refused", &number_kind},
};
constexpr resource limited_scopes = {"limited", layout::table, limited_columns};

constexpr column proof_columns[] = {
    {"asked", "Asked", &rest_kind},
    {"disagreed", "Disagreed", &rest_kind},
    {"listed-stale", "Listed, stale", &rest_kind},
    {"listed-missing", "Listed, missing", &rest_kind},
    {"last", "Last", &rest_kind},
};
constexpr resource proof = {"proof", layout::record, proof_columns};

constexpr column history_columns[] = {
    {"events", "Events", &rest_kind},
    {"events-kept", "Events kept", &rest_kind},
    {"moves-kept", "Moves kept", &rest_kind},
    {"bytes", "Bytes", &rest_kind},
};
constexpr resource history = {"history", layout::record, history_columns};

constexpr column lock_wait_columns[] = {
    {"thread", "Thread", &name_kind},         {"thread-id", "Thread Id", &number_kind},
    {"waited-ms", "Waited ms", &number_kind}, {"line", "Line", &number_kind},
    {"function", "Function", &rest_kind},
};
constexpr resource lock_waits = {"lock-waits", layout::table, lock_wait_columns};

constexpr column health_columns[] = {
    {"plane", "Forwarding plane", &rest_kind},
    {"group", "Group", &rest_kind},
    {"status", "Status", &rest_kind},
    {"generation", "Generation", &rest_kind},
    {"overruns", "Overruns", &rest_kind},
    {"last-overrun", "Last overrun", &rest_kind},
    {"notifications-lost", "Notifications lost", &rest_kind},
    {"events", "Events", &rest_kind},
    {"events-merged", "Events merged", &rest_kind},
    {"messages-refused", "Messages refused", &rest_kind},
    {"links", "Links", &rest_kind},
    {"entries", "Entries", &rest_kind},
    {"limit", "Entry limit", &limit_kind},
    {"entries-missing", "Entries missing", &rest_kind},
    {"evictions", "Evictions", &rest_kind},
    {"entries-refused", "Entries refused", &rest_kind},
    {"domain-limit", "Domain limit", &rest_kind},
    {"domains-without-id", "Domains without id", &rest_kind},
    {"port-limit", "Port limit", &rest_kind},
    {"ports-without-id", "Ports without id", &rest_kind},
    {"limited", "Limited", &rest_kind, &limited_scopes},
    {"ipv6-destinations", "IPv6 destinations", &rest_kind},
    {"next-hop-destinations", "Next-hop destinations", &rest_kind},
    {"resyncs", "Resyncs", &rest_kind},
    {"resyncs-degraded", "Resyncs degraded", &rest_kind},
    {"doubtful-asked", "Doubtful asked", &rest_kind},
    {"doubtful-kept", "Doubtful kept", &rest_kind},
    {"feeds", "Feeds", &rest_kind},
    {"feeds-full", "Full feeds", &rest_kind},
    {"history", "History", &rest_kind, &history},
    {"proof", "Proof", &rest_kind, &proof},
    {"unmapped", "Unmapped", &rest_kind, &reasons},
    {"refused", "Refused", &rest_kind, &reasons},
    {"kernel-lacks", "Kernel lacks", &rest_kind},
    {"notes", "Notes", &rest_kind},
    {"log-lines-dropped", "Log lines dropped", &rest_kind},
    {"memory", "Memory", &rest_kind, &memory},
    {"requests", "Requests", &rest_kind, &requests},
    {"lock-waits", "Lock waits", &rest_kind, &lock_waits},
};

static_assert(std::size(health_columns) <= max_columns && std::size(aging_entry_columns) <= max_columns);

} // namespace

constexpr resource mac_entries = {"mac-entry", layout::table, mac_entry_columns};
constexpr resource aging_entries = {"mac-entry", layout::table, aging_entry_columns};
constexpr resource mac_counts = {"mac-count", layout::table, mac_count_columns};
constexpr resource mac_groups = {"mac-count", layout::table, mac_group_columns,
                                 "Entries as show mac lists them, with the addresses of ports and bridges (local)."};
constexpr resource domains = {"domain", layout::table, domain_columns};
constexpr resource ports = {"port", layout::table, port_columns};
constexpr resource vteps = {"vtep", layout::table, vtep_columns};
constexpr resource tunnel_entries = {"tunnel-entry", layout::table, tunnel_entry_columns};
constexpr resource health = {"health", layout::record, health_columns};
constexpr resource traces = {"trace", layout::table, trace_columns};
constexpr resource events = {"event", layout::table, event_columns};
constexpr resource moves = {"move", layout::table, move_columns};
constexpr resource flaps = {"flap", layout::table, flap_columns};
constexpr resource found_places = {"mac-entry", layout::record, found_place_columns};
constexpr resource found_moves = {"move", layout::record, found_move_columns};
constexpr resource top_ports = {"port", layout::table, top_port_columns};
constexpr resource top_domains = {"domain", layout::table, top_domain_columns};

} // namespace l2fibctl
