// SPDX-License-Identifier: Apache-2.0

// What the feeder maintains beside the entries:
//  - the counters of bridge domains and ports;
//  - the forwarding manager's objects: a bridge domain's name, a port's cross-connect;
//  - the views that other threads read, and the health report.
//
// Threads: the cache thread, except for the functions that feeder.h lists under "Any thread".
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>

#include "forwarding/feeder/feeder.h"
#include "forwarding/feeder/table_hold.h"
#include "host/event/notification_host.h"
#include "host/objects/l2fib_objects.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

constexpr size_t kept_notes = 20;
constexpr size_t most_shown_losses = 100;

// Values of shadow_entry::counted_as; 0: not counted.
constexpr uint8_t counted_plain = 1;
constexpr uint8_t counted_static = 2;
constexpr uint8_t counted_local = 3;
constexpr uint8_t counted_static_local = 4;

constexpr uint32_t minus_one = static_cast<uint32_t>(-1);

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

// Adds `by` (1 or minus_one) to all counters that count the entry: those of its bridge domain and its port, and the
// total of the cache. Unsigned arithmetic wraps, so adding minus_one subtracts 1.
void feeder::change_counters(const shadow_entry &entry, uint32_t by)
{
    const bool is_static = entry.counted_as == counted_static || entry.counted_as == counted_static_local;
    const bool is_local = entry.counted_as == counted_local || entry.counted_as == counted_static_local;
    bridge_counter(entry.counted_bridge, entry.counted_as) += by;
    counted_ += by == minus_one ? ~uint64_t{0} : by;
    const auto port = ports_by_xcid_.find(entry.counted_xcid);
    if (port == ports_by_xcid_.end()) {
        return;
    }
    edm_mac_counters_t &counters = shadow_.ports[port->second].counters;
    counters.mac_cnt_f4 += is_local ? by : 0;
    counters.mac_cnt_f2 += is_static && !is_local ? by : 0;
    counters.mac_cnt_plain += !is_static && !is_local ? by : 0;
    counters.mac_cnt_sum = counters.mac_cnt_plain + counters.mac_cnt_f2;
}

// Moves an entry to the counters of the kind that it has in the cache now. The destinations of a flood list share one
// place in the cache and count once: only the one whose standing is `fed` counts.
void feeder::count_entry(uint32_t at)
{
    shadow_entry &entry = shadow_.entries[at];
    const bool counts = entry.fed_xcid != 0 && static_cast<standing>(entry.standing) == standing::fed;
    const uint8_t kind = counts ? counted_as(flags_of(entry.record)) : uint8_t{0};
    if (entry.counted_as == kind
        && (kind == 0 || (entry.counted_bridge == entry.fed_bridge && entry.counted_xcid == entry.fed_xcid))) {
        return;
    }
    if (entry.counted_as != 0) {
        change_counters(entry, minus_one);
    }
    entry.counted_as = kind;
    entry.counted_bridge = entry.fed_bridge;
    entry.counted_xcid = entry.fed_xcid;
    if (kind != 0) {
        change_counters(entry, 1);
    }
}

void feeder::recount(uint32_t at)
{
    shadow_entry &entry = shadow_.entries[at];
    const standing now = standing_of(shadow_, at);
    standings_[entry.standing]--;
    standings_[static_cast<size_t>(now)]++;
    entry.standing = static_cast<uint8_t>(now);
    const destination_kind kind = entry.alive ? entry.record.destination.kind : destination_kind::none;
    foreign_[entry.foreign]--;
    foreign_[static_cast<size_t>(kind)]++;
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

void feeder::report(severity how_bad, const std::string &text) const
{
    if (settings_.report != nullptr) {
        settings_.report(how_bad, text);
    }
}

void feeder::refuse(refusal reason, const std::string &text)
{
    refusals_[static_cast<size_t>(reason)]++;
    note(text);
}

const char *feeder::text_of(refusal reason)
{
    constexpr const char *texts[] = {
        "entry that the cache refused",    "bridge domain that found no id free",
        "port that found no id free",      "bridge domain that could not be named",
        "object that could not be stored", "removal that could not be published",
    };
    static_assert(std::size(texts) == static_cast<size_t>(refusal::count));
    return texts[static_cast<size_t>(reason)];
}

std::string feeder::full_name(const shadow_domain &domain) const
{
    const shadow_link *bridge = shadow_.find_link(domain.bridge);
    return settings_.group + ":" + bridge_domain_part(bridge != nullptr ? bridge->record.name : "", domain.vlan);
}

// Sets the name of a bridge domain's object. If another bridge domain has the name, `name` gets the bridge id as a
// suffix, and is cut first to make room for it: "g:br0" becomes "g:br0~7". Returns false if the name was refused.
bool feeder::set_domain_object(uint16_t bridge_id, std::string &name)
{
    uint32_t status = host::bridge_domain_set(bridge_id, name);
    if (status == EEXIST) {
        const std::string taken = name;
        const std::string suffix = "~" + std::to_string(bridge_id);
        name.resize(std::min(name.size(), settings_.group.size() + 1 + max_bridge_name - suffix.size()));
        name += suffix;
        status = host::bridge_domain_set(bridge_id, name);
        note("bridge domain " + name + ": the name " + taken + " is another one's");
    }
    if (status != 0) {
        refuse(refusal::name, "bridge domain " + name + ": " + std::strerror(static_cast<int>(status)));
    }
    return status == 0;
}

// Creates the object of a bridge domain under a new id. Returns false if the object was refused; the id is free again.
bool feeder::name_domain(uint32_t at, uint32_t id)
{
    shadow_domain &domain = shadow_.domains[at];
    const auto bridge_id = static_cast<uint16_t>(id);
    std::string name = full_name(domain);
    if (!set_domain_object(bridge_id, name)) {
        bridge_ids_.put_back(id);
        return false;
    }
    domain.bridge_id = bridge_id;
    domains_by_id_[bridge_id] = at;
    view_domain(at, name);
    return true;
}

void feeder::view_domain(uint32_t at, const std::string &name)
{
    const shadow_domain &domain = shadow_.domains[at];
    const shadow_link *bridge = shadow_.find_link(domain.bridge);
    if (bridge == nullptr) {
        return;
    }
    const std::string expected = settings_.group + ":" + bridge->record.name;
    if (domain.vlan == 0 && name != expected && name.find('~') == std::string::npos) {
        note("bridge " + bridge->record.name + " is shown as " + name);
    }
    const std::lock_guard hold(views_mutex_);
    domain_views_[domain.bridge_id] = {domain.bridge_id,        name,        bridge->record.name,
                                       domain.bridge,           domain.vlan, bridge->record.vlan_aware,
                                       bridge->record.ageing_ms};
    shared_views_.reset();
}

void feeder::domain_added(uint32_t domain)
{
    if (shadow_.find_link(shadow_.domains[domain].bridge) != nullptr) {
        number_domain(domain);
    }
}

void feeder::domain_changed(uint32_t at)
{
    const shadow_domain &domain = shadow_.domains[at];
    if (domain.bridge_id != 0) {
        rename_domain(at, full_name(domain));
    } else if (domain.waits == 0) {
        number_domain(at);
        for (const uint32_t port : domain.ports) {
            shadow_.for_each_entry_of_port(port, [&](uint32_t entry) { entry_touched(entry); });
        }
    }
    for (const uint32_t port : domain.ports) {
        view_port(port);
    }
}

// The cache reads a bridge domain's name only when it creates the record. So a rename destroys the record and feeds all
// its entries again. One hold of the table lock covers both, so that no reader misses an entry.
void feeder::rename_domain(uint32_t at, const std::string &wanted)
{
    const uint16_t id = shadow_.domains[at].bridge_id;
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
    const table_hold hold;
    if (set_domain_object(id, name)) {
        view_domain(at, name);
        l2fm_edm_table_bd_destroy(id);
        feed_renamed(at);
    }
}

// Feeds the entries of a bridge domain again after its record in the cache was destroyed. Call it with the table lock
// held, in the same hold as the destruction.
void feeder::feed_renamed(uint32_t domain)
{
    for_each_entry({EDM_RESYNC_BD, shadow_.domains[domain].bridge_id}, [&](uint32_t at) {
        shadow_entry &entry = shadow_.entries[at];
        if (entry.fed_xcid == 0) {
            return;
        }
        leave_vtep(entry);
        entry.fed_xcid = 0;
        l2fib_mac_edm_entry_t descriptor;
        const standing now = describe(shadow_, at, epoch_offset_ms_, descriptor);
        if (now == standing::fed || now == standing::of_flood_list) {
            feed(at, descriptor);
        } else {
            count_entry(at);
        }
    });
}

void feeder::domain_going(uint32_t at)
{
    const uint16_t id = shadow_.domains[at].bridge_id;
    if (id == 0) {
        leave_line(bridge_ids_, shadow_.domains[at].waits);
        return;
    }
    host::bridge_domain_remove(id);
    expect_removal(host::bdxc_publish_bridge_domain_removed(id));
    domains_by_id_.erase(id);
    give_back(bridge_ids_, id);
    const std::lock_guard hold(views_mutex_);
    domain_views_.erase(id);
    losses_.erase({id, EDM_XCID_DUMMY});
    shared_views_.reset();
}

void feeder::port_added(uint32_t at)
{
    shadow_port &port = shadow_.ports[at];
    if (port.key.ifindex == port.key.master) {
        port.xcid = EDM_XCID_DUMMY;
        return;
    }
    number_port(at);
}

// Creates the cross-connect of a port under a new xcid. Returns false if memory ran out; the xcid is free again.
bool feeder::connect_port(uint32_t at, uint32_t xcid)
{
    shadow_port &port = shadow_.ports[at];
    if (host::cross_connect_set(xcid, cross_connect_of(port)) != 0) {
        refuse(refusal::object, "port with interface index " + std::to_string(port.key.ifindex) + ": out of memory");
        xcids_.put_back(xcid);
        return false;
    }
    port.xcid = xcid;
    ports_by_xcid_[xcid] = at;
    view_port(at);
    return true;
}

void feeder::port_changed(uint32_t port)
{
    view_port(port);
}

void feeder::view_port(uint32_t at)
{
    const shadow_port &port = shadow_.ports[at];
    if (port.xcid == 0 || port.xcid == EDM_XCID_DUMMY) {
        return;
    }
    const shadow_link *link = shadow_.find_link(port.key.ifindex);
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
    view.bridge_id = shadow_.domains[port.domain].bridge_id;
    const std::lock_guard hold(views_mutex_);
    port_views_.erase({uint16_t{0}, port.xcid}); // from the time when its bridge domain had no id
    const std::pair place(view.bridge_id, port.xcid);
    port_views_[place] = std::move(view);
    shared_views_.reset();
}

void feeder::port_going(uint32_t at)
{
    const uint32_t xcid = shadow_.ports[at].xcid;
    if (xcid == 0 || xcid == EDM_XCID_DUMMY) {
        leave_line(xcids_, shadow_.ports[at].waits);
        return;
    }
    const uint16_t bridge_id = shadow_.domains[shadow_.ports[at].domain].bridge_id;
    host::cross_connect_remove(xcid);
    expect_removal(host::bdxc_publish_cross_connect_removed(xcid));
    ports_by_xcid_.erase(xcid);
    give_back(xcids_, xcid);
    const std::lock_guard hold(views_mutex_);
    port_views_.erase({bridge_id, xcid});
    losses_.erase({bridge_id, xcid});
    shared_views_.reset();
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
    view.group = settings_.group;
    view.of_plane = plane_.health();
    view.lacks = plane_.lacks();
    view.links = links_;
    view.entries = entries_;
    view.events_merged = merged_ + unchanged_;
    view.ipv6_destinations = foreign_[static_cast<size_t>(destination_kind::ipv6)];
    view.next_hop_destinations = foreign_[static_cast<size_t>(destination_kind::next_hop)];
    view.resyncs = resyncs_;
    view.resyncs_degraded = resyncs_degraded_;
    view.doubtful_asked = asked_;
    view.doubtful_kept = kept_;
    view.feeds = feeds_;
    view.feeds_full = full_feeds_;
    view.state = state();
    view.limit = settings_.mac_limit;
    view.missing = missing_;
    view.evictions = evictions_;
    view.entries_refused = entries_refused_;
    view.domain_ids = {bridge_ids_.limit(), bridge_ids_.waiting()};
    view.port_ids = {xcids_.limit(), xcids_.waiting()};
    view.proof = {proof_asked_, proof_disagreed_, listed_stale_, listed_missing_, proven_time_};
    for (size_t at = 0; at < static_cast<size_t>(standing::count); at++) {
        if (const char *text = forwarding::text_of(static_cast<standing>(at)); text != nullptr && standings_[at] != 0) {
            view.unmapped.push_back({text, standings_[at]});
        }
    }
    for (size_t at = 0; at < static_cast<size_t>(refusal::count); at++) {
        if (refusals_[at] != 0) {
            view.refused.push_back({text_of(static_cast<refusal>(at)), refusals_[at]});
        }
    }
    add_losses(view);
    const std::lock_guard hold(views_mutex_);
    view.notes = notes_;
    return view;
}

// Adds the losses of the first `most_shown_losses` ports, so that the report stays short.
void feeder::add_losses(health_view &view) const
{
    const std::shared_ptr<const object_views> names = objects();
    const std::lock_guard hold(views_mutex_);
    for (const auto &[place, lost] : losses_) {
        if (view.limited.size() == most_shown_losses) {
            break;
        }
        const domain_view *domain = names->find_domain(place.first);
        const port_view *port = names->find_port(place.first, place.second);
        view.limited.push_back(
            {domain != nullptr ? domain->name : "", port != nullptr ? port->name : "", lost.evicted, lost.refused});
    }
}

std::shared_ptr<const object_views> feeder::objects() const
{
    const std::lock_guard hold(views_mutex_);
    if (shared_views_ == nullptr) {
        auto views = std::make_shared<object_views>();
        for (const auto &[id, view] : domain_views_) {
            views->domains.push_back(view);
        }
        for (const auto &[place, view] : port_views_) {
            views->ports.push_back(view);
            const auto domain = domain_views_.find(view.bridge_id);
            views->ports.back().domain = domain != domain_views_.end() ? domain->second.name : "";
        }
        shared_views_ = std::move(views);
    }
    return shared_views_;
}

std::vector<vtep_view> feeder::vteps(const vtep_view &after, uint32_t most) const
{
    uint32_t address = 0;
    std::memcpy(&address, after.address.data(), sizeof(address));
    std::vector<vtep_view> found;
    const std::lock_guard hold(views_mutex_);
    auto at = vteps_.upper_bound({after.xcid, ntohl(address), after.vni});
    for (; at != vteps_.end() && found.size() < most; at++) {
        address = htonl(at->first.address);
        found.push_back({at->second.bridge_id, at->first.xcid, {}, at->first.vni});
        std::memcpy(found.back().address.data(), &address, sizeof(address));
    }
    return found;
}

void feeder::add_vnis(std::vector<mac_row> &rows) const
{
    const std::lock_guard hold(views_mutex_);
    for (mac_row &row : rows) {
        if (row.port == nullptr || row.port->kind != port_kind::vxlan || row.vni != 0) {
            continue;
        }
        uint32_t vtep = 0;
        std::memcpy(&vtep, row.vtep.data(), sizeof(vtep));
        const auto own = own_vnis_.find({row.xcid, ntohl(vtep), row.mac});
        row.vni = own != own_vnis_.end() ? own->second.vni : row.port->vni;
        row.source_vni = own != own_vnis_.end() ? own->second.source_vni : 0;
    }
}

std::vector<tunnel_entry> feeder::tunnel_entries(uint32_t &cursor, size_t limit)
{
    plane_.drain();
    const std::lock_guard hold(views_mutex_);
    std::vector<tunnel_entry> found;
    for (; cursor < shadow_.entries.bound() && found.size() < limit; cursor++) {
        const shadow_entry &entry = shadow_.entries[cursor];
        if (!entry.alive || shadow_.ports[entry.port].key.kind != link_kind::vxlan || !entry.record.self) {
            continue;
        }
        const shadow_port &port = shadow_.ports[entry.port];
        const shadow_link *device = shadow_.find_link(port.key.ifindex);
        const uint16_t bridge_id = port.domain != no_slot ? shadow_.domains[port.domain].bridge_id : uint16_t{0};
        const auto domain = domain_views_.find(bridge_id);
        found.push_back({bridge_id, port.xcid, domain != domain_views_.end() ? domain->second.name : "",
                         device != nullptr ? device->record.name : "", entry.record});
    }
    return found;
}

} // namespace forwarding
