// SPDX-License-Identifier: Apache-2.0

// Gives ids to bridge domains and ports. While all ids are in use, new objects wait in line.
//
// The feeder hands out an id again only if three conditions hold:
//  - the cache thread has handled the removal of the old owner;
//  - the queue of changes is empty;
//  - the id has rested (ids.h).
// So no change of the old owner can reach the new one.
//
// A bridge domain may hold a million entries, so the work is done in rounds of the event loop. Each round gives ids to
// some objects and puts some of their entries into the queue of changes. Answers stay marked limited until the cache
// holds the last of these entries.
//
// Threads: the cache thread, without the table lock. The last section is for any thread.
#include "forwarding/feeder/feeder.h"
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

// ---- New objects ----

void feeder::number_domain(uint32_t at)
{
    if (const uint32_t id = bridge_ids_.take(); id != 0) {
        name_domain(at, id);
        return;
    }
    shadow_.domains[at].waits = bridge_ids_.join(at);
    begin_id_shortage(refusal::bridge_id, "bridge domain " + full_name(shadow_.domains[at]));
}

void feeder::number_port(uint32_t at)
{
    if (const uint32_t xcid = xcids_.take(); xcid != 0) {
        connect_port(at, xcid);
        return;
    }
    shadow_.ports[at].waits = xcids_.join(at);
    begin_id_shortage(refusal::xcid, "port with interface index " + std::to_string(shadow_.ports[at].key.ifindex));
}

void feeder::begin_id_shortage(refusal reason, const std::string &object)
{
    refuse(reason, object + ": no id is left");
    limitations_ += is_short_of_ids_.exchange(true) ? 0 : 1;
    follow_ids_later();
}

// ---- Objects that end ----

void feeder::leave_line(id_line &line, uint64_t place)
{
    if (place != 0) {
        line.leave(place);
        follow_ids_later();
    }
}

void feeder::give_back(id_line &line, uint32_t id)
{
    line.give_back(id, coarse_ms());
    follow_ids_later();
}

void feeder::follow_ids_later()
{
    if (is_short_of_ids_) {
        must_follow_ids_ = true;
        flush_later();
    }
}

// ---- Ids that come back ----

// Frees ids that have rested and gives ids to objects that wait. It puts the entries of these objects into the queue
// of changes, which is empty when it is called. While a removal is in flight it does nothing: removal_arrived schedules
// the next call.
void feeder::follow_ids()
{
    if (removals_in_flight_ != 0) {
        return;
    }
    must_follow_ids_ = false;
    if (!is_short_of_ids_) {
        bridge_ids_.end_rests(coarse_ms());
        xcids_.end_rests(coarse_ms());
        return;
    }
    serve_line(bridge_ids_, &feeder::serve_domain);
    serve_line(xcids_, &feeder::serve_port);
    if (bridge_ids_.can_serve() || xcids_.can_serve() || !served_ports_.empty()) {
        flush_again(); // first, because entries queued below would schedule a flush after batch_time_ns only
        feed_served();
    } else if ((bridge_ids_.waits_for_rest() || xcids_.waits_for_rest()) && !rest_expected_) {
        uint32_t timer = 0;
        rest_expected_ = host::event_timer_attach(evm_, rest_ns, 0, call<&feeder::end_rest>, this, &timer) == 0;
    }
}

void feeder::end_rest()
{
    rest_expected_ = false;
    follow_ids_later();
}

void feeder::serve_line(id_line &line, void (feeder::*give)(const served_object &served))
{
    line.end_rests(coarse_ms());
    for (size_t done = 0; done < objects_per_round && line.can_serve(); ++done) {
        (this->*give)(line.serve());
    }
}

void feeder::serve_domain(const served_object &served)
{
    shadow_.domains[served.slot].waits = 0;
    if (!name_domain(served.slot, served.id)) {
        return;
    }
    for (const uint32_t port : shadow_.domains[served.slot].ports) {
        view_port(port);
        feed_port_later(port);
    }
}

void feeder::serve_port(const served_object &served)
{
    shadow_.ports[served.slot].waits = 0;
    if (connect_port(served.slot, served.id)) {
        feed_port_later(served.slot);
    }
}

// Schedules the feed of a port's entries if the port and its bridge domain have ids. Otherwise the entries keep
// waiting.
void feeder::feed_port_later(uint32_t at)
{
    shadow_port &port = shadow_.ports[at];
    if (port.xcid != 0 && shadow_.domains[port.domain].bridge_id != 0) {
        port.resume = port.first;
        served_ports_.push_back(at);
    }
}

// Puts some entries of served ports into the queue of changes. If a port ended meanwhile, its `resume` is no_slot and
// the port is skipped.
void feeder::feed_served()
{
    for (size_t visited = 0; visited < entries_per_round && !served_ports_.empty(); ++visited) {
        shadow_port &port = shadow_.ports[served_ports_.front()];
        if (port.resume == no_slot) {
            served_ports_.pop_front();
            continue;
        }
        const uint32_t at = std::exchange(port.resume, shadow_.entries[port.resume].next);
        if (static_cast<standing>(shadow_.entries[at].standing) == standing::without_id) {
            entry_affected(at);
        }
    }
}

// Ends the shortage when no object waits for an id and no served port waits for its feed. Call it with an empty queue
// of changes, because queued entries may have waited for an id.
void feeder::end_id_shortage()
{
    if (bridge_ids_.waiting() == 0 && xcids_.waiting() == 0 && served_ports_.empty()) {
        is_short_of_ids_ = false;
    }
}

// ---- The shortage in reports, any thread ----

bool feeder::lacks_ids() const
{
    return is_short_of_ids_ || standings_[static_cast<size_t>(standing::without_id)] != 0;
}

std::string feeder::text_of_id_shortage() const
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
    return is_short_of_ids_ ? "bridge domains or ports that have just got an id are being filled"
                            : "some bridge domains or ports could not be stored";
}

} // namespace forwarding
