// SPDX-License-Identifier: Apache-2.0

// The feeder's start, its queue of changes, and the way of an entry into the cache and out of it:
//
//      entry_touched --> dirty_ --(20 ms later)--> flush --> settle_slice --> settle --> feed or withdraw
//
// Threads: the cache thread. Sections and functions say when they need the table lock; the others run without it.
#include "forwarding/feeder/feeder.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>

#include "forwarding/feeder/table_hold.h"
#include "host/event/event_host.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

// How long a change waits, so that one flush settles it together with the changes that follow.
constexpr uint64_t batch_time_ns = 20'000'000;
// How far the offset between the system's clock and the steady clock may drift before the feeder adopts the new value.
// The two clocks are read one after the other, so each reading gives a slightly different offset. Without a tolerance
// the displayed time of an untouched entry would jump back and forth by a second.
constexpr int64_t clock_tolerance_ms = 500;
// Entries that the thread settles before it looks at other events, and entries that it settles during one hold of the
// table lock.
constexpr size_t slice_size = 2048;
constexpr size_t hold_size = 64;
static_assert(slice_size % query_batch == 0);
// Two processors may report two changes of one entry in the wrong order. If the reports are further apart than this,
// their order is right.
constexpr uint32_t contest_time_ms = 50;

// ---- The cache; call with the table lock held ----

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

// Files a VXLAN device's own entry. The module treats an address that is new on its port as one that moved there. For
// flood lists that is wrong: each tunnel of a bridge domain may have one, under the same zero address. So an entry that
// is new on its port is created directly, and entries on other ports stay.
uint32_t file_beside(const l2fib_mac_edm_entry_t &entry)
{
    l2fm_edm_bp_t *bp = port_for(entry);
    if (bp == nullptr) {
        return EDM_ERR_NO_RESOURCE;
    }
    if (l2fm_edm_table_bp_mac_get(&bp->mac_tree, entry.mac_addr) == nullptr) {
        return l2fm_edm_table_mac_create(bp, &entry);
    }
    return l2fib_mac_edm_add(&entry);
}

// Files a bridge-own entry. The module refuses it with EDM_ERR_STOPPED while a port holds the same address. In that
// case this function destroys the port's entry and tries again.
uint32_t file_own(const l2fib_mac_edm_entry_t &entry)
{
    const uint32_t status = l2fib_mac_edm_add(&entry);
    if (status != EDM_ERR_STOPPED) {
        return status;
    }
    l2fm_edm_table_mac_destroy(l2fm_edm_table_mac_get_by_bridgeid_mac(entry.bridge_id, entry.mac_addr));
    return l2fib_mac_edm_add(&entry);
}

uint32_t vtep_of(const l2fib_mac_edm_entry_t &descriptor)
{
    uint32_t address = 0;
    if ((descriptor.flags & EDM_MAC_VNI) != 0) {
        std::memcpy(&address, descriptor.vtep_addr, sizeof(address));
    }
    return ntohl(address);
}

// Returns a number for the variant of a record: bit 0 for PBB, bit 1 for VNI. A variant never changes in place: the
// table replaces the entry.
uint8_t variant_of(const l2fib_mac_edm_entry_t &descriptor)
{
    const bool pbb = (descriptor.flags & EDM_MAC_PBB) != 0;
    const bool vni = (descriptor.flags & EDM_MAC_VNI) != 0;
    return static_cast<uint8_t>((pbb ? 1U : 0U) | (vni ? 2U : 0U));
}

} // namespace

feeder::feeder(plane &source, feeder_settings settings)
    : shadow_(*this)
    , plane_(source)
    , settings_(std::move(settings))
    , bridge_counters_(65'536)
{}

void feeder::follow_clock()
{
    using namespace std::chrono;
    const auto epoch = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    const auto steady = duration_cast<milliseconds>(steady_clock::now().time_since_epoch());
    const int64_t offset_ms = (epoch - steady).count();
    if (std::abs(offset_ms - epoch_offset_ms_) > clock_tolerance_ms) {
        epoch_offset_ms_ = offset_ms;
    }
}

std::string feeder::start(event_manager_t *evm)
{
    constexpr uint64_t second_ns = 1'000'000'000;
    evm_ = evm;
    follow_clock();
    if (base::result started = plane_.start(evm, shadow_); !started.ok()) {
        return std::move(started.text);
    }
    if (plane_.ages_silently()) {
        uint32_t timer = 0;
        host::event_timer_attach(evm_, second_ns, second_ns, call<&feeder::look_after_shadow_table>, this, &timer);
    }
    return {};
}

// ---- Removals in flight ----

// Call it right after the publication of a removal, with its status. The notification and the event that this function
// posts travel through the same queue. So removal_arrived runs after the cache has handled the removal.
void feeder::expect_removal(uint32_t publication_status)
{
    if (publication_status != 0) {
        refuse(refusal::notification, "a removal could not be published");
    }
    if (host::event_post(evm_, call<&feeder::removal_arrived>, nullptr, this) == 0) {
        removals_in_flight_++;
    }
}

void feeder::removal_arrived()
{
    if (--removals_in_flight_ == 0) {
        flush_later();
        serve_waiting();
    }
}

// ---- The queue of changes ----

uint32_t feeder::coarse_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint32_t>(now.tv_sec * 1000 + now.tv_nsec / 1'000'000);
}

void feeder::entry_touched(uint32_t at)
{
    shadow_entry &entry = shadow_.entries[at];
    const uint32_t now = coarse_ms();
    const bool has_flipped = entry.touched_ms != 0 && entry.touched_alive != entry.alive;
    entry.contested |= has_flipped && plane_.ages_silently() && now - entry.touched_ms <= contest_time_ms;
    entry.touched_alive = entry.alive;
    entry.surely_gone &= !entry.alive;
    entry.touched_ms = now;
    merged_ += entry.dirty ? 1 : 0;
    entry_affected(at);
}

void feeder::entry_affected(uint32_t at)
{
    recount(at);
    shadow_entry &entry = shadow_.entries[at];
    if (!entry.dirty) {
        dirty_.push_back(at);
        entry.dirty = true;
        flush_later();
    }
}

// Records the time even though nothing changed. If a removal is reported within contest_time_ms, the two reports may be
// in the wrong order, and entry_touched marks the entry as contested. Ages are fed only if the plane reports them all;
// the others are asked for when an answer shows them.
void feeder::entry_confirmed(uint32_t at, bool has_aged)
{
    shadow_.entries[at].touched_ms = coarse_ms();
    if (has_aged && !plane_.ages_silently()) {
        entry_affected(at);
    }
}

void feeder::flush_later()
{
    if (!flush_expected_ && (settled_ < dirty_.size() || must_follow_ids_)) {
        uint32_t timer = 0;
        flush_expected_ = host::event_timer_attach(evm_, batch_time_ns, 0, call<&feeder::flush>, this, &timer) == 0;
    }
}

// Schedules the next flush behind the events that are already queued, so that they have their turn.
void feeder::flush_again()
{
    flush_expected_ = flush_expected_ || host::event_post(evm_, call<&feeder::flush>, nullptr, this) == 0;
}

void feeder::flush()
{
    flush_expected_ = false;
    if (removals_in_flight_ != 0) {
        return;
    }
    follow_clock();
    for (size_t done = 0; done < slice_size && settled_ < dirty_.size();) {
        done += settle_slice();
    }
    if (settled_ < dirty_.size()) {
        flush_again();
    } else {
        settle_everything(); // the queue is settled: refill, serve ids, publish counters
    }
}

void feeder::settle_everything()
{
    settle_queue();
    follow_ids();
    if (!dirty_.empty()) {
        settle_queue();
    }
    end_id_shortage();
    entries_ = shadow_.living;
    links_ = shadow_.known_links;
    unchanged_ = shadow_.unchanged;
    follow_state();
}

void feeder::settle_queue()
{
    do {
        while (settled_ < dirty_.size()) {
            settle_slice();
        }
        dirty_.clear();
        settled_ = 0;
        refill();
    } while (!dirty_.empty()); // refill queues the other destinations of a flood list that found room
}

// Asks the plane about questionable entries of the next query_batch, then settles them all. Returns how many it
// settled.
size_t feeder::settle_slice()
{
    const size_t first = settled_;
    const size_t end = std::min(dirty_.size(), first + query_batch);
    ask_about_slice(end);
    while (settled_ < end) {
        const table_hold hold;
        for (size_t held = 0; held < hold_size && settled_ < end; held++) {
            settle(dirty_[settled_]); // throws if memory runs out; the entry then stays in the queue
            settled_++;
        }
    }
    return end - first;
}

// Brings the cache to what the shadow table holds for one entry. Call it with the table lock held. It releases the slot
// of an entry that has gone.
void feeder::settle(uint32_t at)
{
    shadow_entry &entry = shadow_.entries[at];
    l2fib_mac_edm_entry_t descriptor;
    const standing now = describe(shadow_, at, epoch_offset_ms_, descriptor);
    if (now == standing::fed || now == standing::of_flood_list) {
        feed(at, descriptor);
        entry.dirty = false;
        return;
    }
    withdraw(at);
    count_entry(at);
    note_present(entry);
    entry.dirty = false;
    if (now == standing::none) {
        shadow_.release(at);
    }
}

// ---- Into the cache and out of it; call with the table lock held ----

void feeder::feed(uint32_t at, const l2fib_mac_edm_entry_t &descriptor)
{
    shadow_entry &entry = shadow_.entries[at];
    const bool on_dummy = (descriptor.flags & EDM_MAC_ON_DUMMY_PORT) != 0;
    const uint32_t xcid = on_dummy ? EDM_XCID_DUMMY : descriptor.xcid;
    if (entry.fed_xcid != 0 && (entry.fed_xcid != xcid || entry.fed_bridge != descriptor.bridge_id)) {
        withdraw(at);
    }
    std::optional<newest_entry> newest = newest_of_full_cache();
    if (newest && cached_entry(descriptor.bridge_id, xcid, entry.record.mac.data()) != nullptr) {
        newest.reset(); // the place is taken already, so the entry needs no room and evicts nothing
    }
    feeds_++;
    const uint32_t status = file(entry, descriptor, on_dummy);
    if (newest) {
        note_eviction(*newest, entry, descriptor.bridge_id, xcid);
    }
    if (status != 0) {
        refusals_[static_cast<size_t>(refusal::feed)]++;
        lose(at, descriptor.bridge_id, xcid, &losses::refused);
        return;
    }
    note_fed(at, descriptor, xcid);
}

uint32_t feeder::file(const shadow_entry &entry, const l2fib_mac_edm_entry_t &descriptor, bool on_dummy)
{
    if (on_dummy) {
        return file_own(descriptor);
    }
    return entry.record.self ? file_beside(descriptor) : l2fib_mac_edm_add(&descriptor);
}

void feeder::note_fed(uint32_t at, const l2fib_mac_edm_entry_t &descriptor, uint32_t xcid)
{
    shadow_entry &entry = shadow_.entries[at];
    const uint8_t variant = variant_of(descriptor);
    if (entry.fed_xcid == 0 || entry.fed_variant != variant) {
        entry.created = ++last_created_;
    }
    const bool is_new = entry.fed_xcid == 0;
    entry.fed_variant = variant;
    entry.fed_xcid = xcid;
    entry.fed_bridge = descriptor.bridge_id;
    use_vtep(at, descriptor);
    count_entry(at);
    note_present(entry);
    if (is_new && missing_ != 0) {
        feed_rest_of_flood_list(entry);
    }
}

// Returns another entry of the shadow table that has the same place in the cache, or no_slot. The destinations of a
// flood list share a place.
uint32_t feeder::sharing_entry(uint32_t at) const
{
    const shadow_entry &entry = shadow_.entries[at];
    const auto port = ports_by_xcid_.find(entry.fed_xcid);
    if (port == ports_by_xcid_.end() || shadow_.ports[port->second].key.kind != link_kind::vxlan) {
        return no_slot;
    }
    const uint32_t group = shadow_.find_group(shadow_.ports[port->second].key, entry.record.mac);
    uint32_t other = group != no_slot ? shadow_.groups[group].first : no_slot;
    for (; other != no_slot; other = shadow_.entries[other].group_next) {
        if (other != at && shadow_.entries[other].fed_xcid == entry.fed_xcid
            && shadow_.entries[other].fed_bridge == entry.fed_bridge) {
            return other;
        }
    }
    return no_slot;
}

void feeder::withdraw(uint32_t at)
{
    shadow_entry &entry = shadow_.entries[at];
    if (entry.fed_xcid == 0) {
        return;
    }
    const uint32_t sharing = sharing_entry(at);
    if (sharing == no_slot) {
        l2fm_edm_table_mac_destroy(cached_entry(entry.fed_bridge, entry.fed_xcid, entry.record.mac.data()));
    } else {
        entry_affected(sharing); // the place may show this entry's destination; feeding the other one replaces it
    }
    leave_vtep(entry);
    entry.fed_xcid = 0;
}

// ---- Tunnel end points; call with the table lock held, except for vnis_of ----

// Records the tunnel end point that a fed entry uses, and leaves the one that it used before. By itself the table keeps
// a tunnel end point until a sweep. So the feeder counts the entries that use one, and destroys it with the last.
void feeder::use_vtep(uint32_t at, const l2fib_mac_edm_entry_t &descriptor)
{
    shadow_entry &entry = shadow_.entries[at];
    const port_key &on = shadow_.ports[entry.port].key;
    if (on.kind != link_kind::vxlan) {
        return;
    }
    const auto [vni, source_vni] = vnis_of(at);
    const vtep_use use{entry.fed_xcid, vtep_of(descriptor), vni};
    const bool has_own_vni = vni != on.vni || source_vni != 0;
    show_own_vni({use.xcid, use.address, entry.record.mac},
                 has_own_vni ? std::optional(own_vni{vni, source_vni}) : std::nullopt);
    if (entry.fed_tunnel && entry.fed_vtep == use.address && entry.fed_vni == vni && entry.fed_own_vni == has_own_vni) {
        return;
    }
    const shadow_entry before = entry;
    entry.fed_tunnel = true;
    entry.fed_own_vni = has_own_vni;
    entry.fed_vtep = use.address;
    entry.fed_vni = vni;
    if (use.address != 0) {
        const std::lock_guard hold(views_mutex_);
        vtep_users &users = vteps_[use];
        users.count++;
        users.bridge_id = entry.fed_bridge;
    }
    leave_vtep_of(before, before.fed_vtep == use.address);
}

feeder::own_vni feeder::vnis_of(uint32_t at) const
{
    const fdb_record *tunnel = tunnel_record_of(shadow_, at);
    const uint32_t source_vni = tunnel != nullptr ? tunnel->source_vni : 0;
    const uint32_t sent_with = tunnel != nullptr && tunnel->destination.vni != 0 ? tunnel->destination.vni : source_vni;
    return {sent_with != 0 ? sent_with : shadow_.ports[shadow_.entries[at].port].key.vni, source_vni};
}

// Sets the VNIs that a row shows instead of its port's, or clears them. The row shows the destination that was fed
// last. Destinations of one flood list may share a tunnel end point and differ in the VNI, so each feed sets the VNIs
// again.
void feeder::show_own_vni(const row_place &row, const std::optional<own_vni> &vnis)
{
    const std::lock_guard hold(views_mutex_);
    if (vnis) {
        own_vnis_[row] = *vnis;
    } else {
        own_vnis_.erase(row);
    }
}

void feeder::leave_vtep(shadow_entry &entry)
{
    leave_vtep_of(entry, false);
    entry.fed_tunnel = entry.fed_own_vni = false;
    entry.fed_vtep = entry.fed_vni = 0;
}

// Ends an entry's use of its tunnel end point and destroys the end point if it was the last use. If `keeps_row`, the
// VNIs of the row stay, because a newer feed has just set them.
void feeder::leave_vtep_of(const shadow_entry &entry, bool keeps_row)
{
    if (!entry.fed_tunnel) {
        return;
    }
    const vtep_use use{entry.fed_xcid, entry.fed_vtep, entry.fed_vni};
    bool is_unused = false;
    {
        const std::lock_guard hold(views_mutex_);
        if (entry.fed_own_vni && !keeps_row) {
            own_vnis_.erase({use.xcid, use.address, entry.record.mac});
        }
        const auto users = vteps_.find(use);
        if (users == vteps_.end() || --users->second.count != 0) {
            return;
        }
        vteps_.erase(users);
        const auto other = vteps_.lower_bound({use.xcid, use.address, 0});
        is_unused = other == vteps_.end() || other->first.xcid != use.xcid || other->first.address != use.address;
    }
    if (is_unused) {
        destroy_vtep(use);
    }
}

void feeder::destroy_vtep(const vtep_use &use)
{
    const uint32_t address = htonl(use.address);
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(use.xcid);
    const auto bytes = std::bit_cast<std::array<uint8_t, sizeof(address)>>(address);
    if (l2fm_edm_vtep_t *vtep = l2fm_edm_table_vtep_lookup(bytes.data(), bp); vtep != nullptr) {
        l2fm_edm_table_vtep_destroy(vtep, bp);
    }
}

} // namespace forwarding
