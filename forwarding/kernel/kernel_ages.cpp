// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/kernel_ages.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "forwarding/kernel/thread_time.h"

namespace forwarding {

namespace {

// A dump pays after questions about this share of a bridge's entries, because readers usually read the rest, too. It
// then wastes little if they do not.
constexpr size_t dump_share = 32;
constexpr size_t least_demand = 16; // entries

// A dump ends early when it has cost this many times the questions about all entries that it should bring: a bridge of
// very many ports. The kernel walks over all entries of a bridge for each port.
constexpr int64_t max_cost = 4;
constexpr int64_t min_cost_ns = 2'000'000; // that a dump may have

constexpr size_t least_slots = 64;

bool is_worth_a_dump(size_t demand, size_t entries)
{
    return demand >= std::max(least_demand, entries / dump_share);
}

constexpr uint64_t key_of_entry(const mac_address &mac, uint16_t vlan)
{
    constexpr unsigned byte_bits = 8;
    uint64_t key = 0;
    for (const uint8_t byte : mac) {
        key = key << byte_bits | byte;
    }
    return key << (2 * byte_bits) | vlan;
}

} // namespace

// ---- Table ----

// Returns the slot at which the search for the key begins.
size_t age_table::first_place_of(uint64_t key) const
{
    constexpr uint64_t multiplier = 0x9e3779b97f4a7c15; // 2^64 divided by the golden ratio, which spreads numbers
    constexpr unsigned high_half = 32;
    return (key * multiplier >> high_half) & (slots_.size() - 1);
}

// Returns the slot of the key, or the free one where it belongs. There must be a free one.
size_t age_table::place_of(uint64_t key) const
{
    size_t place = first_place_of(key);
    while (slots_[place].key != 0 && slots_[place].key != key) {
        place = (place + 1) & (slots_.size() - 1);
    }
    return place;
}

void age_table::reserve(size_t entries)
{
    if (2 * entries > slots_.size()) {
        move_to(std::bit_ceil(std::max(least_slots, 2 * entries)));
    }
}

// `slots` is a power of two, more than twice the size.
void age_table::move_to(size_t slots)
{
    const std::vector<slot> old = std::exchange(slots_, std::vector<slot>(slots));
    for (const slot &each : old) {
        if (each.key != 0) {
            slots_[place_of(each.key)] = each;
        }
    }
}

void age_table::put(const mac_address &mac, uint16_t vlan, int64_t updated_ms)
{
    if (2 * size_ >= slots_.size()) {
        move_to(std::max(least_slots, 2 * slots_.size()));
    }
    const uint64_t key = key_of_entry(mac, vlan);
    if (key == 0) {
        return;
    }
    slot &to = slots_[place_of(key)];
    size_ += to.key == 0 ? 1 : 0;
    to = {key, updated_ms};
}

void age_table::prefetch(const mac_address &mac, uint16_t vlan) const
{
    if (!slots_.empty()) {
        __builtin_prefetch(&slots_[first_place_of(key_of_entry(mac, vlan))]);
    }
}

const int64_t *age_table::find(const mac_address &mac, uint16_t vlan) const
{
    const uint64_t key = key_of_entry(mac, vlan);
    if (slots_.empty() || key == 0) {
        return nullptr;
    }
    const slot &found = slots_[place_of(key)];
    return found.key == key ? &found.updated_ms : nullptr;
}

// ---- When ----

base::result kernel_ages::open()
{
    const base::scoped_lock hold(mutex_);
    buffer_.resize(kernel_buffer_size);
    return kernel_socket_open(socket_);
}

void kernel_ages::note_size(uint32_t bridge, size_t entries)
{
    const base::scoped_lock hold(sizes_mutex_);
    if (sizes_.size() >= max_sizes) {
        sizes_.clear();
        sizes_sum_ = 0;
    }
    size_t &size = sizes_[bridge];
    sizes_sum_ += entries - size;
    size = entries;
}

void kernel_ages::forget_size(uint32_t bridge)
{
    const base::scoped_lock hold(sizes_mutex_);
    if (const auto known = sizes_.extract(bridge); !known.empty()) {
        sizes_sum_ -= known.mapped();
    }
}

size_t kernel_ages::size_of(uint32_t bridge)
{
    const base::scoped_lock hold(sizes_mutex_);
    const auto known = sizes_.find(bridge);
    return known != sizes_.end() ? known->second : 0;
}

size_t kernel_ages::sizes_sum()
{
    const base::scoped_lock hold(sizes_mutex_);
    return sizes_sum_;
}

void kernel_ages::note_questions(size_t count, int64_t ns)
{
    constexpr size_t min_questions = 64; // fewer do not show the cost of one
    if (count >= min_questions) {
        question_ns_ = ns / static_cast<int64_t>(count);
    }
}

bool kernel_ages::is_valid(const bridge_ages &of) const
{
    return of.taken.time_since_epoch().count() >= valid_from_ && clock::now() - of.taken < lifetime;
}

// Makes room for the tables of one more dump.
void kernel_ages::make_room()
{
    const auto now = clock::now();
    if (held_ <= max_held - max_dumped && now - swept_ < lifetime) {
        return;
    }
    swept_ = now;
    held_ = 0;
    std::erase_if(bridges_, [this, now](const auto &each) {
        return !is_valid(each.second) && now - each.second.asked.asked >= lifetime
               && now - each.second.gave_up >= pause;
    });
    for (auto &[bridge, ages] : bridges_) {
        if (!is_valid(ages) || held_ + ages.table.size() > max_held - max_dumped) {
            ages.table = {};
            ages.taken = {};
        }
        held_ += ages.table.size();
    }
}

// ---- Answers ----

void kernel_ages::answer(std::span<const fdb_key> keys, std::span<fdb_answer> answers)
{
    std::ranges::fill(answers, fdb_answer{});
    const base::scoped_lock hold(mutex_);
    while (!keys.empty()) {
        const fdb_key &first = keys.front();
        const auto differs = [&first](const fdb_key &each) {
            return each.holder != first.holder || each.self != first.self;
        };
        const auto count = static_cast<size_t>(std::ranges::find_if(keys, differs) - keys.begin());
        if (!first.self) {
            answer_bridge(keys.first(count), answers.first(count));
        }
        keys = keys.subspan(count);
        answers = answers.subspan(count);
    }
}

void kernel_ages::answer_bridge(std::span<const fdb_key> keys, std::span<fdb_answer> answers)
{
    const uint32_t bridge = keys.front().holder;
    bridge_ages &ages = bridges_[bridge];
    if (!refresh(bridge, ages, keys.size())) {
        return;
    }
    for (const fdb_key &key : keys) { // they lie anywhere in a table of up to 8 MB
        ages.table.prefetch(key.mac, key.vlan);
    }
    for (size_t at = 0; at < keys.size(); at++) {
        if (const int64_t *updated_ms = ages.table.find(keys[at].mac, keys[at].vlan)) {
            fdb_record &record = answers[at].record;
            answers[at].presence = fdb_presence::present;
            record.master = bridge;
            record.mac = keys[at].mac;
            record.vlan = keys[at].vlan;
            record.updated_ms = *updated_ms;
        }
    }
}

// Notes that a reader asks about `count` entries of a bridge, and dumps the bridge or all of them if that pays. Returns
// false if the bridge's ages are not valid.
//
// A dump that ended early is read to its end before the next one, one part for each call: the kernel runs only one dump
// at a time on a socket, and the socket cannot be made again, because the process may have left its network namespace.
bool kernel_ages::refresh(uint32_t bridge, bridge_ages &ages, size_t count)
{
    const auto now = clock::now();
    for (demand *each : {&all_, &ages.asked}) {
        each->entries = count + (now - each->asked < lifetime ? each->entries : 0);
        each->asked = now;
    }
    if (is_valid(ages)) {
        return true;
    }
    if (is_dumping_) {
        read_part();
        return false;
    }
    const size_t size = size_of(bridge);
    if (size > max_of_bridge) {
        return false;
    }
    const size_t size_of_all = sizes_sum();
    if (now - gave_up_ >= pause && size_of_all <= max_dumped && is_worth_a_dump(all_.entries, size_of_all)) {
        all_.entries = 0;
        gave_up_ = ages.gave_up = dump(kernel_scope::entries, 0, size_of_all) ? clock::time_point() : now;
    } else if (now - ages.gave_up >= pause && is_worth_a_dump(ages.asked.entries, size)) {
        ages.asked.entries = 0;
        ages.gave_up = dump(kernel_scope::bridge, bridge, size) ? clock::time_point() : now;
        note_size(bridge, ages.table.size());
    }
    return is_valid(ages);
}

// ---- Dumps ----

// `size` is the number of entries that the dump should bring. Returns false if questions about the entries that it
// brought would have been cheaper.
bool kernel_ages::dump(kernel_scope scope, uint32_t bridge, size_t size)
{
    make_room();
    alignas(uint32_t) std::byte request[kernel_request_size];
    began_ = clock::now();
    added_ = 0;
    const size_t length = kernel_put_dump(request, ++sequence_, scope, bridge);
    const int64_t max_ns = std::max(min_cost_ns, max_cost * question_ns_ * static_cast<int64_t>(size));
    const int64_t began_ns = thread_time_ns();
    int64_t took_ns = 0;
    is_dumping_ = kernel_socket_send(socket_, std::span(request).first(length));
    while (is_dumping_ && took_ns < max_ns && added_ < max_dumped) {
        read_part();
        took_ns = thread_time_ns() - began_ns;
    }
    return took_ns < std::max(min_cost_ns, question_ns_ * static_cast<int64_t>(added_));
}

void kernel_ages::read_part()
{
    std::span<const std::byte> datagram;
    switch (kernel_socket_read(socket_, buffer_, datagram)) {
    case kernel_read::datagram: take_part(datagram); break;
    // The kernel makes the next part while one is read. If none is there, or one was lost, the end may never come.
    case kernel_read::empty:
    case kernel_read::overrun:
    case kernel_read::truncated: is_dumping_ = false; break;
    case kernel_read::refused: break;
    }
}

// Entries of an interrupted dump are as true as those of any other. Entries that it skipped are asked about.
void kernel_ages::take_part(std::span<const std::byte> part)
{
    aged_entries entries;
    for (const kernel_clock now = kernel_clock_now(); kernel_decode(part, now, message_);) {
        if (message_.sequence != sequence_) {
            continue;
        }
        const bool is_end = message_.kind == kernel_message_kind::done || message_.kind == kernel_message_kind::error;
        is_dumping_ = is_dumping_ && !is_end;
        const fdb_record &record = message_.fdb;
        if (message_.kind != kernel_message_kind::fdb_changed || record.master == 0 || record.self) {
            continue;
        }
        if (entries.count == entries.all.size() || record.master != entries.bridge) {
            take(entries);
        }
        entries.bridge = record.master;
        entries.all[entries.count++] = {record.mac, record.vlan, record.updated_ms};
    }
    take(entries);
}

// Adds the entries to their bridge's table, and removes them from the list. Slots lie anywhere in a table of up to
// 8 MB, so the processor fetches all of them at once.
void kernel_ages::take(aged_entries &entries)
{
    if (entries.count == 0) {
        return;
    }
    age_table &table = table_of_dump(entries.bridge);
    const auto all = std::span(entries.all).first(std::exchange(entries.count, 0));
    const size_t before = table.size();
    for (const aged_entry &entry : all) {
        table.prefetch(entry.mac, entry.vlan);
    }
    for (const aged_entry &entry : all) {
        table.put(entry.mac, entry.vlan, entry.updated_ms);
    }
    held_ += table.size() - before;
    added_ += table.size() - before;
}

// Returns the table for the latest dump's entries of a bridge. The first call in a dump drops the older entries.
age_table &kernel_ages::table_of_dump(uint32_t bridge)
{
    bridge_ages &ages = bridges_[bridge];
    if (ages.taken != began_) {
        held_ -= ages.table.size();
        ages.table = {};
        ages.table.reserve(std::min(size_of(bridge), max_dumped));
        ages.taken = began_;
    }
    return ages.table;
}

} // namespace forwarding
