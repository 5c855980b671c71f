// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/history/change_log.h"

#include <algorithm>
#include <utility>

#include "forwarding/feeder/context.h"

namespace forwarding {
namespace {

constexpr int64_t ms_per_second = 1000;
constexpr uint32_t min_flaps = 2; // moves of an address that flaps

bool has_before(change_kind kind)
{
    return kind == change_kind::moved || kind == change_kind::changed;
}

bool is_move_or_departure(change_kind kind)
{
    return kind == change_kind::moved || kind == change_kind::aged || kind == change_kind::removed;
}

// Identifies an address of a bridge domain.
uint64_t flap_key(const move_record &move)
{
    constexpr uint32_t bits_of_byte = 8;
    uint64_t key = move.place->bridge_id;
    for (const uint8_t byte : move.mac) {
        key = (key << bits_of_byte) | byte;
    }
    return key;
}

// Adds a move to the count of its address. The moves come with the latest first.
void count_flap(const move_record &move, flap_record &flap)
{
    if (flap.moves++ == 0) {
        flap.mac = move.mac;
        flap.last_ms = move.time_ms;
        flap.place = move.place;
        flap.other = move.before;
    }
    flap.first_ms = move.time_ms;
}

} // namespace

change_log::change_log(uint32_t event_limit, uint32_t move_limit, place_describer describe)
    : places_(std::move(describe))
    , events_(event_limit)
    , moves_(move_limit)
{}

// ---- The cache thread ----

// Everything that may throw comes first.
void change_log::add(const noted_change &change, int64_t now_ms)
{
    const base::scoped_lock hold(mutex_);
    const bool is_move = moves_.keeps_any() && is_move_or_departure(change.kind) && change.mac != mac_address{};
    events_.reserve();
    if (is_move) {
        moves_.reserve();
    }
    const changed_counts counts = counts_of(change);
    kept_event event{.time_ms = now_ms,
                     .flags = change.place.flags,
                     .mac = change.mac,
                     .kind = change.kind,
                     .by_limit = change.by_limit};
    join_places(change, event);
    put(event);
    for (uint64_t *count : counts) {
        if (count != nullptr) {
            ++*count;
        }
    }
    if (is_move) {
        keep_move(event, change.was_since_ms);
    }
}

void change_log::add_loss(uint64_t count, int64_t now_ms)
{
    const base::scoped_lock hold(mutex_);
    events_.reserve();
    put({.time_ms = now_ms, .lost = static_cast<uint32_t>(std::min<uint64_t>(count, UINT32_MAX))});
}

void change_log::join_places(const noted_change &change, kept_event &event)
{
    event.place = places_.join(change.place);
    try {
        event.before = has_before(change.kind) ? places_.join(change.before) : no_slot;
    } catch (...) {
        places_.leave(event.place);
        throw;
    }
}

void change_log::put(const kept_event &event)
{
    if (const kept_event *goes = events_.next_to_go(); goes != nullptr) {
        leave(goes->place, goes->before);
    }
    events_.add(event);
    of_kinds_[static_cast<size_t>(event.kind)]++;
}

void change_log::keep_move(const kept_event &event, int64_t was_since_ms)
{
    const bool has_moved = event.kind == change_kind::moved;
    const kept_move move{.time_ms = event.time_ms,
                         .place = has_moved ? event.place : no_slot,
                         .before = has_moved ? event.before : event.place,
                         .was_since_s = static_cast<uint32_t>(was_since_ms / ms_per_second),
                         .mac = event.mac,
                         .kind = event.kind,
                         .by_limit = event.by_limit};
    if (const kept_move *goes = moves_.next_to_go(); goes != nullptr) {
        moves_since_ms_ = goes->time_ms + 1;
        leave(goes->place, goes->before);
    }
    for (const uint32_t place : {move.place, move.before}) {
        if (place != no_slot) {
            places_.share(place);
        }
    }
    moves_.add(move);
}

void change_log::leave(uint32_t place, uint32_t before)
{
    for (const uint32_t each : {place, before}) {
        if (each != no_slot) {
            places_.leave(each);
        }
    }
}

// Returns the counts of the bridge domain and of the ports.
change_log::changed_counts change_log::counts_of(const noted_change &change)
{
    const bool has_left_port = has_before(change.kind) && change.before.xcid != change.place.xcid;
    return {&of_domains_[change.place.bridge_id], &of_ports_[change.place.xcid],
            has_left_port ? &of_ports_[change.before.xcid] : nullptr};
}

void change_log::begin(int64_t now_ms)
{
    const base::scoped_lock hold(mutex_);
    moves_since_ms_ = now_ms;
}

void change_log::begin_naming()
{
    const base::scoped_lock hold(mutex_);
    places_.begin_naming();
}

void change_log::forget_domain(uint16_t bridge_id)
{
    const base::scoped_lock hold(mutex_);
    of_domains_.erase(bridge_id);
}

void change_log::forget_port(uint32_t xcid)
{
    const base::scoped_lock hold(mutex_);
    of_ports_.erase(xcid);
}

void change_log::publish()
{
    const base::scoped_lock hold(mutex_);
    if (std::exchange(published_, events_.newest()) != events_.newest()) {
        changed_.notify_all();
    }
}

void change_log::close()
{
    const base::scoped_lock hold(mutex_);
    is_closed_ = true;
    changed_.notify_all();
}

// ---- Events ----

uint64_t change_log::newest() const
{
    const base::scoped_lock hold(mutex_);
    return events_.newest();
}

event_batch change_log::read(uint64_t from, size_t max_events) const
{
    event_batch batch;
    const base::scoped_lock hold(mutex_);
    const uint64_t first = std::max(from, events_.oldest());
    const uint64_t count = first <= events_.newest() ? events_.newest() - first + 1 : 0;
    batch.missed = from != 0 ? first - from : first - 1;
    batch.next = first + std::min<uint64_t>({count, max_events, records_per_hold});
    batch.events.reserve(batch.next - first);
    for (uint64_t number = first; number < batch.next; number++) {
        batch.events.push_back(event_at(number));
    }
    return batch;
}

change_event change_log::event_at(uint64_t number) const
{
    const kept_event &event = events_[number];
    return {number,    event.time_ms, event.kind,           event.by_limit,
            event.mac, event.flags,   view_of(event.place), view_of(event.before),
            event.lost};
}

std::shared_ptr<const place_view> change_log::view_of(uint32_t place) const
{
    return place != no_slot ? places_[place] : nullptr;
}

bool change_log::await(uint64_t number, std::chrono::milliseconds at_most) const
{
    const auto until = std::chrono::steady_clock::now() + at_most;
    const base::scoped_lock hold(mutex_);
    const uint64_t wakes = wakes_;
    while (events_.newest() < number && !is_closed_ && wakes_ == wakes) {
        if (changed_.wait_until(mutex_, until) == std::cv_status::timeout) {
            break;
        }
    }
    return events_.newest() >= number;
}

void change_log::wake() const
{
    const base::scoped_lock hold(mutex_);
    wakes_++;
    changed_.notify_all();
}

// ---- Moves and departures ----

move_record change_log::move_at(uint64_t number) const
{
    const kept_move &move = moves_.ring()[number];
    return {number,
            move.time_ms,
            move.kind,
            move.by_limit,
            move.mac,
            view_of(move.place),
            view_of(move.before),
            move.was_since_s * ms_per_second};
}

// Copies records with numbers below `before`, in one hold of the mutex, and moves `before` to the last one. Returns
// none after the last record.
std::vector<move_record> change_log::some_moves(const move_filter &filter, uint64_t &before) const
{
    std::vector<move_record> some;
    some.reserve(records_per_hold);
    const base::scoped_lock hold(mutex_);
    const number_ring<kept_move> &ring = moves_.ring();
    while (some.size() < records_per_hold) {
        const uint64_t number =
            filter.mac ? moves_.latest_of(*filter.mac, before) : std::min(before - 1, ring.newest());
        if (number == 0 || number < ring.oldest()) {
            break;
        }
        some.push_back(move_at(number));
        before = number;
    }
    return some;
}

move_page change_log::read_moves(const move_filter &filter, uint64_t before, size_t max_moves) const
{
    move_page page;
    uint64_t below = before != 0 ? before : UINT64_MAX;
    for (auto some = some_moves(filter, below); !some.empty(); some = some_moves(filter, below)) {
        for (move_record &move : some) {
            if (filter.passes != nullptr && !filter.passes(move)) {
                continue;
            }
            if (page.moves.size() == max_moves) {
                page.more = true;
                break;
            }
            page.next = move.number;
            page.moves.push_back(std::move(move));
        }
        if (page.more) {
            break;
        }
    }
    page.history_since_ms = history_since();
    return page;
}

flap_page change_log::find_flaps(int64_t window_ms, const std::function<bool(const move_record &)> &wanted) const
{
    std::unordered_map<uint64_t, flap_record> by_address;
    const int64_t from_ms = epoch_ms() - window_ms;
    uint64_t below = UINT64_MAX;
    for (auto some = some_moves({}, below); !some.empty(); some = some_moves({}, below)) {
        for (const move_record &move : some) {
            const bool counts = move.kind == change_kind::moved && move.time_ms >= from_ms;
            if (counts && (wanted == nullptr || wanted(move))) {
                count_flap(move, by_address[flap_key(move)]);
            }
        }
        below = some.back().time_ms >= from_ms ? below : 1;
    }
    flap_page page;
    for (auto &[key, flap] : by_address) {
        if (flap.moves >= min_flaps) {
            page.flaps.push_back(std::move(flap));
        }
    }
    std::ranges::sort(page.flaps, std::ranges::greater(),
                      [](const flap_record &flap) { return std::tuple(flap.moves, flap.last_ms, flap.mac); });
    page.history_since_ms = history_since();
    return page;
}

// Before `begin`, and if no moves are kept, nothing of the past is known.
int64_t change_log::history_since() const
{
    const base::scoped_lock hold(mutex_);
    return moves_.keeps_any() && moves_since_ms_ != 0 ? moves_since_ms_ : epoch_ms();
}

// ---- Bridge domains and ports ----

uint64_t change_log::domain_changes(uint16_t bridge_id) const
{
    const base::scoped_lock hold(mutex_);
    const auto found = of_domains_.find(bridge_id);
    return found != of_domains_.end() ? found->second : 0;
}

uint64_t change_log::port_changes(uint32_t xcid) const
{
    const base::scoped_lock hold(mutex_);
    const auto found = of_ports_.find(xcid);
    return found != of_ports_.end() ? found->second : 0;
}

history_view change_log::view() const
{
    const base::scoped_lock hold(mutex_);
    return {events_.size(), events_.newest(), moves_.keeps_any() ? moves_.ring().size() : 0,
            events_.bytes() + moves_.bytes(), of_kinds_};
}

} // namespace forwarding
