// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/objects/numbering.h"

#include <utility>

#include "host/event/event_host.h"

namespace forwarding {
namespace {

constexpr size_t objects_per_round = 512;
constexpr size_t entries_per_round = 2048; // visited, whether or not they are queued
constexpr uint64_t rest_ns = uint64_t{id_line::rest_ms} * 1'000'000;

std::string amount(uint64_t count, const char *what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

} // namespace

numbering::numbering(feed_context &context, registry &objects, entry_counters &counters, change_queue &queue)
    : context_(context)
    , objects_(objects)
    , counters_(counters)
    , queue_(queue)
{}

// ---- New objects ----

void numbering::number_domain(uint32_t domain)
{
    domain_lines_.reach(domain);
    if (const uint32_t id = bridge_ids_.take(); id != 0) {
        name_domain(domain, id);
        return;
    }
    domain_lines_[domain] = bridge_ids_.join(domain);
    begin_shortage(refusal::bridge_id, "bridge domain " + objects_.full_name(context_.shadow.domains[domain]));
}

void numbering::number_port(uint32_t port)
{
    port_lines_.reach(port);
    if (const uint32_t xcid = xcids_.take(); xcid != 0) {
        connect_port(port, xcid);
        return;
    }
    port_lines_[port] = xcids_.join(port);
    const uint32_t ifindex = context_.shadow.ports[port].key.ifindex;
    begin_shortage(refusal::xcid, "port with interface index " + std::to_string(ifindex));
}

bool numbering::domain_waits(uint32_t domain)
{
    domain_lines_.reach(domain);
    return domain_lines_[domain] != 0;
}

// Returns false if the object was refused; the id is free again.
bool numbering::name_domain(uint32_t domain, uint32_t id)
{
    const bool is_named = objects_.add_domain(domain, static_cast<uint16_t>(id));
    if (!is_named) {
        bridge_ids_.put_back(id);
    }
    return is_named;
}

bool numbering::connect_port(uint32_t port, uint32_t xcid)
{
    const bool is_connected = objects_.add_port(port, xcid);
    if (!is_connected) {
        xcids_.put_back(xcid);
    }
    return is_connected;
}

void numbering::begin_shortage(refusal reason, const std::string &object)
{
    objects_.refuse(reason, object + ": no id is left");
    limitations_ += is_short_.exchange(true) ? 0 : 1;
    follow_later();
}

// ---- Objects that end ----

void numbering::end_domain(uint32_t domain)
{
    domain_lines_.reach(domain);
    if (const uint16_t id = context_.shadow.domains[domain].bridge_id; id != 0) {
        give_back(bridge_ids_, id);
    } else {
        leave_line(bridge_ids_, domain_lines_[domain]);
    }
}

void numbering::end_port(uint32_t port)
{
    port_lines_.reach(port);
    const uint32_t xcid = context_.shadow.ports[port].xcid;
    if (xcid != 0 && xcid != EDM_XCID_DUMMY) {
        give_back(xcids_, xcid);
    } else {
        leave_line(xcids_, port_lines_[port]);
    }
}

void numbering::leave_line(id_line &line, uint64_t &place)
{
    if (place != 0) {
        line.leave(std::exchange(place, 0));
        follow_later();
    }
}

void numbering::give_back(id_line &line, uint32_t id)
{
    line.give_back(id, coarse_ms());
    follow_later();
}

void numbering::follow_later()
{
    if (is_short_) {
        queue_.demand_flush();
    }
}

// ---- Ids that come back ----

void numbering::follow()
{
    if (queue_.awaits_removal()) {
        return;
    }
    queue_.meet_demand();
    if (!is_short_) {
        bridge_ids_.end_rests(coarse_ms());
        xcids_.end_rests(coarse_ms());
        return;
    }
    serve_line(bridge_ids_, &numbering::serve_domain);
    serve_line(xcids_, &numbering::serve_port);
    if (bridge_ids_.can_serve() || xcids_.can_serve() || !served_ports_.empty()) {
        queue_.flush_again(); // first, because entries queued below would schedule a later flush
        feed_served();
    } else if ((bridge_ids_.waits_for_rest() || xcids_.waits_for_rest()) && !is_rest_expected_) {
        uint32_t timer = 0;
        is_rest_expected_ =
            host::event_timer_attach(context_.evm, rest_ns, 0, call<&numbering::end_rest>, this, &timer) == 0;
    }
}

void numbering::end_rest()
{
    is_rest_expected_ = false;
    follow_later();
}

void numbering::serve_line(id_line &line, void (numbering::*give)(const served_object &served))
{
    line.end_rests(coarse_ms());
    for (size_t done = 0; done < objects_per_round && line.can_serve(); ++done) {
        (this->*give)(line.serve());
    }
}

void numbering::serve_domain(const served_object &served)
{
    domain_lines_[served.slot] = 0;
    if (!name_domain(served.slot, served.id)) {
        return;
    }
    for (const uint32_t port : context_.shadow.domains[served.slot].ports) {
        objects_.update_port(port);
        feed_port_later(port);
    }
}

void numbering::serve_port(const served_object &served)
{
    port_lines_[served.slot] = 0;
    if (connect_port(served.slot, served.id)) {
        feed_port_later(served.slot);
    }
}

// Schedules the feed of a port's entries if the port and its bridge domain have ids. Otherwise the entries keep
// waiting.
void numbering::feed_port_later(uint32_t port)
{
    shadow_port &served = context_.shadow.ports[port];
    if (served.xcid != 0 && context_.shadow.domains[served.domain].bridge_id != 0) {
        served.resume = served.first;
        served_ports_.push_back(port);
    }
}

// Puts some entries of served ports into the queue of changes. If a port ended meanwhile, its `resume` is no_slot and
// the port is skipped.
void numbering::feed_served()
{
    for (size_t visited = 0; visited < entries_per_round && !served_ports_.empty(); ++visited) {
        shadow_port &port = context_.shadow.ports[served_ports_.front()];
        if (port.resume == no_slot) {
            served_ports_.pop_front();
            continue;
        }
        const uint32_t entry = std::exchange(port.resume, context_.shadow.entries[port.resume].next);
        if (context_.records[entry].now() == standing::without_id) {
            counters_.follow_standing(entry);
            queue_.add(entry);
        }
    }
}

void numbering::end_shortage()
{
    if (bridge_ids_.waiting() == 0 && xcids_.waiting() == 0 && served_ports_.empty()) {
        is_short_ = false;
    }
}

// ---- The shortage in reports, any thread ----

std::string numbering::text_of_shortage() const
{
    const uint64_t domains = bridge_ids_.waiting();
    const uint64_t ports = xcids_.waiting();
    std::string text;
    if (domains != 0) {
        text = amount(domains, "bridge domain") + " (limit " + std::to_string(bridge_ids_.limit()) + ")";
    }
    if (ports != 0) {
        text +=
            (text.empty() ? "" : " and ") + amount(ports, "port") + " (limit " + std::to_string(xcids_.limit()) + ")";
    }
    if (!text.empty()) {
        return "no id is left for " + text;
    }
    return is_short_ ? "bridge domains or ports that have just got an id are being filled"
                     : "some bridge domains or ports could not be stored";
}

} // namespace forwarding
