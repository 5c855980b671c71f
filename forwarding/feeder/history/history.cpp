// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/history/history.h"

#include <bit>
#include <new>
#include <utility>

#include <arpa/inet.h>

namespace forwarding {
namespace {

constexpr int64_t loss_interval_ms = 1000;

// One VTEP has replaced another, or the port is another one.
bool has_moved(const fed_place &from, const fed_place &to)
{
    return from.xcid != to.xcid || (from.vtep != to.vtep && from.vtep != 0 && to.vtep != 0);
}

bool is_same_port(const fed_place &left, const fed_place &right)
{
    return left.xcid == right.xcid && left.bridge_id == right.bridge_id;
}

} // namespace

history::history(feed_context &context, const registry &objects)
    : context_(context)
    , objects_(objects)
    , log_(std::make_shared<change_log>(context.settings.event_limit, context.settings.move_limit,
                                        [this](const fed_place &place) { return describe(place); }))
{}

history::~history()
{
    log_->close();
}

// ---- Entries ----

held_entry history::held(uint32_t entry) const
{
    const feed_record &record = context_.records[entry];
    return record.is_fed ? held_entry{true, context_.records.place(entry), record.created} : held_entry{};
}

void history::follow(uint32_t entry, const held_entry &before)
{
    const feed_record &record = context_.records[entry];
    if (record.is_fed && record.created != before.created) {
        creation_times_.note(record.created, epoch_ms());
    }
    if (context_.shadow.entries[entry].mac == mac_address{}) {
        follow_flood_list(entry, before);
    } else if (before.is_held) {
        follow_held(entry, before);
    } else if (record.is_fed && !is_of_start(entry)) {
        add(change_kind::learned, entry, {});
    }
}

void history::follow_held(uint32_t entry, const held_entry &before)
{
    if (!context_.records[entry].is_fed) {
        add(departure_of(entry), entry, before);
        return;
    }
    const fed_place &place = context_.records.place(entry);
    if (place.bridge_id != before.place.bridge_id) {
        add(change_kind::removed, entry, before);
        add(change_kind::learned, entry, {});
    } else if (place != before.place) {
        add(has_moved(before.place, place) ? change_kind::moved : change_kind::changed, entry, before);
    }
}

// The destinations of a flood list share a place in the cache. The first one brings it, and the last one takes it away.
void history::follow_flood_list(uint32_t entry, const held_entry &before)
{
    const held_entry now = held(entry);
    if (before.is_held && now.is_held && is_same_port(before.place, now.place)) {
        return;
    }
    if (before.is_held) {
        const auto list = flood_lists_.find({before.place.bridge_id, before.place.xcid});
        if (list != flood_lists_.end() && --list->second == 0) {
            flood_lists_.erase(list);
            add(change_kind::removed, entry, before);
        }
    }
    if (now.is_held && ++flood_lists_[{now.place.bridge_id, now.place.xcid}] == 1 && !is_of_start(entry)) {
        add(change_kind::learned, entry, {});
    }
}

change_kind history::departure_of(uint32_t entry) const
{
    return context_.records[entry].has_aged && !context_.shadow.entries[entry].alive ? change_kind::aged
                                                                                     : change_kind::removed;
}

// True if the entry was probably there at the start, and the first full dump has not found it.
bool history::is_of_start(uint32_t entry) const
{
    return !is_proven_ && context_.shadow.entries[entry].dump_only;
}

void history::add(change_kind kind, uint32_t entry, const held_entry &before)
{
    if (!has_begun_) {
        return;
    }
    const bool has_gone = kind == change_kind::aged || kind == change_kind::removed;
    add({.kind = kind,
         .by_limit = has_gone && context_.records[entry].is_missing,
         .mac = context_.shadow.entries[entry].mac,
         .place = has_gone ? before.place : context_.records.place(entry),
         .before = before.place,
         .was_since_ms = before.is_held ? creation_times_.at(before.created) : 0});
}

// An event for which there is no memory counts as lost.
void history::add(const noted_change &change)
{
    try {
        log_->add(change, epoch_ms());
    } catch (const std::bad_alloc &) {
        lost_++;
        has_loss_ = true;
    }
}

// ---- Losses ----

// Losses come in thousands during a storm, and each would take the place of an event.
void history::note_loss(uint64_t count)
{
    lost_ += count;
    has_loss_ = has_begun_;
    if (epoch_ms() - loss_ms_ >= loss_interval_ms) {
        end_loss();
    }
}

void history::end_loss()
{
    if (has_loss_) {
        loss_ms_ = epoch_ms();
        log_->add_loss(lost_, loss_ms_);
        log_->publish();
    }
    has_loss_ = false;
    lost_ = 0;
}

// ---- Names ----

void history::keep_names(uint16_t bridge_id, uint32_t xcid)
{
    ended_[{bridge_id, xcid}] = objects_.names_of(bridge_id, xcid);
}

void history::forget_ended()
{
    if (ended_.empty()) {
        return;
    }
    for (const auto &[place, names] : std::exchange(ended_, {})) {
        place.second != EDM_XCID_DUMMY ? log_->forget_port(place.second) : log_->forget_domain(place.first);
    }
    log_->begin_naming();
}

place_view history::describe(const fed_place &place) const
{
    const auto ended = ended_.find({place.bridge_id, place.xcid});
    const auto ended_domain = ended_.find({place.bridge_id, EDM_XCID_DUMMY});
    place_names names = ended != ended_.end()          ? ended->second
                        : ended_domain != ended_.end() ? ended_domain->second
                                                       : objects_.names_of(place.bridge_id, place.xcid);
    return {.domain = std::move(names.domain),
            .port = std::move(names.port),
            .bridge_id = place.bridge_id,
            .xcid = place.xcid,
            .vlan = names.vlan,
            .vtep = std::bit_cast<std::array<uint8_t, 4>>(htonl(place.vtep)),
            .vni = place.vni};
}

// ---- The start ----

void history::follow_settled(bool has_full_dump, bool is_proven, uint64_t last_created)
{
    if (!has_begun_ && has_full_dump) {
        has_begun_ = true;
        log_->begin(epoch_ms());
    }
    if (has_begun_ && is_proven && !is_proven_) {
        is_proven_ = true;
        creation_times_.begin(last_created);
    }
    if (has_loss_ && epoch_ms() - loss_ms_ >= loss_interval_ms) {
        end_loss();
    }
}

int64_t history::since(uint32_t entry) const
{
    const feed_record &record = context_.records[entry];
    return record.is_fed ? creation_times_.at(record.created) : 0;
}

} // namespace forwarding
