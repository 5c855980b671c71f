// SPDX-License-Identifier: Apache-2.0

#include "forwarding/generated/generate.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <mutex>
#include <vector>

#include "host/event/event_host.h"

namespace forwarding {
namespace {

// ---- Options ----

struct fabric_item {
    std::string_view name;
    uint32_t fabric_options::*value;
    uint32_t least;
    uint32_t most;
    std::string_view unit; // may stand behind the number
};

constexpr fabric_item fabric_items[] = {
    {"bridges", &fabric_options::bridges, 1, 60'000, ""},  {"ports", &fabric_options::ports, 1, 1'000, ""},
    {"macs", &fabric_options::macs, 0, 16'000'000, ""},    {"vteps", &fabric_options::vteps, 0, 60'000, ""},
    {"churn", &fabric_options::churn, 0, 1'000'000, "/s"}, {"seed", &fabric_options::seed, 0, UINT32_MAX, ""},
};

std::string known_items()
{
    std::string names;
    for (const fabric_item &item : fabric_items) {
        names.append(names.empty() ? "" : ", ").append(item.name);
    }
    return names;
}

std::string parse_value(const fabric_item &item, std::string_view text, fabric_options &options)
{
    std::string_view digits = text;
    if (digits.ends_with(item.unit)) {
        digits.remove_suffix(item.unit.size());
    }
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size() || value < item.least || value > item.most) {
        return std::string(item.name) + " is \"" + std::string(text) + "\", expected a number from "
               + std::to_string(item.least) + " to " + std::to_string(item.most);
    }
    options.*item.value = value;
    return {};
}

std::string parse_item(std::string_view text, fabric_options &options)
{
    const size_t equals = text.find('=');
    for (const fabric_item &item : fabric_items) {
        if (equals != std::string_view::npos && item.name == text.substr(0, equals)) {
            return parse_value(item, text.substr(equals + 1), options);
        }
    }
    return "\"" + std::string(text) + "\" is none of the items NAME=NUMBER with the names " + known_items();
}

// What each bridge has may be too much for all of them.
constexpr struct {
    std::string_view name;
    uint32_t fabric_options::*of_each;
    uint64_t most;
} totals[] = {{"ports", &fabric_options::ports, 1'000'000}, {"vteps", &fabric_options::vteps, 16'000'000}};

std::string check_totals(const fabric_options &options)
{
    for (const auto &each : totals) {
        const uint64_t total = uint64_t{options.bridges} * (options.*each.of_each);
        if (total > each.most) {
            return "bridges times " + std::string(each.name) + " is " + std::to_string(total) + ", expected at most "
                   + std::to_string(each.most);
        }
    }
    return {};
}

// ---- The fabric ----

constexpr uint32_t on_vxlan = UINT32_MAX;
constexpr uint32_t first_vni = 10'000;
constexpr uint32_t remote_share = 4; // every so many-th address is behind a VTEP
constexpr uint32_t static_share = 64;
constexpr uint32_t aging_time_ms = 300'000;

// The first two bytes of an address; the other four are a number.
constexpr uint16_t learned_block = 0x0210;
constexpr uint16_t port_block = 0x0220;

mac_address address(uint16_t block, uint32_t number)
{
    return {static_cast<uint8_t>(block >> 8),   static_cast<uint8_t>(block),       static_cast<uint8_t>(number >> 24),
            static_cast<uint8_t>(number >> 16), static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
}

uint16_t block_of(const mac_address &mac)
{
    return static_cast<uint16_t>(mac[0] << 8 | mac[1]);
}

uint32_t number_of(const mac_address &mac)
{
    return uint32_t{mac[2]} << 24 | uint32_t{mac[3]} << 16 | uint32_t{mac[4]} << 8 | mac[5];
}

fdb_destination vtep_destination(uint32_t vtep)
{
    const uint32_t number = vtep + 1;
    fdb_destination destination{destination_kind::ipv4, {}, 0};
    destination.address = {10, 254, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    return destination;
}

int64_t now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// A small generator of well-mixed numbers (a Weyl sequence, finalised).
class random_numbers {
public:
    explicit random_numbers(uint64_t seed)
        : state_(seed * 0x9e3779b97f4a7c15u)
    {}

    uint32_t below(uint32_t bound)
    {
        state_ += 0x9e3779b97f4a7c15u;
        uint64_t mixed = (state_ ^ (state_ >> 30)) * 0xbf58476d1ce4e5b9u;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebu;
        return static_cast<uint32_t>(((mixed >> 32) * bound) >> 32);
    }

private:
    uint64_t state_;
};

// One learned or static address.
struct host_state {
    int64_t updated_ms = 0;
    uint32_t port = 0; // number on the bridge, or on_vxlan
    uint32_t vtep = 0;
    bool present = true;
};

class fabric : public generated_plane {
public:
    explicit fabric(const fabric_options &options);

    const char *kind() const override { return "generated"; }
    bool start(event_manager_t *evm, sink &to, std::string &error) override;
    void drain() override {}
    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) override;
    plane_health health() const override;
    void stop() override;
    void churn(uint32_t changes) override;

private:
    // Interface indexes: a bridge, its VXLAN device, its ports, the next bridge.
    uint32_t bridge_index(uint32_t bridge) const { return 1 + bridge * (options_.ports + 2); }
    uint32_t vxlan_index(uint32_t bridge) const { return bridge_index(bridge) + 1; }
    uint32_t port_index(uint32_t bridge, uint32_t port) const { return bridge_index(bridge) + 2 + port; }
    uint32_t bridge_of(uint32_t host) const { return host % options_.bridges; }
    bool is_static(uint32_t host) const { return host % static_share == static_share - 1; }

    fdb_record bridge_entry(uint32_t at, const host_state &host) const;
    fdb_record device_entry(uint32_t at, const host_state &host) const;
    fdb_record flood_entry(uint32_t bridge, uint32_t vtep) const;
    fdb_record local_entry(uint32_t ifindex) const;

    void settle_somewhere(host_state &host, bool may_be_remote);
    void tell_bridge(uint32_t bridge);
    void tell_link(const link_record &link);
    void tell_host(uint32_t host);
    void tell_gone(uint32_t host, const host_state &was);
    void tell(const fdb_record &record);
    void change_one();
    void churn_due();

    bool holds(const fdb_key &key, fdb_record &record) const;
    bool holds_own(const fdb_key &key, uint32_t bridge, fdb_record &record) const;
    bool is_local(uint32_t bridge, uint32_t ifindex) const;

    const fabric_options options_;
    random_numbers random_;
    std::vector<host_state> hosts_; // changed under the mutex, by the manager's thread only
    std::mutex mutex_;
    sink *sink_ = nullptr;
    event_manager_t *evm_ = nullptr;
    uint32_t timer_ = 0;
    int64_t churn_began_ms_ = 0;
    uint64_t churned_ = 0;
    std::atomic<bool> started_{false};
    std::atomic<uint64_t> events_{0};
};

fabric::fabric(const fabric_options &options)
    : options_(options)
    , random_(options.seed)
    , hosts_(options.macs)
{
    const int64_t now = now_ms();
    for (uint32_t at = 0; at < options_.macs; at++) {
        settle_somewhere(hosts_[at], (at / options_.bridges) % remote_share == 0 && !is_static(at));
        hosts_[at].updated_ms = now - random_.below(aging_time_ms);
    }
}

void fabric::settle_somewhere(host_state &host, bool may_be_remote)
{
    const bool remote = may_be_remote && options_.vteps != 0;
    host.port = remote ? on_vxlan : random_.below(options_.ports);
    host.vtep = remote ? random_.below(options_.vteps) : 0;
    host.present = true;
}

// ---- Records ----

fdb_record fabric::bridge_entry(uint32_t at, const host_state &host) const
{
    fdb_record record;
    record.master = bridge_index(bridge_of(at));
    record.ifindex = host.port == on_vxlan ? vxlan_index(bridge_of(at)) : port_index(bridge_of(at), host.port);
    record.state = is_static(at) ? fdb_noarp : fdb_reachable;
    record.mac = address(learned_block, at);
    record.updated_ms = host.updated_ms;
    return record;
}

fdb_record fabric::device_entry(uint32_t at, const host_state &host) const
{
    fdb_record record = bridge_entry(at, host);
    record.master = 0;
    record.self = true;
    record.destination = vtep_destination(host.vtep);
    return record;
}

fdb_record fabric::flood_entry(uint32_t bridge, uint32_t vtep) const
{
    fdb_record record;
    record.ifindex = vxlan_index(bridge);
    record.self = true;
    record.state = fdb_permanent;
    record.destination = vtep_destination(vtep);
    return record;
}

fdb_record fabric::local_entry(uint32_t ifindex) const
{
    fdb_record record;
    record.ifindex = ifindex;
    record.master = bridge_index((ifindex - 1) / (options_.ports + 2));
    record.state = fdb_permanent;
    record.mac = address(port_block, ifindex);
    return record;
}

// ---- Telling ----

void fabric::tell(const fdb_record &record)
{
    events_++;
    sink_->fdb_changed(record);
}

void fabric::tell_link(const link_record &link)
{
    events_++;
    sink_->link_changed(link);
}

void fabric::tell_bridge(uint32_t bridge)
{
    link_record link;
    link.up = true;
    link.kind = link_kind::bridge;
    link.ifindex = bridge_index(bridge);
    link.name = "br" + std::to_string(bridge);
    link.address = address(port_block, link.ifindex);
    link.ageing_ms = aging_time_ms;
    tell_link(link);
    tell(local_entry(link.ifindex));
    const std::string prefix = link.name + "p";
    link.master = link.ifindex;
    link.kind = link_kind::other;
    link.ageing_ms = 0;
    for (uint32_t port = 0; port < options_.ports; port++) {
        link.ifindex = port_index(bridge, port);
        link.name = prefix + std::to_string(port);
        link.address = address(port_block, link.ifindex);
        tell_link(link);
        tell(local_entry(link.ifindex));
    }
    if (options_.vteps == 0) {
        return;
    }
    link.kind = link_kind::vxlan;
    link.ifindex = vxlan_index(bridge);
    link.name = "vx" + std::to_string(bridge);
    link.vni = first_vni + bridge;
    link.address = address(port_block, link.ifindex);
    tell_link(link);
    tell(local_entry(link.ifindex));
    for (uint32_t vtep = 0; vtep < options_.vteps; vtep++) {
        tell(flood_entry(bridge, vtep));
    }
}

void fabric::tell_host(uint32_t host)
{
    if (hosts_[host].port == on_vxlan) {
        tell(device_entry(host, hosts_[host]));
    }
    tell(bridge_entry(host, hosts_[host]));
}

// What is left of the state that a host was in.
void fabric::tell_gone(uint32_t host, const host_state &was)
{
    const host_state &is = hosts_[host];
    if (!is.present) {
        events_++;
        sink_->fdb_gone(bridge_entry(host, was));
    }
    if (was.port == on_vxlan && (!is.present || is.port != on_vxlan)) {
        events_++;
        sink_->fdb_gone(device_entry(host, was));
    }
}

bool fabric::start(event_manager_t *evm, sink &to, std::string &error)
{
    sink_ = &to;
    evm_ = evm;
    sink_->generation_begun();
    for (uint32_t bridge = 0; bridge < options_.bridges; bridge++) {
        tell_bridge(bridge);
    }
    for (uint32_t host = 0; host < options_.macs; host++) {
        if (hosts_[host].present) {
            tell_host(host);
        }
    }
    started_ = true;
    sink_->generation_complete(true);
    churn_began_ms_ = now_ms();
    if (options_.churn == 0) {
        return true;
    }
    const auto due = [](void *cookie) { static_cast<fabric *>(cookie)->churn_due(); };
    const uint64_t period_ns = std::max<uint64_t>(50'000'000, 1'000'000'000 / options_.churn);
    if (host::event_timer_attach(evm_, period_ns, period_ns, due, this, &timer_) != 0) {
        error = "the timer for the churn cannot be had";
        started_ = false;
        return false;
    }
    return true;
}

void fabric::stop()
{
    if (started_.exchange(false) && options_.churn != 0) {
        host::event_timer_cancel(evm_, timer_);
    }
}

// ---- Churn ----

void fabric::churn_due()
{
    const auto elapsed_ms = static_cast<uint64_t>(now_ms() - churn_began_ms_);
    const uint64_t due = elapsed_ms * options_.churn / 1000;
    // A loop that was held up does not make up for all of it at once.
    const uint64_t changes = std::min<uint64_t>(due - std::min(due, churned_), options_.churn);
    churned_ = due;
    churn(static_cast<uint32_t>(changes));
}

void fabric::churn(uint32_t changes)
{
    for (uint32_t done = 0; done < changes && options_.macs != 0; done++) {
        change_one();
    }
}

void fabric::change_one()
{
    const uint32_t host = random_.below(options_.macs);
    const uint32_t choice = random_.below(10);
    if (is_static(host)) {
        return;
    }
    const host_state was = hosts_[host];
    {
        const std::lock_guard hold(mutex_);
        host_state &is = hosts_[host];
        if (is.present && choice < 2) {
            is.present = false;
        } else if (!is.present || choice < 7) {
            settle_somewhere(is, random_.below(remote_share) == 0);
        }
        is.updated_ms = is.present ? now_ms() : is.updated_ms;
    }
    if (was.present) {
        tell_gone(host, was);
    }
    if (hosts_[host].present) {
        tell_host(host);
    }
}

// ---- Questions ----

bool fabric::is_local(uint32_t bridge, uint32_t ifindex) const
{
    const uint32_t first = bridge_index(bridge);
    return ifindex >= first && ifindex < bridge_index(bridge + 1)
           && (ifindex != vxlan_index(bridge) || options_.vteps != 0);
}

bool fabric::holds_own(const fdb_key &key, uint32_t bridge, fdb_record &record) const
{
    if (key.mac == mac_address{}) {
        for (uint32_t vtep = 0; vtep < options_.vteps; vtep++) {
            record = flood_entry(bridge, vtep);
            if (record.destination == key.destination) {
                return true;
            }
        }
        return false;
    }
    const uint32_t host = number_of(key.mac);
    if (block_of(key.mac) != learned_block || host >= options_.macs || bridge_of(host) != bridge
        || !hosts_[host].present || hosts_[host].port != on_vxlan) {
        return false;
    }
    record = device_entry(host, hosts_[host]);
    return true;
}

bool fabric::holds(const fdb_key &key, fdb_record &record) const
{
    const uint32_t bridge = key.holder == 0 ? options_.bridges : (key.holder - 1) / (options_.ports + 2);
    if (bridge >= options_.bridges || key.vlan != 0) {
        return false;
    }
    if (key.self) {
        return key.holder == vxlan_index(bridge) && holds_own(key, bridge, record);
    }
    const uint32_t number = number_of(key.mac);
    if (key.holder != bridge_index(bridge)) {
        return false;
    }
    if (block_of(key.mac) == port_block && is_local(bridge, number)) {
        record = local_entry(number);
        return true;
    }
    if (block_of(key.mac) != learned_block || number >= options_.macs || bridge_of(number) != bridge
        || !hosts_[number].present) {
        return false;
    }
    record = bridge_entry(number, hosts_[number]);
    return true;
}

void fabric::query(std::span<const fdb_key> keys, std::span<fdb_answer> answers)
{
    const std::lock_guard hold(mutex_);
    for (size_t at = 0; at < keys.size(); at++) {
        answers[at].presence = !started_                             ? fdb_presence::cannot_tell
                               : holds(keys[at], answers[at].record) ? fdb_presence::present
                                                                     : fdb_presence::absent;
    }
}

plane_health fabric::health() const
{
    plane_health health;
    health.clean = started_;
    health.generation = 1;
    health.events = events_;
    return health;
}

} // namespace

std::string parse_fabric(std::string_view text, fabric_options &options)
{
    while (!text.empty()) {
        const size_t comma = text.find(',');
        if (std::string error = parse_item(text.substr(0, comma), options); !error.empty()) {
            return error;
        }
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    return check_totals(options);
}

std::unique_ptr<generated_plane> make_generated_plane(const fabric_options &options)
{
    return std::make_unique<fabric>(options);
}

} // namespace forwarding
