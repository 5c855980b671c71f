// How the feeder serves resyncs: mark, feed from the copy, ask about what is doubtful, sweep, complete.
#include <algorithm>
#include <cstring>
#include <utility>

#include "forwarding/feeder.h"
#include "host/event_host.h"
#include "l2fm_edm_table.h"

namespace forwarding {
namespace {

// Up to so many entries, a resync asks the plane for the ages of its whole scope; of a larger one for so many.
constexpr uint64_t age_refresh_limit = 65'536;

// What a resync is completed with.
constexpr uint32_t complete_clean = 0;
constexpr uint32_t complete_degraded = 1;

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

// ---- Questions to the plane ----

template <typename Visit>
void feeder::for_each_answer(const std::vector<fdb_key> &keys, Visit visit)
{
    std::vector<fdb_answer> answers(query_batch);
    for (size_t done = 0; done < keys.size(); done += query_batch) {
        const std::span batch = std::span(keys).subspan(done, std::min(query_batch, keys.size() - done));
        plane_.query(batch, std::span(answers).first(batch.size()));
        for (size_t at = 0; at < batch.size(); ++at) {
            visit(done + at, answers[at]);
        }
    }
}

// ---- Resyncs ----

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
    follow_clock();
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

// The answers also make good what was notified in the wrong order, as two things may be that happened at the same time
// on two processors: what the plane says now is newer than anything it has notified.

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
    for_each_answer(keys, [&](size_t at, const fdb_answer &answer) {
        const uint32_t entry = copy_.find(keys[at]);
        if (entry == no_slot || !copy_.entries[entry].alive) {
            return;
        }
        fdb_record &known = copy_.entries[entry].record;
        if (answer.presence == fdb_presence::absent) {
            copy_.fdb_gone(fdb_record(known));
        } else if (answer.presence == fdb_presence::present && answer.record.ifindex == known.ifindex) {
            known.updated_ms = answer.record.updated_ms;
        } else if (answer.presence == fdb_presence::present && copy_.find_link(answer.record.ifindex) != nullptr) {
            copy_.fdb_changed(answer.record);
        }
    });
}

// ---- Doubtful entries ----

// What the plane would hold an entry of the cache as, which the feed has not confirmed. False: there is nothing to ask,
// because its bridge domain has gone or the copy knows better.
bool feeder::key_of_doubtful(const l2fib_mac_edm_entry_t &cached, fdb_key &key) const
{
    const auto domain = domains_by_id_.find(cached.bridge_id);
    if (domain == domains_by_id_.end()) {
        return false;
    }
    const copy_domain &in = copy_.domains[domain->second];
    key = {in.bridge, false, in.vlan, 0, address_of(cached.mac_addr), {}};
    const auto port = ports_by_xcid_.find(cached.xcid);
    if (key.mac == mac_address{} && port != ports_by_xcid_.end()) {
        const port_key &on = copy_.ports[port->second].key;
        const copy_link *device = copy_.find_link(on.ifindex);
        const uint32_t source_vni = device != nullptr && device->record.external ? on.vni : 0;
        key = {on.ifindex, true, 0, source_vni, key.mac, {}};
        if ((cached.flags & EDM_MAC_VNI) != 0) {
            key.destination.kind = destination_kind::ipv4;
            std::memcpy(key.destination.address.data(), cached.vtep_addr, sizeof cached.vtep_addr);
        }
    }
    const uint32_t known = copy_.find(key);
    return known == no_slot || !copy_.entries[known].alive;
}

void feeder::decide(const l2fib_mac_edm_entry_t &cached, const fdb_key &key, const fdb_answer &answer)
{
    if (answer.presence == fdb_presence::present) {
        copy_.fdb_changed(answer.record);
        feed(copy_.find(key));
        ++kept_;
    } else if (answer.presence == fdb_presence::cannot_tell) {
        kept_ += l2fib_mac_edm_add(&cached) == 0 ? 1 : 0;
    }
}

void feeder::keep_doubtful(const resync_scope &scope)
{
    std::vector<l2fib_mac_edm_entry_t> asked;
    std::vector<fdb_key> keys;
    for (const l2fib_mac_edm_entry_t &cached : stale_entries(scope)) {
        if (fdb_key key; key_of_doubtful(cached, key)) {
            asked.push_back(cached);
            keys.push_back(key);
        }
    }
    asked_ += keys.size();
    for_each_answer(keys, [&](size_t at, const fdb_answer &answer) { decide(asked[at], keys[at], answer); });
}

} // namespace forwarding
