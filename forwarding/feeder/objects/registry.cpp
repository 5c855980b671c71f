// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/objects/registry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/objects/l2fib_objects.h"

namespace forwarding {
namespace {

constexpr size_t max_notes = 20;
constexpr size_t max_shown_losses = 100;

constexpr const char *refusal_texts[] = {
    "entry that the cache refused",    "bridge domain that found no id free",
    "port that found no id free",      "bridge domain that could not be named",
    "object that could not be stored", "removal that could not be published",
};
static_assert(std::size(refusal_texts) == static_cast<size_t>(refusal::count));

port_kind kind_of(link_kind kind)
{
    switch (kind) {
    case link_kind::vxlan: return port_kind::vxlan;
    case link_kind::tunnel: return port_kind::tunnel;
    default: return port_kind::interface;
    }
}

} // namespace

registry::registry(feed_context &context)
    : context_(context)
{}

// ---- Bridge domains ----

std::string registry::full_name(const shadow_domain &domain) const
{
    const shadow_link *bridge = context_.shadow.find_link(domain.bridge);
    return context_.settings.group + ":"
           + bridge_domain_part(bridge != nullptr ? bridge->record.name : "", domain.vlan);
}

// Sets the name of a bridge domain's object. If another bridge domain has the name, `name` gets the bridge id as a
// suffix, and is cut first to make room for it: "g:br0" becomes "g:br0~7". Returns false if the name was refused.
bool registry::set_object(uint16_t bridge_id, std::string &name)
{
    uint32_t status = host::bridge_domain_set(bridge_id, name);
    if (status == EEXIST) {
        const std::string taken = name;
        const std::string suffix = "~" + std::to_string(bridge_id);
        name.resize(std::min(name.size(), context_.settings.group.size() + 1 + max_bridge_name - suffix.size()));
        name += suffix;
        status = host::bridge_domain_set(bridge_id, name);
        note("bridge domain " + name + ": the name " + taken + " is another one's");
    }
    if (status != 0) {
        refuse(refusal::name, "bridge domain " + name + ": " + std::strerror(static_cast<int>(status)));
    }
    return status == 0;
}

bool registry::add_domain(uint32_t domain, uint16_t bridge_id)
{
    shadow_domain &added = context_.shadow.domains[domain];
    std::string name = full_name(added);
    if (!set_object(bridge_id, name)) {
        return false;
    }
    added.bridge_id = bridge_id;
    domains_by_id_[bridge_id] = domain;
    view_domain(domain, name);
    return true;
}

void registry::remove_domain(uint16_t bridge_id)
{
    host::bridge_domain_remove(bridge_id);
    domains_by_id_.erase(bridge_id);
    const base::scoped_lock hold(mutex_);
    views_.domains.erase(bridge_id);
    losses_.erase({bridge_id, EDM_XCID_DUMMY});
    shared_views_.reset();
}

bool registry::update_domain(uint32_t domain)
{
    const shadow_domain &of = context_.shadow.domains[domain];
    const std::string name = domain_name(of.bridge_id);
    const std::string wanted = full_name(of);
    if (name != wanted && name != wanted + "~" + std::to_string(of.bridge_id)) {
        return false;
    }
    view_domain(domain, name);
    return true;
}

bool registry::rename_domain(uint32_t domain)
{
    const shadow_domain &renamed = context_.shadow.domains[domain];
    std::string name = full_name(renamed);
    if (!set_object(renamed.bridge_id, name)) {
        return false;
    }
    view_domain(domain, name);
    return true;
}

void registry::view_domain(uint32_t domain, const std::string &name)
{
    const shadow_domain &viewed = context_.shadow.domains[domain];
    const shadow_link *bridge = context_.shadow.find_link(viewed.bridge);
    if (bridge == nullptr) {
        return;
    }
    const std::string expected = context_.settings.group + ":" + bridge->record.name;
    if (viewed.vlan == 0 && name != expected && name.find('~') == std::string::npos) {
        note("bridge " + bridge->record.name + " is shown as " + name);
    }
    const base::scoped_lock hold(mutex_);
    views_.domains.put({viewed.bridge_id, name, bridge->record.name, viewed.bridge, viewed.vlan,
                        bridge->record.vlan_aware, bridge->record.ageing_ms});
    shared_views_.reset();
}

uint32_t registry::find_domain(uint16_t bridge_id) const
{
    const auto found = domains_by_id_.find(bridge_id);
    return found != domains_by_id_.end() ? found->second : no_slot;
}

// ---- Ports ----

bool registry::add_port(uint32_t port, uint32_t xcid)
{
    shadow_port &added = context_.shadow.ports[port];
    if (host::cross_connect_set(xcid, cross_connect_of(added)) != 0) {
        refuse(refusal::object, "port with interface index " + std::to_string(added.key.ifindex) + ": out of memory");
        return false;
    }
    added.xcid = xcid;
    ports_by_xcid_[xcid] = port;
    update_port(port);
    return true;
}

void registry::remove_port(uint16_t bridge_id, uint32_t xcid)
{
    host::cross_connect_remove(xcid);
    ports_by_xcid_.erase(xcid);
    const base::scoped_lock hold(mutex_);
    views_.ports.erase(port_place(bridge_id, xcid));
    losses_.erase({bridge_id, xcid});
    shared_views_.reset();
}

bool registry::update_port(uint32_t port)
{
    const shadow_port &updated = context_.shadow.ports[port];
    if (updated.xcid == 0 || updated.xcid == EDM_XCID_DUMMY) {
        return false;
    }
    const shadow_link *link = context_.shadow.find_link(updated.key.ifindex);
    port_view view;
    view.xcid = updated.xcid;
    view.name = link != nullptr ? link->record.name : "";
    view.ifindex = updated.key.ifindex;
    view.kind = kind_of(updated.key.kind);
    view.vlan = updated.key.vlan;
    view.vni = updated.key.vni;
    view.up = link != nullptr && link->record.up;
    view.bridge_id = context_.shadow.domains[updated.domain].bridge_id;
    const base::scoped_lock hold(mutex_);
    const domain_view *domain = views_.find_domain(view.bridge_id);
    view.domain = domain != nullptr ? domain->name : "";
    const port_view *before = views_.find_port(view.bridge_id, view.xcid);
    const bool is_renamed = before != nullptr && before->name != view.name;
    views_.ports.erase(port_place(0, updated.xcid)); // from the time when its bridge domain had no id
    views_.ports.put(std::move(view));
    shared_views_.reset();
    return is_renamed;
}

uint32_t registry::find_port(uint32_t xcid) const
{
    const auto found = ports_by_xcid_.find(xcid);
    return found != ports_by_xcid_.end() ? found->second : no_slot;
}

// ---- Losses, failures and notes ----

void registry::lose(uint16_t bridge_id, uint32_t xcid, loss why)
{
    const base::scoped_lock hold(mutex_);
    losses &of = losses_[{bridge_id, xcid}];
    (why == loss::evicted ? of.evicted : of.refused)++;
}

void registry::refuse(refusal reason, const std::string &text)
{
    refuse(reason);
    note(text);
}

void registry::note(const std::string &text)
{
    const base::scoped_lock hold(mutex_);
    if (notes_.size() == max_notes) {
        notes_.erase(notes_.begin());
    }
    notes_.push_back(text);
}

// ---- Any thread ----

bool registry::has_domain(uint16_t bridge_id) const
{
    const base::scoped_lock hold(mutex_);
    return views_.find_domain(bridge_id) != nullptr;
}

bool registry::find_key(uint16_t bridge_id, const mac_address &mac, fdb_key &key) const
{
    const base::scoped_lock hold(mutex_);
    const domain_view *found = views_.find_domain(bridge_id);
    if (found == nullptr) {
        return false;
    }
    key = {found->bridge_ifindex, false, found->vlan, 0, mac, {}};
    return true;
}

std::string registry::domain_name(uint16_t bridge_id) const
{
    const base::scoped_lock hold(mutex_);
    const domain_view *found = views_.find_domain(bridge_id);
    return found != nullptr ? found->name : std::string();
}

place_names registry::names_of(uint16_t bridge_id, uint32_t xcid) const
{
    place_names names;
    const base::scoped_lock hold(mutex_);
    if (const domain_view *domain = views_.find_domain(bridge_id); domain != nullptr) {
        names.domain = domain->name;
        names.vlan = domain->vlan;
    }
    if (const port_view *port = views_.find_port(bridge_id, xcid); port != nullptr) {
        names.port = port->name;
    }
    return names;
}

std::shared_ptr<const object_views> registry::views() const
{
    const base::scoped_lock hold(mutex_);
    if (shared_views_ == nullptr) {
        shared_views_ = std::make_shared<object_views>(object_views{views_.domains.share(), views_.ports.share()});
    }
    return shared_views_;
}

// Adds the losses of the first max_shown_losses ports only, so that the report stays short.
void registry::add_to(health_view &view) const
{
    for (size_t at = 0; at < refusals_.size(); at++) {
        if (refusals_[at] != 0) {
            view.refused.push_back({refusal_texts[at], refusals_[at]});
        }
    }
    const base::scoped_lock hold(mutex_);
    for (const auto &[place, lost] : losses_) {
        if (view.limited.size() == max_shown_losses) {
            break;
        }
        const domain_view *domain = views_.find_domain(place.first);
        const port_view *port = views_.find_port(place.first, place.second);
        view.limited.push_back(
            {domain != nullptr ? domain->name : "", port != nullptr ? port->name : "", lost.evicted, lost.refused});
    }
    view.notes = notes_;
}

} // namespace forwarding
