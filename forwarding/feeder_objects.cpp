// What the feeder keeps beside the entries: the forwarding manager's objects, the counters of the bridge domains, and
// what other threads see.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "forwarding/feeder.h"
#include "host/l2fib_objects.h"
#include "host/notification_host.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

constexpr size_t kept_notes = 20;

// copy_entry::counted_as.
constexpr uint8_t counted_plain = 1;
constexpr uint8_t counted_static = 2;
constexpr uint8_t counted_local = 3;
constexpr uint8_t counted_static_local = 4;

uint8_t counted_as(uint16_t flags)
{
    const bool is_static = (flags & EDM_MAC_STATIC) != 0;
    const bool is_local = (flags & EDM_MAC_LOCAL) != 0;
    if (is_static) {
        return is_local ? counted_static_local : counted_static;
    }
    return is_local ? counted_local : counted_plain;
}

} // namespace

// ---- Counting ----

std::atomic<uint32_t> &feeder::bridge_counter(uint16_t bridge_id, uint8_t counted)
{
    bridge_counters &counters = bridge_counters_[bridge_id];
    switch (counted) {
    case counted_static: return counters.fixed;
    case counted_local: return counters.local;
    case counted_static_local: return counters.both;
    default: return counters.plain;
    }
}

void feeder::count_in_bridge(copy_entry &entry, uint8_t counted, uint16_t bridge_id)
{
    if (entry.counted_as == counted && entry.counted_bridge == bridge_id) {
        return;
    }
    if (entry.counted_as != 0) {
        --bridge_counter(entry.counted_bridge, entry.counted_as);
    }
    if (counted != 0) {
        ++bridge_counter(bridge_id, counted);
    }
    entry.counted_as = counted;
    entry.counted_bridge = bridge_id;
}

void feeder::recount(uint32_t at)
{
    copy_entry &entry = copy_.entries[at];
    l2fib_mac_edm_entry_t descriptor;
    const standing now = describe(copy_, at, 0, descriptor);
    const bool counts = now == standing::fed;
    count_in_bridge(entry, counts ? counted_as(descriptor.flags) : 0, counts ? descriptor.bridge_id : 0);
    --standings_[entry.standing];
    ++standings_[static_cast<size_t>(now)];
    entry.standing = static_cast<uint8_t>(now);
    const destination_kind kind = entry.alive ? entry.record.destination.kind : destination_kind::none;
    --foreign_[entry.foreign];
    ++foreign_[static_cast<size_t>(kind)];
    entry.foreign = static_cast<uint8_t>(kind);
}

uint32_t feeder::count(uint16_t bridge_id, edm_mac_counters_t &counters) const
{
    {
        const std::lock_guard hold(views_mutex_);
        if (!domain_views_.contains(bridge_id)) {
            return ENOENT;
        }
    }
    const bridge_counters &of = bridge_counters_[bridge_id];
    const uint32_t both = of.both;
    counters.mac_cnt_plain = of.plain;
    counters.mac_cnt_f2 = of.fixed + both;
    counters.mac_cnt_f4 = of.local + both;
    counters.mac_cnt_sum = counters.mac_cnt_plain + counters.mac_cnt_f2;
    return 0;
}

// ---- Objects ----

void feeder::note(const std::string &text)
{
    const std::lock_guard hold(views_mutex_);
    if (notes_.size() == kept_notes) {
        notes_.erase(notes_.begin());
    }
    notes_.push_back(text);
}

void feeder::refuse(refusal reason, const std::string &text)
{
    ++refusals_[static_cast<size_t>(reason)];
    note(text);
}

const char *feeder::text_of(refusal reason)
{
    constexpr const char *texts[] = {
        "entry that the cache refused",
        "bridge domain without an id: 65535 are in use",
        "port without an id",
        "bridge domain that could not be named",
        "object that could not be stored",
        "removal that could not be published",
    };
    static_assert(std::size(texts) == static_cast<size_t>(refusal::count));
    return texts[static_cast<size_t>(reason)];
}

std::string feeder::full_name(const copy_domain &domain) const
{
    const copy_link *bridge = copy_.find_link(domain.bridge);
    return group_ + ":" + bridge_domain_part(bridge != nullptr ? bridge->record.name : "", domain.vlan);
}

// A name that another bridge domain has gets the id appended.
bool feeder::set_domain_object(uint16_t bridge_id, std::string &name)
{
    uint32_t status = host::bridge_domain_set(bridge_id, name);
    if (status == EEXIST) {
        const std::string taken = name;
        const std::string suffix = "~" + std::to_string(bridge_id);
        name.resize(std::min(name.size(), group_.size() + 1 + max_bridge_name - suffix.size()));
        name += suffix;
        status = host::bridge_domain_set(bridge_id, name);
        note("bridge domain " + name + ": the name " + taken + " is another one's");
    }
    if (status != 0) {
        refuse(refusal::name, "bridge domain " + name + ": " + std::strerror(static_cast<int>(status)));
    }
    return status == 0;
}

void feeder::name_domain(uint32_t at)
{
    copy_domain &domain = copy_.domains[at];
    const auto id = static_cast<uint16_t>(bridge_ids_.take());
    std::string name = full_name(domain);
    if (id == 0) {
        refuse(refusal::bridge_id, "bridge domain " + name + ": no id is left");
        return;
    }
    if (!set_domain_object(id, name)) {
        bridge_ids_.give_back(id);
        return;
    }
    domain.bridge_id = id;
    domains_by_id_[id] = at;
    view_domain(at, name);
}

void feeder::view_domain(uint32_t at, const std::string &name)
{
    const copy_domain &domain = copy_.domains[at];
    const copy_link *bridge = copy_.find_link(domain.bridge);
    if (bridge == nullptr) {
        return;
    }
    const std::string expected = group_ + ":" + bridge->record.name;
    if (domain.vlan == 0 && name != expected && name.find('~') == std::string::npos) {
        note("bridge " + bridge->record.name + " is shown as " + name);
    }
    const std::lock_guard hold(views_mutex_);
    domain_views_[domain.bridge_id] = {domain.bridge_id, name,        bridge->record.name,
                                       domain.bridge,    domain.vlan, bridge->record.vlan_aware};
}

void feeder::domain_added(uint32_t domain)
{
    if (copy_.find_link(copy_.domains[domain].bridge) != nullptr) {
        name_domain(domain);
    }
}

void feeder::domain_changed(uint32_t at)
{
    const copy_domain &domain = copy_.domains[at];
    if (domain.bridge_id == 0) {
        name_domain(at);
        for_each_entry({EDM_RESYNC_BD, domain.bridge_id}, [&](uint32_t entry) { entry_touched(entry); });
    } else {
        rename_domain(at, full_name(domain));
    }
    for (const uint32_t port : domain.ports) {
        view_port(port);
    }
}

// The cache reads a bridge domain's name once, so that it has to meet a renamed one anew.
void feeder::rename_domain(uint32_t at, const std::string &wanted)
{
    const uint16_t id = copy_.domains[at].bridge_id;
    std::string name;
    {
        const std::lock_guard hold(views_mutex_);
        name = domain_views_[id].name;
    }
    if (name == wanted || name == wanted + "~" + std::to_string(id)) {
        view_domain(at, name);
        return;
    }
    name = wanted;
    if (set_domain_object(id, name)) {
        view_domain(at, name);
        expect_removal(host::bdxc_publish_bridge_domain_removed(id));
        forget_fed(at);
    }
}

void feeder::forget_fed(uint32_t domain)
{
    for_each_entry({EDM_RESYNC_BD, copy_.domains[domain].bridge_id}, [&](uint32_t entry) {
        copy_.entries[entry].fed_xcid = 0;
        entry_touched(entry);
    });
}

void feeder::domain_going(uint32_t at)
{
    const uint16_t id = copy_.domains[at].bridge_id;
    if (id == 0) {
        return;
    }
    host::bridge_domain_remove(id);
    expect_removal(host::bdxc_publish_bridge_domain_removed(id));
    domains_by_id_.erase(id);
    bridge_ids_.give_back(id);
    const std::lock_guard hold(views_mutex_);
    domain_views_.erase(id);
}

void feeder::port_added(uint32_t at)
{
    copy_port &port = copy_.ports[at];
    if (port.key.ifindex == port.key.master) {
        port.xcid = EDM_XCID_DUMMY;
        return;
    }
    const uint32_t xcid = xcids_.take();
    if (xcid == 0) {
        refuse(refusal::xcid, "port with interface index " + std::to_string(port.key.ifindex) + ": no id is left");
        return;
    }
    if (host::cross_connect_set(xcid, cross_connect_of(port)) != 0) {
        refuse(refusal::object, "port with interface index " + std::to_string(port.key.ifindex) + ": out of memory");
        xcids_.give_back(xcid);
        return;
    }
    port.xcid = xcid;
    ports_by_xcid_[xcid] = at;
    view_port(at);
}

void feeder::port_changed(uint32_t port)
{
    view_port(port);
}

void feeder::view_port(uint32_t at)
{
    const copy_port &port = copy_.ports[at];
    if (port.xcid == 0 || port.xcid == EDM_XCID_DUMMY) {
        return;
    }
    const copy_link *link = copy_.find_link(port.key.ifindex);
    port_view view;
    view.xcid = port.xcid;
    view.name = link != nullptr ? link->record.name : "";
    view.ifindex = port.key.ifindex;
    view.kind = port.key.kind == link_kind::vxlan    ? port_kind::vxlan
                : port.key.kind == link_kind::tunnel ? port_kind::tunnel
                                                     : port_kind::interface;
    view.vlan = port.key.vlan;
    view.vni = port.key.vni;
    view.up = link != nullptr && link->record.up;
    view.bridge_id = copy_.domains[port.domain].bridge_id;
    const std::lock_guard hold(views_mutex_);
    port_views_[port.xcid] = std::move(view);
}

void feeder::port_going(uint32_t at)
{
    const uint32_t xcid = copy_.ports[at].xcid;
    if (xcid == 0 || xcid == EDM_XCID_DUMMY) {
        return;
    }
    host::cross_connect_remove(xcid);
    expect_removal(host::bdxc_publish_cross_connect_removed(xcid));
    ports_by_xcid_.erase(xcid);
    xcids_.give_back(xcid);
    const std::lock_guard hold(views_mutex_);
    port_views_.erase(xcid);
}

// ---- Views ----

bool feeder::ask(uint32_t bridge_id, const mac_address &mac, fdb_record &record)
{
    fdb_key key;
    {
        const std::lock_guard hold(views_mutex_);
        const auto found = domain_views_.find(static_cast<uint16_t>(bridge_id));
        if (found == domain_views_.end()) {
            return false;
        }
        key = {found->second.bridge_ifindex, false, found->second.vlan, 0, mac, {}};
    }
    fdb_answer answer;
    plane_.query({&key, 1}, {&answer, 1});
    record = answer.record;
    return answer.presence == fdb_presence::present;
}

health_view feeder::health() const
{
    health_view view;
    view.running = true;
    view.plane = plane_.kind();
    view.group = group_;
    view.of_plane = plane_.health();
    view.links = links_;
    view.entries = entries_;
    view.events_merged = merged_ + unchanged_;
    view.ipv6_destinations = foreign_[static_cast<size_t>(destination_kind::ipv6)];
    view.next_hop_destinations = foreign_[static_cast<size_t>(destination_kind::next_hop)];
    view.resyncs = resyncs_;
    view.resyncs_degraded = resyncs_degraded_;
    view.doubtful_asked = asked_;
    view.doubtful_kept = kept_;
    for (size_t at = 0; at < static_cast<size_t>(standing::count); ++at) {
        if (const char *text = forwarding::text_of(static_cast<standing>(at)); text != nullptr && standings_[at] != 0) {
            view.unmapped.push_back({text, standings_[at]});
        }
    }
    for (size_t at = 0; at < static_cast<size_t>(refusal::count); ++at) {
        if (refusals_[at] != 0) {
            view.refused.push_back({text_of(static_cast<refusal>(at)), refusals_[at]});
        }
    }
    const std::lock_guard hold(views_mutex_);
    view.notes = notes_;
    return view;
}

std::vector<domain_view> feeder::domains() const
{
    const std::lock_guard hold(views_mutex_);
    std::vector<domain_view> views;
    for (const auto &[id, view] : domain_views_) {
        views.push_back(view);
    }
    return views;
}

std::vector<port_view> feeder::ports() const
{
    const std::lock_guard hold(views_mutex_);
    std::vector<port_view> views;
    for (const auto &[xcid, view] : port_views_) {
        views.push_back(view);
        const auto domain = domain_views_.find(view.bridge_id);
        views.back().domain = domain != domain_views_.end() ? domain->second.name : "";
    }
    return views;
}

std::vector<tunnel_entry> feeder::tunnel_entries(uint32_t &cursor, size_t limit)
{
    plane_.drain();
    const std::lock_guard hold(views_mutex_);
    std::vector<tunnel_entry> found;
    for (; cursor < copy_.entries.bound() && found.size() < limit; ++cursor) {
        const copy_entry &entry = copy_.entries[cursor];
        if (!entry.alive || copy_.ports[entry.port].key.kind != link_kind::vxlan || !entry.record.self) {
            continue;
        }
        const copy_port &port = copy_.ports[entry.port];
        const copy_link *device = copy_.find_link(port.key.ifindex);
        const uint16_t bridge_id = port.domain != no_slot ? copy_.domains[port.domain].bridge_id : uint16_t{0};
        const auto domain = domain_views_.find(bridge_id);
        found.push_back({bridge_id, port.xcid, domain != domain_views_.end() ? domain->second.name : "",
                         device != nullptr ? device->record.name : "", entry.record});
    }
    return found;
}

} // namespace forwarding
