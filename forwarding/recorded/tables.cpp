// SPDX-License-Identifier: Apache-2.0

#include "forwarding/recorded/tables.h"

#include <algorithm>
#include <arpa/inet.h>
#include <net/if.h>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/text.h"
#include "forwarding/kernel/netlink/kernel_decode.h"
#include "forwarding/recorded/elements.h"

namespace forwarding {
namespace {

[[noreturn]] void refuse(std::string_view key, const std::string &expected)
{
    throw malformed("\"" + std::string(key) + "\" is not " + expected);
}

// ---- Values of an element ----

struct bit_name {
    std::string_view name;
    uint8_t bit;
};

// An object of an element. A missing one has no members.
struct object {
    const element &in;
    const value *at;
};

const value *member(const object &of, std::string_view key)
{
    return of.at != nullptr ? of.in.member(*of.at, key) : nullptr;
}

// Returns an empty text if the member is missing.
std::string_view text(const object &of, std::string_view key)
{
    const value *found = member(of, key);
    if (found == nullptr) {
        return {};
    }
    if (found->kind != value_kind::text) {
        refuse(key, "a text");
    }
    return of.in.text(*found);
}

std::string_view required_text(const object &of, std::string_view key)
{
    const std::string_view found = text(of, key);
    if (found.empty()) {
        refuse(key, "there; a text was expected");
    }
    return found;
}

// Returns 0 if the member is missing.
uint32_t number(const object &of, std::string_view key, uint32_t max)
{
    const value *found = member(of, key);
    if (found == nullptr) {
        return 0;
    }
    if (found->kind != value_kind::number || found->number > max) {
        refuse(key, "a number from 0 to " + std::to_string(max));
    }
    return static_cast<uint32_t>(found->number);
}

// Returns true for true and for a number other than 0; false if the member is missing.
bool truth(const object &of, std::string_view key)
{
    const value *found = member(of, key);
    if (found != nullptr && found->kind != value_kind::truth && found->kind != value_kind::number) {
        refuse(key, "true, false, 0 or 1");
    }
    return found != nullptr && found->number != 0;
}

// Returns the bits of the words in a list of texts; other words have none. Returns 0 if the member is missing.
uint8_t bits_of_words(const object &of, std::string_view key, std::span<const bit_name> names)
{
    const value *list = member(of, key);
    if (list == nullptr) {
        return 0;
    }
    if (list->kind != value_kind::list) {
        refuse(key, "a list of texts");
    }
    uint8_t bits = 0;
    for (const value *each = of.in.first(*list); each != nullptr; each = of.in.next(*list, *each)) {
        if (each->kind != value_kind::text) {
            refuse(key, "a list of texts");
        }
        const auto name = std::ranges::find(names, of.in.text(*each), &bit_name::name);
        bits |= name != names.end() ? name->bit : uint8_t{0};
    }
    return bits;
}

mac_address to_mac(std::string_view value, std::string_view key)
{
    const auto mac = base::parse_mac(value);
    if (!mac) {
        refuse(key, "an address of six bytes such as 02:00:00:00:00:01");
    }
    return *mac;
}

// ---- Links ----

constexpr uint32_t max_vni = 0xffffff; // 24 bits
constexpr uint32_t max_vlan = 4094;    // 4095 is reserved
constexpr size_t mac_text_length = std::string_view("00:00:00:00:00:00").size();

constexpr uint8_t link_up = 0x01;
constexpr bit_name link_flag_names[] = {{"UP", link_up}};

// The result has no members if the member is missing.
object object_of(const object &of, std::string_view key)
{
    const value *found = member(of, key);
    if (found != nullptr && found->kind != value_kind::object) {
        refuse(key, "an object");
    }
    return {of.in, found};
}

void read_kind(const object &from, link_record &link)
{
    const object info = object_of(from, "linkinfo");
    link.kind = link_kind_named(text(info, "info_kind"));
    const object data = object_of(info, "info_data");
    if (link.kind == link_kind::bridge) {
        link.vlan_aware = truth(data, "vlan_filtering");
        link.ageing_ms = ageing_ms_of(number(data, "ageing_time", UINT32_MAX));
    } else if (link.kind == link_kind::vxlan) {
        link.external = truth(data, "external");
        link.vni = link.external ? 0 : number(data, "id", max_vni);
    }
}

link_record read_link(const object &from)
{
    link_record link;
    link.ifindex = number(from, "ifindex", INT32_MAX);
    if (link.ifindex == 0) {
        refuse("ifindex", "there; a number from 1 was expected");
    }
    link.name = required_text(from, "ifname");
    if (link.name.size() >= IFNAMSIZ || link.name.find('\0') != link.name.npos) {
        refuse("ifname", "a name of at most 15 characters");
    }
    link.up = bits_of_words(from, "flags", link_flag_names) != 0;
    // Layer-3 tunnels have addresses of other lengths; they cannot be ports, so theirs are skipped.
    if (const std::string_view address = text(from, "address"); address.size() == mac_text_length) {
        link.address = to_mac(address, "address");
    }
    read_kind(from, link);
    return link;
}

struct text_hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

using link_numbers = std::unordered_map<std::string, uint32_t, text_hash, std::equal_to<>>;

void read_links(const std::string &path, std::vector<link_record> &links, link_numbers &by_name)
{
    std::vector<std::string> masters;
    std::unordered_set<uint32_t> numbers;
    read_elements(path, [&](const element &each) {
        const object from{each, &each.whole()};
        links.push_back(read_link(from));
        masters.emplace_back(text(from, "master"));
        if (!numbers.insert(links.back().ifindex).second) {
            refuse("ifindex", "unique in the file");
        }
        if (!by_name.emplace(links.back().name, links.back().ifindex).second) {
            refuse("ifname", "unique in the file");
        }
    });
    // The file may list a master after its ports. A master in another network namespace is not listed and stays 0.
    for (size_t at = 0; at < masters.size(); at++) {
        const auto master = by_name.find(masters[at]);
        links[at].master = master != by_name.end() ? master->second : 0;
    }
}

// ---- Entries ----

constexpr uint8_t fdb_self = 0x80; // in the list of flags, but no bit of fdb_record::flags

constexpr bit_name flag_names[] = {
    {"sticky", fdb_sticky}, {"extern_learn", fdb_extern_learn}, {"offload", fdb_offloaded},
    {"locked", fdb_locked}, {"inactive", fdb_inactive},         {"self", fdb_self},
};

constexpr bit_name state_names[] = {
    {"", fdb_reachable},          {"reachable", fdb_reachable}, {"stale", fdb_stale},
    {"permanent", fdb_permanent}, {"static", fdb_noarp},        {"noarp", fdb_noarp},
};

uint8_t state_of(const object &from)
{
    const auto *const found = std::ranges::find(state_names, text(from, "state"), &bit_name::name);
    if (found == std::end(state_names)) {
        refuse("state", "one of permanent, static, stale, reachable or nothing");
    }
    return found->bit;
}

fdb_destination destination_of(const object &from)
{
    fdb_destination destination;
    if (const std::string address(text(from, "dst")); !address.empty()) {
        if (inet_pton(AF_INET, address.c_str(), destination.address.data()) == 1) {
            destination.kind = destination_kind::ipv4;
        } else if (inet_pton(AF_INET6, address.c_str(), destination.address.data()) == 1) {
            destination.kind = destination_kind::ipv6;
        } else {
            refuse("dst", "an IPv4 or IPv6 address");
        }
    } else if (member(from, "nhid") != nullptr) {
        destination.kind = destination_kind::next_hop;
        destination.next_hop = number(from, "nhid", UINT32_MAX);
    } else if (const std::string_view backbone = text(from, "backbone"); !backbone.empty()) {
        const mac_address mac = to_mac(backbone, "backbone");
        destination.kind = destination_kind::backbone;
        std::ranges::copy(mac, destination.address.begin());
    }
    return destination;
}

uint32_t link_named(const object &from, std::string_view key, const link_numbers &links)
{
    const auto found = links.find(required_text(from, key));
    if (found == links.end()) {
        refuse(key, "the name of a link in links.json");
    }
    return found->second;
}

fdb_record read_entry(const object &from, const link_numbers &links)
{
    fdb_record record;
    record.mac = to_mac(required_text(from, "mac"), "mac");
    record.ifindex = link_named(from, "ifname", links);
    const uint8_t flags = bits_of_words(from, "flags", flag_names);
    record.self = (flags & fdb_self) != 0;
    if (!record.self) {
        record.master = link_named(from, "master", links);
    }
    record.flags = static_cast<uint8_t>(flags & ~fdb_self);
    record.state = state_of(from);
    record.vlan = static_cast<uint16_t>(number(from, "vlan", max_vlan));
    record.source_vni = number(from, "src_vni", max_vni);
    record.destination = destination_of(from);
    record.destination.vni = number(from, "vni", max_vni);
    record.destination.port = static_cast<uint16_t>(number(from, "port", UINT16_MAX));
    record.edm_flags = static_cast<uint16_t>(number(from, "edm_flags", UINT16_MAX));
    return record;
}

void read_entries(const std::string &path, const link_numbers &links, recorded_entries &entries)
{
    read_elements(path, [&](const element &each) {
        const object from{each, &each.whole()};
        const uint32_t age = number(from, "updated", INT32_MAX);
        entries.add(read_entry(from, links), member(from, "updated") != nullptr ? std::optional(age) : std::nullopt);
    });
    entries.sort();
}

} // namespace

recorded_tables read_tables(const std::string &directory)
{
    recorded_tables tables;
    link_numbers by_name;
    read_links(directory + "/links.json", tables.links, by_name);
    read_entries(directory + "/fdb.json", by_name, tables.entries);
    return tables;
}

} // namespace forwarding
