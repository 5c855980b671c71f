#include "daemon/records.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <vector>

#include "daemon/api_error.h"
#include "daemon/text.h"
#include "host/parcel_host.h"
#include "l2fm_edm_table.h"
#include "platform/l2fib.h"

namespace l2fibd {

namespace {

constexpr uint64_t nanoseconds = 1'000'000'000;

// ---- Fields of an encoded record ----

class record_fields {
public:
    explicit record_fields(std::span<const uint8_t> data)
    {
        if (host::parcel_read(data, values_) != 0) {
            throw api_error{500, "operation-failed", "the table's answer could not be read"};
        }
    }

    uint64_t number(std::string_view name) const
    {
        const host::parcel_value *value = find(name);
        return value != nullptr ? value->number : 0;
    }

    std::string_view text(std::string_view name) const
    {
        const host::parcel_value *value = find(name);
        return value != nullptr ? value->text : std::string_view();
    }

    // As the wire has them.
    std::span<const uint8_t> bytes(std::string_view name) const
    {
        const std::string_view view = text(name);
        return {reinterpret_cast<const uint8_t *>(view.data()), view.size()};
    }

private:
    const host::parcel_value *find(std::string_view name) const
    {
        const auto found = std::ranges::find(values_, name, &host::parcel_value::name);
        return found != values_.end() ? &*found : nullptr;
    }

    std::vector<host::parcel_value> values_;
};

uint32_t narrow(uint64_t number)
{
    return static_cast<uint32_t>(number);
}

void write_if_set(json_writer &json, std::string_view name, uint64_t number)
{
    if (number != 0) {
        json.member(name, narrow(number));
    }
}

bool has_address(std::span<const uint8_t> bytes)
{
    return std::ranges::any_of(bytes, [](uint8_t byte) { return byte != 0; });
}

// ---- Flags ----

// How a reported flag is called: bits of `mac_flags`, then of `mac_flags2`.
struct flag_name {
    uint32_t flag;
    uint32_t flag2;
    std::string_view name;
};

constexpr uint32_t static_flag = 0x00004000;
constexpr uint32_t local_flag = 0x00002000;

constexpr flag_name flag_names[] = {
    {0x00100000, 0, "backbone"},  {static_flag, 0, "static"},
    {local_flag, 0, "local"},     {0x00020000, 0, "domain-fixed"},
    {0x00010000, 0, "sticky"},    {0x00200000, 0, "bridge-own"},
    {0x00400000, 0, "flag-0040"}, {0x08000000, 0, "extern-learned"},
    {0x20000000, 0, "flag-0200"}, {0x40000000, 0, "flag-0400"},
    {0x80000000, 0, "offloaded"}, {0, 0x0008, "timestamped"},
    {0, 0x0010, "flag-4000"},     {0, 0x0020, "locked"},
    {0, 0x2000, "inactive"},
};

void write_flags(json_writer &json, uint64_t flags, uint64_t flags2)
{
    json.member("origin", (flags & local_flag) != 0 ? "local" : (flags & static_flag) != 0 ? "static" : "learned");
    json.begin_array("flags");
    for (const flag_name &row : flag_names) {
        if ((flags & row.flag) != 0 || (flags2 & row.flag2) != 0) {
            json.text(row.name);
        }
    }
    json.end_array();
}

// ---- Ages ----

// When the entry was last seen, from the record's text, such as "31 Jan 12:00:00". It has no year: the newest that is
// not in the future, give or take a day. It is in UTC because the process is (main.cpp). -1 when it tells no time.
time_t last_seen(std::string_view text, time_t now)
{
    constexpr std::string_view months = "JanFebMarAprMayJunJulAugSepOctNovDec";
    constexpr time_t day = 86'400;
    const size_t month = text.size() == 15 ? months.find(text.substr(3, 3)) : std::string_view::npos;
    if (month == std::string_view::npos) {
        return -1;
    }
    const auto part = [text](size_t at) { return static_cast<int>(parse_number(text.substr(at, 2)).value_or(0)); };
    tm read{};
    gmtime_r(&now, &read);
    const int this_year = read.tm_year;
    const auto in_year = [&](int year) {
        tm time{};
        time.tm_year = year;
        time.tm_mon = static_cast<int>(month / 3);
        time.tm_mday = part(0);
        time.tm_hour = part(7);
        time.tm_min = part(10);
        time.tm_sec = part(13);
        return timegm(&time);
    };
    const time_t seen = in_year(this_year);
    return seen <= now + day ? seen : in_year(this_year - 1);
}

void write_age(json_writer &json, const record_fields &fields)
{
    const time_t now = std::time(nullptr);
    const time_t seen = last_seen(fields.text("time_str"), now);
    if (seen < 0) {
        json.member("age", narrow(fields.number("age") / nanoseconds));
    } else {
        json.member("age", narrow(static_cast<uint64_t>(std::max<time_t>(0, now - seen))));
        json.member("last-seen", utc_text(seen));
    }
}

// ---- Places ----

// The port and what it is called, unless the entry belongs to the bridge domain itself.
void write_port_name(json_writer &json, uint32_t xcid, port_names &names)
{
    if (xcid == EDM_XCID_DUMMY) {
        return;
    }
    json.member("xcid", xcid);
    if (const forwarding::port_view *port = names.find(xcid)) {
        json.member("port", port->name);
    }
}

void write_segment(json_writer &json, const record_fields &fields)
{
    write_if_set(json, "vlan", fields.number("ext_attr"));
    write_if_set(json, "vni", fields.number("vtep_seg_info"));
    if (has_address(fields.bytes("vtep_addr"))) {
        json.member("vtep", ip_text(fields.bytes("vtep_addr")));
    }
    if (fields.number("bmac_valid") != 0) {
        json.member("backbone-mac", mac_text(fields.bytes("bmac")));
    }
    if (fields.number("node_id") != EDM_NODE_UNKNOWN) {
        json.member("node-id", narrow(fields.number("node_id")));
    }
}

// The hexadecimal numbers at the beginning of an item's name.
std::array<uint32_t, 3> numbers_of(std::string_view item_name)
{
    std::array<uint32_t, 3> numbers{};
    const auto parts = split(item_name, ',');
    for (size_t i = 0; i < std::min(parts.size(), numbers.size()); i++) {
        numbers[i] = narrow(parse_number(parts[i], UINT32_MAX, 16).value_or(0));
    }
    return numbers;
}

} // namespace

const forwarding::port_view *port_names::find(uint32_t xcid)
{
    auto found = ports_.find(xcid);
    if (found == ports_.end() && may_renew_) {
        may_renew_ = false;
        ports_.clear();
        for (forwarding::port_view &port : forwarding::ports()) {
            const uint32_t key = port.xcid;
            ports_.insert_or_assign(key, std::move(port));
        }
        found = ports_.find(xcid);
    }
    return found != ports_.end() ? &found->second : nullptr;
}

void write_mac_entry(json_writer &json, std::span<const uint8_t> record, std::string_view address, port_names &names)
{
    const record_fields fields(record);
    json.begin_object();
    json.member("domain", fields.text("bd_name"));
    json.member("mac-address", address);
    json.member("bridge-id", narrow(fields.number("bridge_id")));
    write_port_name(json, narrow(fields.number("xcid")), names);
    write_flags(json, fields.number("mac_flags"), fields.number("mac_flags2"));
    write_age(json, fields);
    write_segment(json, fields);
    json.end_object();
}

std::string mac_of_item(std::string_view item_name)
{
    std::array<uint8_t, 6> address{};
    macaddr_lwordston(numbers_of(item_name).data(), address.data());
    return mac_text(address);
}

uint32_t xcid_of(std::span<const uint8_t> record)
{
    return narrow(record_fields(record).number("xcid"));
}

void write_mac_item(json_writer &json, const host::operational_item &item, port_names &names)
{
    write_mac_entry(json, item.data, mac_of_item(item.name), names);
}

void write_vtep_item(json_writer &json, const host::operational_item &item, port_names &names)
{
    const record_fields fields(item.data);
    const uint32_t xcid = numbers_of(item.name)[0];
    json.begin_object();
    json.member("xcid", xcid);
    json.member("address", ip_text(fields.bytes("vtep_addr")));
    if (const forwarding::port_view *port = names.find(xcid)) {
        json.member("port", port->name);
        json.member("domain", port->domain);
    }
    write_if_set(json, "vni", fields.number("seg_info2"));
    json.end_object();
}

void write_mac_count(json_writer &json, std::span<const uint8_t> record, bool with_own)
{
    const record_fields fields(record);
    json.begin_object();
    json.member("total", narrow(fields.number("mac_cnt_sum")));
    json.member("learned", narrow(fields.number("mac_cnt_plain")));
    json.member("static", narrow(fields.number("mac_cnt_f2")));
    json.member("local", narrow(fields.number("mac_cnt_f4")));
    if (with_own) {
        json.member("bridge-own", narrow(fields.number("mac_cnt_f60")));
    }
    json.end_object();
}

uint64_t entries_counted(std::span<const uint8_t> record)
{
    const record_fields fields(record);
    return fields.number("mac_cnt_sum") + fields.number("mac_cnt_f4") + fields.number("mac_cnt_f60");
}

void write_domain(json_writer &json, const forwarding::domain_view &domain)
{
    json.begin_object();
    json.member("name", domain.name);
    json.member("bridge-id", domain.bridge_id);
    json.member("bridge", domain.bridge);
    json.member("ifindex", domain.bridge_ifindex);
    json.name("vlan-aware");
    json.boolean(domain.vlan_aware);
    write_if_set(json, "vlan", domain.vlan);
    json.end_object();
}

void write_port(json_writer &json, const forwarding::port_view &port)
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
    json.end_object();
}

namespace {

struct bit_word {
    uint8_t bit;
    std::string_view word;
};

// Of a device's own entries; those that say what is usual are left out.
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

// What a device's own entry delivers to.
void write_destination(json_writer &json, const forwarding::fdb_destination &destination)
{
    switch (destination.kind) {
    case forwarding::destination_kind::ipv4:
        json.member("destination", ip_text(std::span(destination.address).first(4)));
        break;
    case forwarding::destination_kind::ipv6: json.member("destination", ip_text(destination.address)); break;
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
    json.member("mac-address", mac_text(entry.record.mac));
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
    std::string time = utc_text(static_cast<int64_t>(point.time_ns / nanoseconds));
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%06uZ", narrow(point.time_ns % nanoseconds / 1000));
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
