#include "forwarding/feeder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "host/event_host.h"
#include "host/l2fib_objects.h"
#include "host/notification_host.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

// How long a change waits for others of its kind.
constexpr uint64_t batch_time_ns = 20'000'000;
// How many entries are told before the thread looks at other events.
constexpr size_t slice_size = 2048;
// Up to so many entries, a resync asks the plane for the ages of its whole scope; of a larger one for so many.
constexpr uint64_t age_refresh_limit = 65'536;
constexpr size_t kept_notes = 20;

// What a resync is completed with.
constexpr uint32_t complete_clean = 0;
constexpr uint32_t complete_degraded = 1;

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

int64_t milliseconds_since_epoch_minus_steady()
{
    using namespace std::chrono;
    const auto epoch = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    const auto steady = duration_cast<milliseconds>(steady_clock::now().time_since_epoch());
    return (epoch - steady).count();
}

struct table_hold {
    table_hold() { l2fib_mac_edm_mutex_lock(); }
    ~table_hold() { l2fib_mac_edm_mutex_unlock(); }
    table_hold(const table_hold &) = delete;
    table_hold &operator=(const table_hold &) = delete;
};

template <auto Member>
void call(void *cookie)
{
    (static_cast<feeder *>(cookie)->*Member)();
}

// ---- The cache, under the table lock ----

l2fm_edm_bp_t *cached_port(uint32_t bridge_id, uint32_t xcid)
{
    if (xcid != EDM_XCID_DUMMY) {
        return l2fm_edm_table_bp_get_by_xcid(xcid);
    }
    const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(bridge_id);
    return bd != nullptr ? l2fm_edm_table_bd_bp_get(bd, xcid) : nullptr;
}

l2fm_edm_mac_t *cached_entry(uint32_t bridge_id, uint32_t xcid, const uint8_t *mac)
{
    const l2fm_edm_bp_t *bp = cached_port(bridge_id, xcid);
    return bp != nullptr ? l2fm_edm_table_bp_mac_get(&bp->mac_tree, mac) : nullptr;
}

l2fm_edm_bp_t *port_for(const l2fib_mac_edm_entry_t &entry)
{
    if (l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(entry.xcid); bp != nullptr) {
        return bp;
    }
    l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(entry.bridge_id);
    if (bd == nullptr) {
        bd = l2fm_edm_table_bd_create(entry.bridge_id);
    }
    return l2fm_edm_table_bp_create(bd, entry.xcid);
}

// The feed takes an address that is new on its port for one that has moved there. This files it beside the others.
uint32_t file_beside(const l2fib_mac_edm_entry_t &entry)
{
    const table_hold hold;
    l2fm_edm_bp_t *bp = port_for(entry);
    if (bp == nullptr) {
        return EDM_ERR_NO_RESOURCE;
    }
    if (l2fm_edm_table_bp_mac_get(&bp->mac_tree, entry.mac_addr) == nullptr) {
        return l2fm_edm_table_mac_create(bp, &entry);
    }
    return l2fib_mac_edm_add(&entry);
}

// An entry of a port stands in the way of a bridge domain's own for the same address.
uint32_t file_own(const l2fib_mac_edm_entry_t &entry)
{
    const table_hold hold;
    const uint32_t status = l2fib_mac_edm_add(&entry);
    if (status != EDM_ERR_STOPPED) {
        return status;
    }
    l2fm_edm_table_mac_destroy(l2fm_edm_table_mac_get_by_bridgeid_mac(entry.bridge_id, entry.mac_addr));
    return l2fib_mac_edm_add(&entry);
}

// What a cached entry would be fed again as.
l2fib_mac_edm_entry_t descriptor_of(const l2fm_edm_mac_t *mac)
{
    l2fib_mac_edm_entry_t entry{};
    entry.flags = static_cast<uint16_t>(mac->flags & ~EDM_MAC_STALE);
    entry.ext_flags = mac->ext_flags;
    entry.xcid = mac->bp != nullptr ? mac->bp->xcid : mac->xcid;
    entry.bridge_id = static_cast<uint16_t>(mac->bridge_id);
    entry.ext_attr = mac->ext_attr;
    entry.hw_timestamp = mac->hw_timestamp;
    std::memcpy(entry.mac_addr, mac->mac_addr, sizeof entry.mac_addr);
    if ((mac->flags & EDM_MAC_PBB) != 0) {
        const auto *pbb = reinterpret_cast<const l2fm_edm_mac_pbb_t *>(mac);
        std::memcpy(entry.bmac_addr, pbb->bmac_addr, sizeof entry.bmac_addr);
    } else if ((mac->flags & EDM_MAC_VNI) != 0) {
        const auto *vni = reinterpret_cast<const l2fm_edm_mac_vni_t *>(mac);
        std::memcpy(entry.vtep_addr, vni->vtep_addr, sizeof entry.vtep_addr);
    }
    return entry;
}

mac_address address_of(const uint8_t *mac)
{
    mac_address address;
    std::memcpy(address.data(), mac, address.size());
    return address;
}

// ---- Mark and sweep by scope ----

void mark(const resync_scope &scope)
{
    switch (scope.type) {
    case EDM_RESYNC_BD: l2fib_mac_edm_mark_bd(scope.arg); break;
    case EDM_RESYNC_BP: l2fib_mac_edm_mark_bp(scope.arg); break;
    default: l2fib_mac_edm_mark_all(); break;
    }
}

void sweep(const resync_scope &scope)
{
    switch (scope.type) {
    case EDM_RESYNC_BD: l2fib_mac_edm_sweep_bd(scope.arg); break;
    case EDM_RESYNC_BP: l2fib_mac_edm_sweep_bp(scope.arg); break;
    default: l2fib_mac_edm_sweep_all(); break;
    }
}

void walk(const resync_scope &scope, l2fm_edm_mac_walk_fn callback, void *cookie)
{
    switch (scope.type) {
    case EDM_RESYNC_BD: l2fm_edm_table_walk_all_macs_under_bd(callback, cookie, scope.arg); break;
    case EDM_RESYNC_BP: l2fm_edm_table_walk_all_macs_under_bp(callback, cookie, scope.arg); break;
    default: l2fm_edm_table_walk_all_macs(callback, cookie); break;
    }
}

std::vector<l2fib_mac_edm_entry_t> stale_entries(const resync_scope &scope)
{
    std::vector<l2fib_mac_edm_entry_t> stale;
    walk(
        scope,
        [](l2fm_edm_mac_t *mac, void *cookie) -> uint32_t {
            if ((mac->flags & EDM_MAC_STALE) != 0) {
                static_cast<std::vector<l2fib_mac_edm_entry_t> *>(cookie)->push_back(descriptor_of(mac));
            }
            return 1;
        },
        &stale);
    return stale;
}

} // namespace

feeder::feeder(plane &source, std::string group, uint16_t wait_seconds)
    : copy_(*this)
    , plane_(source)
    , group_(std::move(group))
    , wait_seconds_(wait_seconds)
    , bridge_counters_(65'536)
{}

std::string feeder::start(event_manager_t *evm)
{
    evm_ = evm;
    epoch_offset_ms_ = milliseconds_since_epoch_minus_steady();
    std::string error;
    return plane_.start(evm, copy_, error) ? std::string() : error;
}

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

// ---- Removals on their way ----

// Posts behind a publication: both travel by the same queue.
void feeder::expect_removal(uint32_t publication_status)
{
    if (publication_status != 0) {
        refuse(refusal::notification, "a removal could not be published");
    }
    if (host::event_post(evm_, call<&feeder::removal_arrived>, nullptr, this) == 0) {
        ++removals_in_flight_;
    }
}

void feeder::removal_arrived()
{
    if (--removals_in_flight_ == 0) {
        flush_later();
        serve_waiting();
    }
}

// ---- Live changes ----

void feeder::entry_touched(uint32_t at)
{
    merged_ += copy_.entries[at].dirty ? 1 : 0;
    entry_affected(at);
}

void feeder::entry_affected(uint32_t at)
{
    recount(at);
    copy_entry &entry = copy_.entries[at];
    if (!entry.dirty) {
        entry.dirty = true;
        dirty_.push_back(at);
        flush_later();
    }
}

void feeder::flush_later()
{
    if (!flush_expected_ && settled_ < dirty_.size()) {
        uint32_t timer = 0;
        flush_expected_ = host::event_timer_attach(evm_, batch_time_ns, 0, call<&feeder::flush>, this, &timer) == 0;
    }
}

void feeder::flush()
{
    flush_expected_ = false;
    entries_ = copy_.living;
    if (removals_in_flight_ != 0) {
        return;
    }
    epoch_offset_ms_ = milliseconds_since_epoch_minus_steady();
    for (size_t slice = 0; slice < slice_size && settled_ < dirty_.size(); ++slice) {
        settle(dirty_[settled_++]);
    }
    if (settled_ == dirty_.size()) {
        dirty_.clear();
        settled_ = 0;
    } else {
        flush_expected_ = host::event_post(evm_, call<&feeder::flush>, nullptr, this) == 0;
    }
}

void feeder::settle(uint32_t at)
{
    copy_entry &entry = copy_.entries[at];
    entry.dirty = false;
    l2fib_mac_edm_entry_t descriptor;
    const standing now = describe(copy_, at, epoch_offset_ms_, descriptor);
    if (now == standing::fed || now == standing::of_flood_list) {
        feed(at, descriptor);
        return;
    }
    withdraw(at);
    if (now == standing::none) {
        copy_.release(at);
    }
}

// After everything was fed and swept: the cache has what the copy has.
void feeder::forget_dirty()
{
    for (; settled_ < dirty_.size(); ++settled_) {
        copy_entry &entry = copy_.entries[dirty_[settled_]];
        entry.dirty = false;
        const auto now = static_cast<standing>(entry.standing);
        if (now != standing::fed && now != standing::of_flood_list) {
            entry.fed_xcid = 0;
        }
        if (now == standing::none) {
            copy_.release(dirty_[settled_]);
        }
    }
    dirty_.clear();
    settled_ = 0;
}

// ---- Feeding ----

void feeder::feed(uint32_t at, const l2fib_mac_edm_entry_t &descriptor)
{
    copy_entry &entry = copy_.entries[at];
    const bool on_dummy = (descriptor.flags & EDM_MAC_ON_DUMMY_PORT) != 0;
    const uint32_t xcid = on_dummy ? EDM_XCID_DUMMY : descriptor.xcid;
    uint32_t status = 0;
    if (entry.fed_xcid != 0 && (entry.fed_xcid != xcid || entry.fed_bridge != descriptor.bridge_id)) {
        const table_hold hold;
        withdraw(at);
        status = l2fib_mac_edm_add(&descriptor);
    } else if (on_dummy) {
        status = file_own(descriptor);
    } else {
        status = stands_beside_others(copy_, at) ? file_beside(descriptor) : l2fib_mac_edm_add(&descriptor);
    }
    if (status != 0) {
        ++refusals_[static_cast<size_t>(refusal::feed)];
        return;
    }
    entry.fed_xcid = xcid;
    entry.fed_bridge = descriptor.bridge_id;
}

void feeder::feed(uint32_t at)
{
    l2fib_mac_edm_entry_t descriptor;
    const standing now = describe(copy_, at, epoch_offset_ms_, descriptor);
    if (now == standing::fed || now == standing::of_flood_list) {
        feed(at, descriptor);
    }
}

// Whether another entry of the copy was fed to the same place in the cache: the bridge's and the device's of one
// address, the destinations of a flood list.
bool feeder::position_is_shared(uint32_t at) const
{
    const copy_entry &entry = copy_.entries[at];
    const auto port = ports_by_xcid_.find(entry.fed_xcid);
    if (port == ports_by_xcid_.end() || copy_.ports[port->second].key.kind != link_kind::vxlan) {
        return false;
    }
    const uint32_t group = copy_.find_group(copy_.ports[port->second].key.ifindex, entry.record.mac);
    uint32_t other = group != no_slot ? copy_.groups[group].first : no_slot;
    for (; other != no_slot; other = copy_.entries[other].group_next) {
        if (other != at && copy_.entries[other].fed_xcid == entry.fed_xcid
            && copy_.entries[other].fed_bridge == entry.fed_bridge) {
            return true;
        }
    }
    return false;
}

void feeder::withdraw(uint32_t at)
{
    copy_entry &entry = copy_.entries[at];
    if (entry.fed_xcid == 0) {
        return;
    }
    if (!position_is_shared(at)) {
        const table_hold hold;
        l2fm_edm_table_mac_destroy(cached_entry(entry.fed_bridge, entry.fed_xcid, entry.record.mac.data()));
    }
    entry.fed_xcid = 0;
}

// ---- Resyncs ----

template <typename Visit>
void feeder::for_each_entry(const resync_scope &scope, Visit visit)
{
    if (scope.type == EDM_RESYNC_ALL) {
        copy_.for_each_entry(visit);
    } else if (scope.type == EDM_RESYNC_BP) {
        if (const auto port = ports_by_xcid_.find(scope.arg); port != ports_by_xcid_.end()) {
            copy_.for_each_entry_of_port(port->second, visit);
        }
    } else if (const auto domain = domains_by_id_.find(static_cast<uint16_t>(scope.arg));
               domain != domains_by_id_.end()) {
        for (const uint32_t port : copy_.domains[domain->second].ports) {
            copy_.for_each_entry_of_port(port, visit);
        }
    }
}

uint64_t feeder::entries_in(const resync_scope &scope) const
{
    if (scope.type == EDM_RESYNC_ALL) {
        return copy_.living;
    }
    if (scope.type == EDM_RESYNC_BP) {
        const auto port = ports_by_xcid_.find(scope.arg);
        return port != ports_by_xcid_.end() ? copy_.ports[port->second].entries : 0;
    }
    uint64_t entries = 0;
    if (const auto domain = domains_by_id_.find(static_cast<uint16_t>(scope.arg)); domain != domains_by_id_.end()) {
        for (const uint32_t port : copy_.domains[domain->second].ports) {
            entries += copy_.ports[port].entries;
        }
    }
    return entries;
}

void feeder::generation_ended(bool)
{
    listed_ = true;
    links_ = copy_.known_links;
    entries_ = copy_.living;
    unchanged_ = copy_.unchanged;
    if (!waiting_.empty()) {
        host::event_post(evm_, call<&feeder::serve_waiting>, nullptr, this);
    }
}

void feeder::resync(const resync_scope &scope)
{
    plane_.drain();
    if (listed_ && removals_in_flight_ == 0) {
        serve(scope);
        return;
    }
    waiting_.push_back(scope);
    if (!waiting_timer_) {
        // What the requester would give up waiting for is better answered with what there is.
        const auto give_up = [](void *cookie) {
            auto *self = static_cast<feeder *>(cookie);
            self->waiting_timer_ = false;
            for (const resync_scope &each : std::exchange(self->waiting_, {})) {
                self->serve(each);
            }
        };
        uint32_t timer = 0;
        const uint64_t delay_ns = uint64_t{wait_seconds_} * 500'000'000u;
        waiting_timer_ = host::event_timer_attach(evm_, delay_ns, 0, give_up, this, &timer) == 0;
    }
}

void feeder::serve_waiting()
{
    if (listed_ && removals_in_flight_ == 0) {
        for (const resync_scope &scope : std::exchange(waiting_, {})) {
            serve(scope);
        }
    }
}

void feeder::serve(const resync_scope &scope)
{
    bring_up_to_date(scope);
    const bool clean = plane_.health().clean;
    ++resyncs_;
    resyncs_degraded_ += clean ? 0 : 1;
    l2fib_mac_edm_resync_complete(clean ? complete_clean : complete_degraded);
}

void feeder::refresh_everything()
{
    plane_.drain();
    if (removals_in_flight_ == 0) {
        bring_up_to_date({EDM_RESYNC_ALL, 0});
    }
}

void feeder::bring_up_to_date(const resync_scope &scope)
{
    epoch_offset_ms_ = milliseconds_since_epoch_minus_steady();
    if (plane_.ages_silently()) {
        refresh_ages(scope);
    }
    mark(scope);
    for_each_entry(scope, [&](uint32_t entry) { feed(entry); });
    if (!plane_.health().clean) {
        keep_doubtful(scope);
    }
    sweep(scope);
    if (scope.type == EDM_RESYNC_ALL) {
        forget_dirty();
    }
    links_ = copy_.known_links;
    entries_ = copy_.living;
    unchanged_ = copy_.unchanged;
}

// ---- Ages ----

bool feeder::age_matters(uint32_t at) const
{
    const copy_entry &entry = copy_.entries[at];
    return entry.alive && static_cast<standing>(entry.standing) == standing::fed
           && (flags_of(entry.record) & (EDM_MAC_STATIC | EDM_MAC_LOCAL)) == 0;
}

void feeder::refresh_ages(const resync_scope &scope)
{
    std::vector<fdb_key> keys;
    const auto add = [&](uint32_t entry) {
        if (age_matters(entry)) {
            keys.push_back(key_of(copy_.entries[entry].record));
        }
    };
    if (entries_in(scope) <= age_refresh_limit) {
        for_each_entry(scope, add);
    } else {
        for (uint64_t steps = 0; steps < age_refresh_limit; ++steps) {
            age_cursor_ = age_cursor_ + 1 < copy_.entries.bound() ? age_cursor_ + 1 : 0;
            add(age_cursor_);
        }
    }
    ask_ages(keys);
}

void feeder::ask_ages(std::vector<fdb_key> &keys)
{
    std::vector<fdb_answer> answers(query_batch);
    for (size_t done = 0; done < keys.size(); done += query_batch) {
        const std::span<const fdb_key> batch(keys.data() + done, std::min(query_batch, keys.size() - done));
        plane_.query(batch, std::span(answers).first(batch.size()));
        for (size_t at = 0; at < batch.size(); ++at) {
            const uint32_t entry = copy_.find(batch[at]);
            if (answers[at].presence == fdb_presence::present && entry != no_slot && copy_.entries[entry].alive
                && answers[at].record.ifindex == copy_.entries[entry].record.ifindex) {
                copy_.entries[entry].record.updated_ms = answers[at].record.updated_ms;
            }
        }
    }
}

// ---- Doubtful entries ----

// What the plane could hold the entry as: the bridge's entry, a VXLAN device's own. Nothing when the copy knows it.
void feeder::add_keys_of(doubtful &about, std::vector<fdb_key> &keys) const
{
    about.first_key = static_cast<uint32_t>(keys.size());
    const auto domain = domains_by_id_.find(about.cached.bridge_id);
    if (domain == domains_by_id_.end()) {
        return;
    }
    const copy_domain &in = copy_.domains[domain->second];
    const mac_address mac = address_of(about.cached.mac_addr);
    keys.push_back({in.bridge, false, in.vlan, 0, mac, {}});
    const auto port = ports_by_xcid_.find(about.cached.xcid);
    if (port != ports_by_xcid_.end() && copy_.ports[port->second].key.kind == link_kind::vxlan) {
        const port_key &on = copy_.ports[port->second].key;
        const copy_link *device = copy_.find_link(on.ifindex);
        fdb_key own{on.ifindex, true, 0, device != nullptr && device->record.external ? on.vni : 0, mac, {}};
        if (mac == mac_address{} && (about.cached.flags & EDM_MAC_VNI) != 0) {
            own.destination.kind = destination_kind::ipv4;
            std::memcpy(own.destination.address.data(), about.cached.vtep_addr, sizeof about.cached.vtep_addr);
        }
        keys.push_back(own);
    }
    about.keys = static_cast<uint32_t>(keys.size()) - about.first_key;
    for (uint32_t at = about.first_key; at < keys.size(); ++at) {
        const uint32_t entry = copy_.find(keys[at]);
        about.known_elsewhere |= entry != no_slot && copy_.entries[entry].alive;
    }
}

void feeder::decide(const doubtful &about, std::span<const fdb_key> keys, std::span<const fdb_answer> answers)
{
    bool kept = false;
    bool unsure = false;
    for (size_t at = 0; at < answers.size(); ++at) {
        unsure |= answers[at].presence == fdb_presence::cannot_tell;
        if (answers[at].presence == fdb_presence::present) {
            copy_.fdb_changed(answers[at].record);
            feed(copy_.find(keys[at]));
            kept = true;
        }
    }
    if (!kept && unsure) {
        kept = l2fib_mac_edm_add(&about.cached) == 0;
    }
    kept_ += kept ? 1 : 0;
}

void feeder::keep_doubtful(const resync_scope &scope)
{
    const std::vector<l2fib_mac_edm_entry_t> stale = stale_entries(scope);
    constexpr size_t step = query_batch / 2; // an entry has up to two keys
    std::vector<fdb_answer> answers(query_batch);
    for (size_t done = 0; done < stale.size(); done += step) {
        std::vector<doubtful> batch;
        std::vector<fdb_key> keys;
        for (size_t at = done; at < std::min(done + step, stale.size()); ++at) {
            doubtful about{stale[at], false, 0, 0};
            add_keys_of(about, keys);
            if (about.known_elsewhere) {
                keys.resize(about.first_key);
            } else if (about.keys != 0) {
                batch.push_back(about);
            }
        }
        const std::span<fdb_answer> room = std::span(answers).first(keys.size());
        plane_.query(keys, room);
        asked_ += batch.size();
        for (const doubtful &about : batch) {
            decide(about, std::span(keys).subspan(about.first_key, about.keys),
                   room.subspan(about.first_key, about.keys));
        }
    }
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

std::vector<foreign_destination> feeder::foreign_destinations(uint32_t &cursor, size_t limit) const
{
    std::vector<foreign_destination> found;
    for (; cursor < copy_.entries.bound() && found.size() < limit; ++cursor) {
        const copy_entry &entry = copy_.entries[cursor];
        const destination_kind kind = entry.record.destination.kind;
        if (!entry.alive || (kind != destination_kind::ipv6 && kind != destination_kind::next_hop)) {
            continue;
        }
        const copy_port &port = copy_.ports[entry.port];
        const uint16_t bridge_id = port.domain != no_slot ? copy_.domains[port.domain].bridge_id : uint16_t{0};
        found.push_back({bridge_id, port.xcid, entry.record.mac, entry.record.destination});
    }
    return found;
}

} // namespace forwarding
