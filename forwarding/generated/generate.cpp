// SPDX-License-Identifier: Apache-2.0

#include "forwarding/generated/generate.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <chrono>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "host/event/event_host.h"

namespace forwarding {
namespace {

constexpr uint32_t first_vni = 10'000;
constexpr uint32_t remote_share = 4;  // every fourth address is behind a VTEP
constexpr uint32_t static_share = 64; // every 64th address is static
constexpr uint32_t ageing_time_ms = 300'000;
constexpr uint32_t other_devices = 2; // of a bridge besides its ports: the bridge itself and its VXLAN device

// The effect of a change, drawn from `choices`: below `remove_choices` it removes the address, below `move_choices` it
// moves it, otherwise it only refreshes the address. A change of a removed address always brings it back.
constexpr uint32_t choices = 10;
constexpr uint32_t remove_choices = 2;
constexpr uint32_t move_choices = 7;

constexpr uint64_t ms_per_second = 1000;
constexpr uint64_t ns_per_second = 1'000'000'000;
constexpr uint64_t min_churn_period_ns = 50'000'000; // 20 times a second, however many changes are due

// Destinations are 10.254.0.1 and up.
constexpr uint8_t vtep_network[] = {10, 254};

// The first two bytes of a MAC address. The other four are a number: of the host, or the interface index of the port.
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
    destination.address = {vtep_network[0], vtep_network[1], static_cast<uint8_t>(number >> 8),
                           static_cast<uint8_t>(number)};
    return destination;
}

int64_t now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// A generator of pseudo-random numbers: a counter with a fixed odd step, whose value is mixed. The numbers depend on
// the seed only, on every system. The constants are those of SplitMix64.
class random_numbers {
public:
    explicit random_numbers(uint64_t seed)
        : state_(seed * step)
    {}

    // 0 to bound - 1; 0 if `bound` is 0.
    uint32_t below(uint32_t bound)
    {
        state_ += step;
        uint64_t mixed = (state_ ^ (state_ >> 30)) * first_factor;
        mixed = (mixed ^ (mixed >> 27)) * second_factor;
        return static_cast<uint32_t>(((mixed >> 32) * bound) >> 32);
    }

private:
    static constexpr uint64_t step = 0x9e3779b97f4a7c15;
    static constexpr uint64_t first_factor = 0xbf58476d1ce4e5b9;
    static constexpr uint64_t second_factor = 0x94d049bb133111eb;

    uint64_t state_;
};

// One learned or static address.
struct host_state {
    static constexpr unsigned seen_bits = 46; // two thousand years
    static constexpr uint64_t max_seen = (uint64_t{1} << seen_bits) - 1;

    uint64_t seen_ms : seen_bits = 0; // when the address was last seen, in ms since fabric::origin_ms_
    uint64_t is_remote : 1 = 0;       // it is behind a VTEP
    uint64_t present : 1 = 1;
    uint64_t number : 16 = 0; // of its VTEP, or of its port on the bridge
};

static_assert(sizeof(host_state) == 8, "a million of these exist");

class fabric final : public plane {
public:
    explicit fabric(const fabric_options &options);

    const char *kind() const override { return "generated"; }
    base::result start(event_manager_t *evm, sink &to) override;
    void drain() override {}
    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) override L2FIB_EXCLUDES(mutex_);
    plane_health health() const override;
    void stop() override;

private:
    // Interface indexes: a bridge, its VXLAN device, its ports, the next bridge. With two ports for each bridge:
    //
    //      br0 1   vx0 2   br0p0 3   br0p1 4   br1 5   vx1 6   br1p0 7   br1p1 8
    uint32_t devices_of_bridge() const { return other_devices + options_.ports; }
    uint32_t bridge_index(uint32_t bridge) const { return 1 + bridge * devices_of_bridge(); }
    uint32_t vxlan_index(uint32_t bridge) const { return bridge_index(bridge) + 1; }
    uint32_t port_index(uint32_t bridge, uint32_t port) const { return bridge_index(bridge) + other_devices + port; }
    uint32_t bridge_with_index(uint32_t ifindex) const { return (ifindex - 1) / devices_of_bridge(); }
    uint32_t bridge_of(uint32_t host) const
    {
        assert(options_.bridges != 0);
        return host % options_.bridges;
    }
    bool is_static(uint32_t host) const { return host % static_share == static_share - 1; }

    fdb_record bridge_entry(uint32_t at, const host_state &host) const;
    fdb_record device_entry(uint32_t at, const host_state &host) const;
    fdb_record flood_entry(uint32_t bridge, uint32_t vtep) const;
    fdb_record local_entry(uint32_t ifindex) const;

    void settle_somewhere(host_state &host, bool may_be_remote);
    void report_bridge(uint32_t bridge);
    void report_ports(uint32_t bridge, link_record link);
    void report_vxlan(uint32_t bridge, link_record link);
    void report_link(const link_record &link);
    void report_host(uint32_t at, const host_state &host);
    void report_gone(uint32_t at, const host_state &was, const host_state &is);
    void report(const fdb_record &record);
    base::result start_churn();
    const host_state &host_on_manager_thread(uint32_t at) const;
    host_state change(host_state host, uint32_t choice);
    void change_one() L2FIB_EXCLUDES(mutex_);
    void churn_due();

    bool holds(const fdb_key &key, fdb_record &record) const L2FIB_REQUIRES(mutex_);
    bool holds_own(const fdb_key &key, uint32_t bridge, fdb_record &record) const L2FIB_REQUIRES(mutex_);
    const host_state *find_host(const mac_address &mac, uint32_t bridge) const L2FIB_REQUIRES(mutex_);
    bool is_local(uint32_t bridge, uint32_t ifindex) const;

    const fabric_options options_;
    const int64_t origin_ms_; // the time of the steady clock before which no address was seen
    random_numbers random_;
    base::mutex mutex_;
    std::vector<host_state> hosts_ L2FIB_GUARDED_BY(mutex_); // changed by the manager's thread only
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
    , origin_ms_(now_ms() - ageing_time_ms)
    , random_(options.seed)
    , hosts_(options.macs)
{
    for (uint32_t at = 0; at < options_.macs; at++) {
        settle_somewhere(hosts_[at], (at / options_.bridges) % remote_share == 0 && !is_static(at));
        hosts_[at].seen_ms = ageing_time_ms - random_.below(ageing_time_ms);
    }
}

void fabric::settle_somewhere(host_state &host, bool may_be_remote)
{
    const bool remote = may_be_remote && options_.vteps != 0;
    host.is_remote = remote ? 1 : 0;
    host.number = random_.below(remote ? options_.vteps : options_.ports) & UINT16_MAX;
    host.present = 1;
}

// ---- Records ----

fdb_record fabric::bridge_entry(uint32_t at, const host_state &host) const
{
    fdb_record record;
    record.master = bridge_index(bridge_of(at));
    record.ifindex = host.is_remote ? vxlan_index(bridge_of(at)) : port_index(bridge_of(at), host.number);
    record.state = is_static(at) ? fdb_noarp : fdb_reachable;
    record.mac = address(learned_block, at);
    record.updated_ms = origin_ms_ + static_cast<int64_t>(host.seen_ms);
    return record;
}

fdb_record fabric::device_entry(uint32_t at, const host_state &host) const
{
    fdb_record record = bridge_entry(at, host);
    record.master = 0;
    record.self = true;
    record.destination = vtep_destination(host.number);
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
    record.master = bridge_index(bridge_with_index(ifindex));
    record.state = fdb_permanent;
    record.mac = address(port_block, ifindex);
    return record;
}

// ---- Reports ----

void fabric::report(const fdb_record &record)
{
    events_++;
    sink_->fdb_changed(record);
}

// Reports a device with the entry for its own address.
void fabric::report_link(const link_record &link)
{
    events_++;
    sink_->link_changed(link);
    report(local_entry(link.ifindex));
}

void fabric::report_bridge(uint32_t bridge)
{
    link_record link;
    link.up = true;
    link.kind = link_kind::bridge;
    link.ifindex = bridge_index(bridge);
    link.name = "br" + std::to_string(bridge);
    link.address = address(port_block, link.ifindex);
    link.ageing_ms = ageing_time_ms;
    report_link(link);
    link.master = link.ifindex;
    link.ageing_ms = 0;
    report_ports(bridge, link);
    if (options_.vteps != 0) {
        report_vxlan(bridge, link);
    }
}

// `link` holds the members that all devices of the bridge share, and the bridge's name.
void fabric::report_ports(uint32_t bridge, link_record link)
{
    const std::string prefix = link.name + "p";
    link.kind = link_kind::other;
    for (uint32_t port = 0; port < options_.ports; port++) {
        link.ifindex = port_index(bridge, port);
        link.name = prefix + std::to_string(port);
        link.address = address(port_block, link.ifindex);
        report_link(link);
    }
}

void fabric::report_vxlan(uint32_t bridge, link_record link)
{
    link.kind = link_kind::vxlan;
    link.ifindex = vxlan_index(bridge);
    link.name = "vx" + std::to_string(bridge);
    link.vni = first_vni + bridge;
    link.address = address(port_block, link.ifindex);
    report_link(link);
    for (uint32_t vtep = 0; vtep < options_.vteps; vtep++) {
        report(flood_entry(bridge, vtep));
    }
}

void fabric::report_host(uint32_t at, const host_state &host)
{
    if (host.is_remote) {
        report(device_entry(at, host));
    }
    report(bridge_entry(at, host));
}

// Reports the entries that a host had and no longer has.
void fabric::report_gone(uint32_t at, const host_state &was, const host_state &is)
{
    if (!is.present) {
        events_++;
        sink_->fdb_gone(bridge_entry(at, was));
    }
    if (was.is_remote && (!is.present || !is.is_remote)) {
        events_++;
        sink_->fdb_gone(device_entry(at, was));
    }
}

// ---- Start and stop ----

// The analysis is off because only the manager's thread changes the hosts. So it may read them without the lock, and
// must not hold it during a report.
const host_state &fabric::host_on_manager_thread(uint32_t at) const L2FIB_NO_THREAD_SAFETY_ANALYSIS
{
    return hosts_[at];
}

base::result fabric::start(event_manager_t *evm, sink &to)
{
    sink_ = &to;
    evm_ = evm;
    sink_->full_dump_begun();
    for (uint32_t bridge = 0; bridge < options_.bridges; bridge++) {
        report_bridge(bridge);
    }
    for (uint32_t at = 0; at < options_.macs; at++) {
        if (const host_state &host = host_on_manager_thread(at); host.present) {
            report_host(at, host);
        }
    }
    started_ = true;
    sink_->full_dump_ended(true);
    return options_.churn != 0 ? start_churn() : base::success();
}

base::result fabric::start_churn()
{
    const auto due = [](void *cookie) { static_cast<fabric *>(cookie)->churn_due(); };
    const uint64_t period_ns = std::max(min_churn_period_ns, ns_per_second / options_.churn);
    churn_began_ms_ = now_ms();
    const uint32_t status = host::event_timer_attach(evm_, period_ns, period_ns, due, this, &timer_);
    if (status == 0) {
        return base::success();
    }
    started_ = false;
    return base::system_failure(static_cast<int>(status), "cannot attach the timer for the churn to the event loop");
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
    const uint64_t due = elapsed_ms * options_.churn / ms_per_second;
    // After a long delay of the event loop, at most one second's changes are made up for.
    const uint64_t changes = std::min<uint64_t>(due - std::min(due, churned_), options_.churn);
    churned_ = due;
    for (uint64_t done = 0; done < changes && options_.macs != 0; done++) {
        change_one();
    }
}

host_state fabric::change(host_state host, uint32_t choice)
{
    if (host.present && choice < remove_choices) {
        host.present = 0;
    } else if (!host.present || choice < move_choices) {
        settle_somewhere(host, random_.below(remote_share) == 0);
    }
    if (host.present) {
        host.seen_ms = static_cast<uint64_t>(now_ms() - origin_ms_) & host_state::max_seen;
    }
    return host;
}

void fabric::change_one()
{
    const uint32_t at = random_.below(options_.macs);
    const uint32_t choice = random_.below(choices);
    if (is_static(at)) {
        return;
    }
    const host_state was = host_on_manager_thread(at);
    const host_state is = change(was, choice);
    {
        const base::scoped_lock hold(mutex_);
        hosts_[at] = is;
    }
    if (was.present) {
        report_gone(at, was, is);
    }
    if (is.present) {
        report_host(at, is);
    }
}

// ---- Questions ----

bool fabric::is_local(uint32_t bridge, uint32_t ifindex) const
{
    const uint32_t first = bridge_index(bridge);
    return ifindex >= first && ifindex < bridge_index(bridge + 1)
           && (ifindex != vxlan_index(bridge) || options_.vteps != 0);
}

// Returns the host that has this address on this bridge now, or null.
const host_state *fabric::find_host(const mac_address &mac, uint32_t bridge) const
{
    const uint32_t at = number_of(mac);
    const bool exists = block_of(mac) == learned_block && at < options_.macs && bridge_of(at) == bridge;
    return exists && hosts_[at].present ? &hosts_[at] : nullptr;
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
    const host_state *const host = find_host(key.mac, bridge);
    if (host == nullptr || !host->is_remote) {
        return false;
    }
    record = device_entry(number_of(key.mac), *host);
    return true;
}

bool fabric::holds(const fdb_key &key, fdb_record &record) const
{
    const uint32_t bridge = key.holder == 0 ? options_.bridges : bridge_with_index(key.holder);
    if (bridge >= options_.bridges || key.vlan != 0) {
        return false;
    }
    if (key.self) {
        return key.holder == vxlan_index(bridge) && holds_own(key, bridge, record);
    }
    if (key.holder != bridge_index(bridge)) {
        return false;
    }
    const uint32_t number = number_of(key.mac);
    if (block_of(key.mac) == port_block && is_local(bridge, number)) {
        record = local_entry(number);
        return true;
    }
    const host_state *const host = find_host(key.mac, bridge);
    if (host == nullptr) {
        return false;
    }
    record = bridge_entry(number, *host);
    return true;
}

void fabric::query(std::span<const fdb_key> keys, std::span<fdb_answer> answers)
{
    const base::scoped_lock hold(mutex_);
    for (size_t at = 0; at < keys.size(); at++) {
        if (!started_) {
            answers[at].presence = fdb_presence::unknown;
        } else {
            answers[at].presence = holds(keys[at], answers[at].record) ? fdb_presence::present : fdb_presence::absent;
        }
    }
}

plane_health fabric::health() const
{
    plane_health health;
    health.clean = started_;
    health.full_dumps = 1;
    health.events = events_;
    return health;
}

} // namespace

std::unique_ptr<plane> make_generated_plane(const fabric_options &options)
{
    return std::make_unique<fabric>(options);
}

} // namespace forwarding
