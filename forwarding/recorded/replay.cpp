// SPDX-License-Identifier: Apache-2.0

#include "forwarding/recorded/replay.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <net/if.h>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/text.h"
#include "forwarding/kernel/kernel_decode.h"

namespace forwarding {
namespace {

using nlohmann::json;

// A file or an element that breaks the rules of its form. Readers of values name the member; read_elements adds the
// file and the element. It does not leave this source.
struct malformed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void refuse(const char *key, const std::string &expected)
{
    throw malformed(std::string("\"") + key + "\" is not " + expected);
}

// ---- Values of an element ----

const json *member(const json &element, const char *key)
{
    const auto found = element.find(key);
    return found != element.end() ? &*found : nullptr;
}

// Returns an empty text if the member is missing.
std::string text(const json &element, const char *key)
{
    const json *value = member(element, key);
    if (value == nullptr) {
        return {};
    }
    if (!value->is_string()) {
        refuse(key, "a text");
    }
    return value->get<std::string>();
}

std::string required_text(const json &element, const char *key)
{
    std::string value = text(element, key);
    if (value.empty()) {
        refuse(key, "there; a text was expected");
    }
    return value;
}

// Returns 0 if the member is missing.
uint32_t number(const json &element, const char *key, uint32_t max)
{
    const json *value = member(element, key);
    if (value == nullptr) {
        return 0;
    }
    if (!value->is_number_unsigned() || value->get<uint64_t>() > max) {
        refuse(key, "a number from 0 to " + std::to_string(max));
    }
    return value->get<uint32_t>();
}

// Returns true for true and for a number other than 0; false if the member is missing.
bool truth(const json &element, const char *key)
{
    const json *value = member(element, key);
    if (value == nullptr) {
        return false;
    }
    if (!value->is_boolean() && !value->is_number_unsigned()) {
        refuse(key, "true, false, 0 or 1");
    }
    return value->is_boolean() ? value->get<bool>() : value->get<uint64_t>() != 0;
}

std::vector<std::string> words(const json &element, const char *key)
{
    const json *value = member(element, key);
    std::vector<std::string> found;
    if (value == nullptr) {
        return found;
    }
    if (!value->is_array()) {
        refuse(key, "a list of texts");
    }
    for (const json &each : *value) {
        if (!each.is_string()) {
            refuse(key, "a list of texts");
        }
        found.push_back(each.get<std::string>());
    }
    return found;
}

mac_address to_mac(const std::string &value, const char *key)
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

// Returns an empty object if the member is missing.
const json &object_of(const json &element, const char *key)
{
    static const json nothing = json::object();
    const json *value = member(element, key);
    if (value != nullptr && !value->is_object()) {
        refuse(key, "an object");
    }
    return value != nullptr ? *value : nothing;
}

void read_kind(const json &element, link_record &link)
{
    const json &info = object_of(element, "linkinfo");
    link.kind = link_kind_named(text(info, "info_kind"));
    const json &data = object_of(info, "info_data");
    if (link.kind == link_kind::bridge) {
        link.vlan_aware = truth(data, "vlan_filtering");
        link.ageing_ms = ageing_ms_of(number(data, "ageing_time", UINT32_MAX));
    } else if (link.kind == link_kind::vxlan) {
        link.external = truth(data, "external");
        link.vni = link.external ? 0 : number(data, "id", max_vni);
    }
}

link_record read_link(const json &element)
{
    link_record link;
    link.ifindex = number(element, "ifindex", INT32_MAX);
    if (link.ifindex == 0) {
        refuse("ifindex", "there; a number from 1 was expected");
    }
    link.name = required_text(element, "ifname");
    if (link.name.size() >= IFNAMSIZ || link.name.find('\0') != link.name.npos) {
        refuse("ifname", "a name of at most 15 characters");
    }
    const auto flags = words(element, "flags");
    link.up = std::find(flags.begin(), flags.end(), "UP") != flags.end();
    // Layer-3 tunnels have addresses of other lengths; they cannot be ports, so theirs are skipped.
    if (const std::string address = text(element, "address"); address.size() == mac_text_length) {
        link.address = to_mac(address, "address");
    }
    read_kind(element, link);
    return link;
}

// ---- Entries ----

struct bit_name {
    const char *name;
    uint8_t bit;
};

constexpr bit_name flag_names[] = {
    {"sticky", fdb_sticky}, {"extern_learn", fdb_extern_learn}, {"offload", fdb_offloaded},
    {"locked", fdb_locked}, {"inactive", fdb_inactive},
};

constexpr bit_name state_names[] = {
    {"", fdb_reachable},          {"reachable", fdb_reachable}, {"stale", fdb_stale},
    {"permanent", fdb_permanent}, {"static", fdb_noarp},        {"noarp", fdb_noarp},
};

uint8_t state_of(const json &element)
{
    const std::string name = text(element, "state");
    for (const bit_name &each : state_names) {
        if (name == each.name) {
            return each.bit;
        }
    }
    refuse("state", "one of permanent, static, stale, reachable or nothing");
}

uint8_t flags_of_words(const std::vector<std::string> &found)
{
    uint32_t flags = 0;
    for (const bit_name &each : flag_names) {
        flags |= std::find(found.begin(), found.end(), each.name) != found.end() ? each.bit : 0u;
    }
    return static_cast<uint8_t>(flags);
}

fdb_destination destination_of(const json &element)
{
    fdb_destination destination;
    if (const std::string address = text(element, "dst"); !address.empty()) {
        if (inet_pton(AF_INET, address.c_str(), destination.address.data()) == 1) {
            destination.kind = destination_kind::ipv4;
        } else if (inet_pton(AF_INET6, address.c_str(), destination.address.data()) == 1) {
            destination.kind = destination_kind::ipv6;
        } else {
            refuse("dst", "an IPv4 or IPv6 address");
        }
    } else if (member(element, "nhid") != nullptr) {
        destination.kind = destination_kind::next_hop;
        destination.next_hop = number(element, "nhid", UINT32_MAX);
    } else if (const std::string backbone = text(element, "backbone"); !backbone.empty()) {
        const mac_address mac = to_mac(backbone, "backbone");
        destination.kind = destination_kind::backbone;
        std::copy(mac.begin(), mac.end(), destination.address.begin());
    }
    return destination;
}

constexpr int64_t ms_per_second = 1000;

using link_numbers = std::unordered_map<std::string, uint32_t>;

uint32_t link_named(const json &element, const char *key, const link_numbers &links)
{
    const auto found = links.find(required_text(element, key));
    if (found == links.end()) {
        refuse(key, "the name of a link in links.json");
    }
    return found->second;
}

fdb_record read_entry(const json &element, const link_numbers &links, int64_t now_ms)
{
    fdb_record record;
    record.mac = to_mac(required_text(element, "mac"), "mac");
    record.ifindex = link_named(element, "ifname", links);
    const auto flags = words(element, "flags");
    record.self = std::find(flags.begin(), flags.end(), "self") != flags.end();
    if (!record.self) {
        record.master = link_named(element, "master", links);
    }
    record.flags = flags_of_words(flags);
    record.state = state_of(element);
    record.vlan = static_cast<uint16_t>(number(element, "vlan", max_vlan));
    record.source_vni = number(element, "src_vni", max_vni);
    record.destination = destination_of(element);
    record.destination.vni = number(element, "vni", max_vni);
    record.destination.port = static_cast<uint16_t>(number(element, "port", UINT16_MAX));
    record.edm_flags = static_cast<uint16_t>(number(element, "edm_flags", UINT16_MAX));
    if (member(element, "updated") != nullptr) {
        record.updated_ms = now_ms - ms_per_second * number(element, "updated", INT32_MAX);
    }
    return record;
}

// ---- Files ----

json parse_file(const std::string &path)
{
    std::ifstream file(path);
    if (!file) {
        throw malformed(base::system_failure(errno, path + ": cannot be read").text);
    }
    try {
        return json::parse(file);
    } catch (const json::exception &error) {
        throw malformed(path + ": is not JSON: " + error.what());
    } catch (const std::ios_base::failure &error) { // of a directory, or of a failing disk
        throw malformed(path + ": cannot be read: " + error.what());
    }
}

// Calls `read(element)` for each element of the list in a file.
template <typename Read>
void read_elements(const std::string &path, Read read)
{
    const json list = parse_file(path);
    if (!list.is_array()) {
        throw malformed(path + ": is not a list of objects");
    }
    for (size_t at = 0; at < list.size(); at++) {
        try {
            if (!list[at].is_object()) {
                throw malformed("is not an object");
            }
            read(list[at]);
        } catch (const malformed &error) {
            throw malformed(path + ": element " + std::to_string(at) + ": " + error.what());
        }
    }
}

struct recorded_tables {
    std::vector<link_record> links;
    std::vector<fdb_record> entries; // sorted by key
};

bool before(const fdb_record &left, const fdb_record &right)
{
    return key_of(left) < key_of(right);
}

void read_links(const std::string &path, recorded_tables &tables, link_numbers &by_name)
{
    std::vector<std::string> masters;
    std::unordered_set<uint32_t> numbers;
    read_elements(path, [&](const json &element) {
        tables.links.push_back(read_link(element));
        masters.push_back(text(element, "master"));
        if (!numbers.insert(tables.links.back().ifindex).second) {
            refuse("ifindex", "unique in the file");
        }
        if (!by_name.emplace(tables.links.back().name, tables.links.back().ifindex).second) {
            refuse("ifname", "unique in the file");
        }
    });
    // The file may list a master after its ports. A master in another network namespace is not listed and stays 0.
    for (size_t at = 0; at < masters.size(); at++) {
        const auto master = by_name.find(masters[at]);
        tables.links[at].master = master != by_name.end() ? master->second : 0;
    }
}

recorded_tables read_tables(const std::string &directory)
{
    using namespace std::chrono;
    const int64_t now_ms = duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
    recorded_tables tables;
    link_numbers by_name;
    read_links(directory + "/links.json", tables, by_name);
    read_elements(directory + "/fdb.json",
                  [&](const json &element) { tables.entries.push_back(read_entry(element, by_name, now_ms)); });
    std::stable_sort(tables.entries.begin(), tables.entries.end(), before);
    return tables;
}

// ---- The plane ----

class recorded : public plane {
public:
    explicit recorded(recorded_tables tables)
        : tables_(std::move(tables))
    {}

    const char *kind() const override { return "recorded"; }

    base::result start(event_manager_t *, sink &to) override
    {
        to.full_dump_begun();
        for (const link_record &link : tables_.links) {
            to.link_changed(link);
        }
        for (const fdb_record &entry : tables_.entries) {
            to.fdb_changed(entry);
        }
        started_ = true;
        to.full_dump_ended(true);
        return base::success();
    }

    void drain() override {}

    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) override
    {
        for (size_t at = 0; at < keys.size(); at++) {
            const auto found =
                std::lower_bound(tables_.entries.begin(), tables_.entries.end(), keys[at],
                                 [](const fdb_record &entry, const fdb_key &key) { return key_of(entry) < key; });
            const bool present = found != tables_.entries.end() && key_of(*found) == keys[at];
            answers[at].presence = !started_ ? fdb_presence::unknown
                                   : present ? fdb_presence::present
                                             : fdb_presence::absent;
            answers[at].record = present ? *found : fdb_record{};
        }
    }

    plane_health health() const override
    {
        plane_health health;
        health.clean = started_;
        health.full_dumps = 1;
        health.events = tables_.links.size() + tables_.entries.size();
        return health;
    }

    void stop() override { started_ = false; }

private:
    const recorded_tables tables_;
    std::atomic<bool> started_{false};
};

} // namespace

base::result load_recorded_plane(const std::string &directory, std::unique_ptr<plane> &loaded)
{
    try {
        loaded = std::make_unique<recorded>(read_tables(directory));
        return base::success();
    } catch (const malformed &wrong) {
        return base::failure(EINVAL, wrong.what());
    } catch (const std::bad_alloc &) {
        return base::failure(ENOMEM, directory + ": out of memory");
    }
}

} // namespace forwarding
