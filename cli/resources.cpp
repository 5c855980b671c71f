#include "cli/resources.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "daemon/visible.h"

namespace l2fibctl {

namespace {

using nlohmann::json;

std::string as_text(const json &value);

std::string as_list(const json &value)
{
    std::string text;
    for (const json &element : value) {
        text += (text.empty() ? "" : ", ") + as_text(element);
    }
    return text.empty() ? "-" : text;
}

std::string as_text(const json &value)
{
    if (value.is_string()) {
        const auto &text = value.get_ref<const std::string &>();
        return text.empty() ? "-" : l2fibd::visible(text);
    }
    if (value.is_array()) {
        return as_list(value);
    }
    return value.is_boolean() ? (value.get<bool>() ? "yes" : "no") : value.dump(-1, ' ', true);
}

// Hours, minutes and seconds; from a day on, days and hours.
std::string as_age(const json &value)
{
    if (!value.is_number_unsigned()) {
        return as_text(value);
    }
    const auto seconds = value.get<unsigned long long>();
    const auto minutes = seconds / 60;
    const auto hours = minutes / 60;
    char text[40];
    if (hours < 24) {
        std::snprintf(text, sizeof text, "%02llu:%02llu:%02llu", hours, minutes % 60, seconds % 60);
    } else {
        std::snprintf(text, sizeof text, "%llud%02lluh", hours / 24, hours % 24);
    }
    return text;
}

std::string as_limit(const json &value)
{
    return value == "18446744073709551615" ? "none" : as_text(value);
}

constexpr column_kind name_kind = {22, false, as_text};
constexpr column_kind port_kind = {15, false, as_text}; // as long as an interface's name may be
constexpr column_kind mac_kind = {17, false, as_text};
constexpr column_kind ipv4_kind = {15, false, as_text};
constexpr column_kind ip_kind = {39, false, as_text};
constexpr column_kind word_kind = {9, false, as_text};
constexpr column_kind age_kind = {8, true, as_age};
constexpr column_kind id_kind = {10, true, as_text};
constexpr column_kind vlan_kind = {5, true, as_text};
constexpr column_kind vni_kind = {8, true, as_text};
constexpr column_kind number_kind = {9, true, as_text};
constexpr column_kind limit_kind = {9, true, as_limit};
constexpr column_kind rest_kind = {0, false, as_text}; // of last columns
constexpr const column_kind *json_only = &rest_kind;

constexpr column mac_entry_columns[] = {
    {"domain", "Domain", &name_kind}, {"mac-address", "MAC Address", &mac_kind},
    {"bridge-id", "", json_only},     {"xcid", "", json_only},
    {"port", "Port", &port_kind},     {"origin", "Type", &word_kind},
    {"age", "Age", &age_kind},        {"last-seen", "", json_only},
    {"vlan", "VLAN", &vlan_kind},     {"vni", "VNI", &vni_kind},
    {"vtep", "VTEP", &ipv4_kind},     {"backbone-mac", "", json_only},
    {"node-id", "", json_only},       {"flags", "Flags", &rest_kind},
};

constexpr column mac_count_columns[] = {
    {"scope", "Scope", &name_kind},     {"total", "Total", &number_kind}, {"learned", "Learned", &number_kind},
    {"static", "Static", &number_kind}, {"local", "Local", &number_kind}, {"bridge-own", "Bridge", &number_kind},
};

constexpr column domain_columns[] = {
    {"name", "Domain", &name_kind},   {"bridge-id", "Bridge ID", &number_kind},
    {"bridge", "Bridge", &port_kind}, {"ifindex", "Ifindex", &number_kind},
    {"vlan-aware", "", json_only},    {"vlan", "VLAN", &vlan_kind},
};

constexpr column port_columns[] = {
    {"xcid", "XCID", &id_kind},   {"name", "Port", &port_kind},         {"ifindex", "Ifindex", &number_kind},
    {"kind", "Type", &word_kind}, {"oper-status", "State", &word_kind}, {"domain", "Domain", &name_kind},
    {"bridge-id", "", json_only}, {"vlan", "VLAN", &vlan_kind},         {"vni", "VNI", &vni_kind},
};

constexpr column vtep_columns[] = {
    {"address", "VTEP", &ipv4_kind},  {"port", "Port", &port_kind}, {"xcid", "XCID", &id_kind},
    {"domain", "Domain", &name_kind}, {"vni", "VNI", &vni_kind},
};

constexpr column tunnel_entry_columns[] = {
    {"domain", "Domain", &name_kind},      {"mac-address", "MAC Address", &mac_kind},
    {"bridge-id", "", json_only},          {"xcid", "", json_only},
    {"port", "Port", &port_kind},          {"destination", "Destination", &ip_kind},
    {"next-hop-id", "Next Hop", &id_kind}, {"vni", "VNI", &vni_kind},
    {"source-vni", "From VNI", &vni_kind}, {"udp-port", "", json_only},
    {"flags", "Flags", &rest_kind},
};

constexpr column trace_columns[] = {
    {"time", "", json_only},   {"ring", "Ring", &word_kind},  {"sequence", "Sequence", &number_kind},
    {"id", "", json_only},     {"thread", "", json_only},     {"function", "", json_only},
    {"values", "", json_only}, {"text", "Point", &rest_kind},
};

constexpr column reason_columns[] = {
    {"count", "Count", &number_kind},
    {"reason", "Reason", &rest_kind},
};
constexpr resource reasons = {"reason", layout::table, reason_columns};

constexpr column pool_columns[] = {
    {"name", "Pool", &name_kind},           {"element-size", "Size", &number_kind},
    {"in-use", "In Use", &number_kind},     {"peak", "Peak", &number_kind},
    {"limit", "Limit", &limit_kind},        {"bytes", "Bytes", &id_kind},
    {"failures", "Failures", &number_kind}, {"refused-frees", "Bad Frees", &number_kind},
};
constexpr resource pools = {"pool", layout::table, pool_columns};

constexpr column memory_columns[] = {
    {"bytes", "Bytes", &rest_kind},
    {"pool", "Pools", &rest_kind, &pools},
};
constexpr resource memory = {"memory", layout::record, memory_columns};

constexpr column request_columns[] = {
    {"active", "Active", &rest_kind},
    {"refused", "Refused", &rest_kind},
    {"lists-live", "Lists under way", &rest_kind},
};
constexpr resource requests = {"requests", layout::record, request_columns};

constexpr column health_columns[] = {
    {"plane", "Forwarding plane", &rest_kind},
    {"group", "Group", &rest_kind},
    {"status", "Status", &rest_kind},
    {"generation", "Generation", &rest_kind},
    {"overruns", "Overruns", &rest_kind},
    {"events", "Events", &rest_kind},
    {"events-merged", "Events merged", &rest_kind},
    {"messages-refused", "Messages refused", &rest_kind},
    {"links", "Links", &rest_kind},
    {"entries", "Entries", &rest_kind},
    {"ipv6-destinations", "IPv6 destinations", &rest_kind},
    {"next-hop-destinations", "Next-hop destinations", &rest_kind},
    {"resyncs", "Resyncs", &rest_kind},
    {"resyncs-degraded", "Resyncs degraded", &rest_kind},
    {"doubtful-asked", "Doubtful asked", &rest_kind},
    {"doubtful-kept", "Doubtful kept", &rest_kind},
    {"unmapped", "Unmapped", &rest_kind, &reasons},
    {"refused", "Refused", &rest_kind, &reasons},
    {"notes", "Notes", &rest_kind},
    {"memory", "Memory", &rest_kind, &memory},
    {"requests", "Requests", &rest_kind, &requests},
};

constexpr column bridge_entry_columns[] = {
    {"mac", "", json_only},   {"ifname", "", json_only}, {"dst", "", json_only},     {"vlan", "", json_only},
    {"port", "", json_only},  {"vni", "", json_only},    {"src_vni", "", json_only}, {"nhid", "", json_only},
    {"flags", "", json_only}, {"master", "", json_only}, {"state", "", json_only},
};

} // namespace

constexpr resource mac_entries = {"mac-entry", layout::table, mac_entry_columns};
constexpr resource mac_counts = {"mac-count", layout::table, mac_count_columns};
constexpr resource domains = {"domain", layout::table, domain_columns};
constexpr resource ports = {"port", layout::table, port_columns};
constexpr resource vteps = {"vtep", layout::table, vtep_columns};
constexpr resource tunnel_entries = {"tunnel-entry", layout::table, tunnel_entry_columns};
constexpr resource health = {"health", layout::record, health_columns};
constexpr resource traces = {"trace", layout::table, trace_columns};
constexpr resource bridge_entries = {"mac-entry", layout::table, bridge_entry_columns};

} // namespace l2fibctl
