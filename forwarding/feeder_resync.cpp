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

} // namespace forwarding
