#include "forwarding/feeder.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "host/event_host.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

// How long a change waits for others of its kind.
constexpr uint64_t batch_time_ns = 20'000'000;
// How far the system's clock may be from where it was when times were last told. Two readings are never at the same
// moment, and the time of an entry that nobody has touched should not waver by a second.
constexpr int64_t clock_tolerance_ms = 500;
// How many entries are told before the thread looks at other events.
constexpr size_t slice_size = 2048;

struct table_hold {
    table_hold() { l2fib_mac_edm_mutex_lock(); }
    ~table_hold() { l2fib_mac_edm_mutex_unlock(); }
    table_hold(const table_hold &) = delete;
    table_hold &operator=(const table_hold &) = delete;
};

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

// The feed takes an address that is new on its port for one that has moved there. That is wrong of flood lists: each
// tunnel of a bridge domain may have one, under the same zero address. This files one beside the others.
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

} // namespace

feeder::feeder(plane &source, std::string group, uint16_t wait_seconds)
    : copy_(*this)
    , plane_(source)
    , group_(std::move(group))
    , wait_seconds_(wait_seconds)
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
    evm_ = evm;
    follow_clock();
    std::string error;
    return plane_.start(evm, copy_, error) ? std::string() : error;
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
    follow_clock();
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
    if (now == standing::none && entry.fed_xcid != 0 && !plane_.health().clean && !is_surely_gone(at)) {
        return;
    }
    withdraw(at);
    if (now == standing::none) {
        copy_.release(at);
    }
}

// Asked while the plane is degraded, when the return of an entry may have been missed. False: the entry is alive again
// and will be settled so, or the plane cannot tell, and the cache keeps what it has until a resync knows better.
bool feeder::is_surely_gone(uint32_t at)
{
    const fdb_key key = key_of(copy_.entries[at].record);
    fdb_answer answer;
    plane_.query({&key, 1}, {&answer, 1});
    ++asked_;
    if (answer.presence == fdb_presence::absent) {
        return true;
    }
    ++kept_;
    if (answer.presence == fdb_presence::present) {
        copy_.fdb_changed(answer.record);
    } else {
        copy_.release(at);
    }
    return false;
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
    std::optional<table_hold> hold; // a move is one step for others
    if (entry.fed_xcid != 0 && (entry.fed_xcid != xcid || entry.fed_bridge != descriptor.bridge_id)) {
        hold.emplace();
        withdraw(at);
    }
    const uint32_t status = on_dummy            ? file_own(descriptor)
                            : entry.record.self ? file_beside(descriptor)
                                                : l2fib_mac_edm_add(&descriptor);
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

// Whether another entry of the copy was fed to the same place in the cache, as the destinations of a flood list are.
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

} // namespace forwarding
