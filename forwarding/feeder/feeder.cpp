// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/feeder.h"

#include <cerrno>
#include <utility>

#include "forwarding/feeder/cache/table_hold.h"
#include "host/event/event_host.h"
#include "host/event/notification_host.h"

namespace forwarding {

feeder::feeder(plane &source, feeder_settings settings)
    : shadow_(*this)
    , context_{.shadow = shadow_, .source = source, .settings = std::move(settings)}
    , registry_(context_)
    , history_(context_, registry_)
    , counters_(context_, registry_)
    , queue_(context_)
    , ids_(context_, registry_, counters_, queue_)
    , places_(context_, counters_, ends_)
    , limit_(context_, registry_, counters_, places_, queue_, history_)
    , cache_(context_, registry_, counters_, places_, limit_, queue_, history_)
    , doubt_(context_)
    , condition_(context_, doubt_, limit_, ids_)
    , changes_(context_, counters_, queue_, cache_, limit_, ids_, doubt_, condition_, history_)
    , proof_(context_, counters_, doubt_, condition_)
    , sample_(context_, doubt_, proof_)
    , resyncs_(context_, registry_, counters_, queue_, changes_, condition_)
    , answers_(context_, registry_, counters_, changes_, cache_, doubt_, history_)
{
    queue_.attach(call<&changes::flush>, &changes_, call<&feeder::removals_arrived>, this);
}

base::result feeder::start(event_manager_t *evm)
{
    constexpr uint64_t second_ns = 1'000'000'000;
    context_.evm = evm;
    context_.follow_clock();
    uint32_t timer = 0;
    if (context_.source.ages_silently()) {
        const uint32_t status =
            host::event_timer_attach(evm, second_ns, second_ns, call<&feeder::look_after_shadow_table>, this, &timer);
        if (status != 0) {
            return base::system_failure(static_cast<int>(status),
                                        "the timer that compares the shadow table with the plane");
        }
    }
    base::result started = context_.source.start(evm, shadow_);
    if (!started.ok() && timer != 0) {
        host::event_timer_cancel(evm, timer);
    }
    return started;
}

// Runs once a second. It takes no sample while answers are degraded, because a full dump is due anyway.
void feeder::look_after_shadow_table()
{
    if (!condition_.has_full_dump() || doubt_.is_degraded()) {
        sample_.forget();
        return;
    }
    context_.source.drain();
    if (!changes_.settle_everything()) {
        sample_.forget(); // a removal is on its way, perhaps one that drain has just reported
        return;
    }
    sample_.take();
    shadow_.end_empty_domains();
}

// ---- Reports ----

void feeder::changes_lost(uint64_t count)
{
    condition_.note_loss(count);
    history_.note_loss(count);
    doubt_.begin();
    condition_.follow();
}

void feeder::full_dump_ended(bool clean)
{
    changes_.publish();
    proof_.full_dump_ended(clean);
    history_.end_loss();
    resyncs_.serve_soon();
}

void feeder::domain_added(uint32_t domain)
{
    if (shadow_.find_link(shadow_.domains[domain].bridge) != nullptr) {
        ids_.number_domain(domain);
    }
}

void feeder::domain_changed(uint32_t domain)
{
    const shadow_domain &changed = shadow_.domains[domain];
    if (changed.bridge_id != 0) {
        if (!registry_.update_domain(domain)) {
            rename_domain(domain);
        }
    } else if (!ids_.domain_waits(domain)) {
        ids_.number_domain(domain);
        for (const uint32_t port : changed.ports) {
            shadow_.for_each_entry_of_port(port, [&](uint32_t entry) { changes_.touched(entry); });
        }
    }
    for (const uint32_t port : changed.ports) {
        port_changed(port);
    }
}

// The cache reads a bridge domain's name only when it creates the record. So a rename destroys the record and feeds all
// its entries again. One hold of the table lock covers both, so that no reader misses an entry. This is the only feed
// that does not wait for removals on their way. None of them can concern the domain or its ports, because an id has no
// new owner before the removal of the old one has arrived.
void feeder::rename_domain(uint32_t domain)
{
    const table_hold hold;
    if (registry_.rename_domain(domain)) {
        history_.begin_naming();
        l2fm_edm_table_bd_destroy(shadow_.domains[domain].bridge_id);
        cache_.feed_renamed(domain);
    }
}

void feeder::domain_going(uint32_t domain)
{
    if (const uint16_t id = shadow_.domains[domain].bridge_id; id != 0) {
        history_.keep_names(id, EDM_XCID_DUMMY);
        registry_.remove_domain(id);
        expect_removal(host::bdxc_publish_bridge_domain_removed(id));
    }
    ids_.end_domain(domain);
}

void feeder::port_added(uint32_t port)
{
    shadow_port &added = shadow_.ports[port];
    counters_.begin_port(port);
    if (added.key.ifindex == added.key.master) {
        added.xcid = EDM_XCID_DUMMY;
        return;
    }
    ids_.number_port(port);
}

void feeder::port_changed(uint32_t port)
{
    if (registry_.update_port(port)) {
        history_.begin_naming();
    }
}

void feeder::port_going(uint32_t port)
{
    const shadow_port &going = shadow_.ports[port];
    if (going.xcid != 0 && going.xcid != EDM_XCID_DUMMY) {
        history_.keep_names(shadow_.domains[going.domain].bridge_id, going.xcid);
        registry_.remove_port(shadow_.domains[going.domain].bridge_id, going.xcid);
        expect_removal(host::bdxc_publish_cross_connect_removed(going.xcid));
    }
    ids_.end_port(port);
}

void feeder::expect_removal(uint32_t publication_status)
{
    if (publication_status != 0) {
        registry_.refuse(refusal::notification, "a removal could not be published");
    }
    queue_.expect_removal();
}

void feeder::removals_arrived()
{
    resyncs_.serve_waiting();
}

// ---- Any thread ----

uint32_t feeder::count(uint16_t bridge_id, edm_mac_counters_t &counters) const
{
    if (!registry_.has_domain(bridge_id)) {
        return ENOENT;
    }
    counters_.read_domain(bridge_id, counters);
    return 0;
}

domain_counts feeder::count_domains() const
{
    domain_counts found{.objects = registry_.views()};
    found.counts.reserve(found.objects->domains.size());
    for (const domain_view &each : found.objects->domains) {
        found.counts.push_back(counters_.kinds_of_domain(each.bridge_id));
    }
    return found;
}

bool feeder::ask(uint32_t bridge_id, const mac_address &mac, fdb_record &record)
{
    fdb_key key;
    if (!registry_.find_key(static_cast<uint16_t>(bridge_id), mac, key)) {
        return false;
    }
    fdb_answer answer;
    context_.source.query({&key, 1}, {&answer, 1});
    record = answer.record;
    return answer.presence == fdb_presence::present;
}

health_view feeder::health() const
{
    health_view view;
    view.running = true;
    view.plane = context_.source.kind();
    view.group = context_.settings.group;
    view.of_plane = context_.source.health();
    view.lacks = context_.source.lacks();
    view.ipv6_destinations = counters_.of_destination(destination_kind::ipv6);
    view.next_hop_destinations = counters_.of_destination(destination_kind::next_hop);
    view.doubtful_asked = doubt_.asked();
    view.doubtful_kept = doubt_.kept();
    view.state = state();
    view.limit = context_.settings.mac_limit;
    view.missing = limit_.missing();
    view.evictions = limit_.evictions();
    view.entries_refused = limit_.refused();
    view.domain_ids = ids_.domain_ids();
    view.port_ids = ids_.port_ids();
    view.history = history_.log()->view();
    changes_.add_to(view);
    resyncs_.add_to(view);
    proof_.add_to(view.proof);
    sample_.add_to(view.proof);
    counters_.add_to(view);
    registry_.add_to(view);
    return view;
}

} // namespace forwarding
