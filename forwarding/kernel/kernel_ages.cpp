// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/kernel_ages.h"

#include <algorithm>
#include <utility>

#include "forwarding/kernel/kernel_request.h"
#include "forwarding/kernel/thread_time.h"

namespace forwarding {

namespace {

// A dump pays after questions about this share of a bridge's entries, because readers usually read the rest, too. It
// then wastes little if they do not.
constexpr size_t dump_share = 16;
constexpr size_t least_demand = 16; // entries

// How far the cost of a dump may exceed the cost of questions about the entries that it has brought so far, in
// nanoseconds: a few parts of a dump, which differ.
constexpr int64_t allowed_loss_ns = 2'000'000;

constexpr size_t least_slots = 64;

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

// Returns the slot of the key, or the free one where it belongs. There must be a free one.
size_t age_table::place_of(uint64_t key) const
{
    constexpr uint64_t multiplier = 0x9e3779b97f4a7c15; // 2^64 divided by the golden ratio, which spreads numbers
    constexpr unsigned high_half = 32;
    size_t place = (key * multiplier >> high_half) & (slots_.size() - 1);
    while (slots_[place].key != 0 && slots_[place].key != key) {
        place = (place + 1) & (slots_.size() - 1);
    }
    return place;
}

void age_table::grow()
{
    const std::vector<slot> old = std::exchange(slots_, std::vector<slot>(std::max(least_slots, 2 * slots_.size())));
    for (const slot &each : old) {
        if (each.key != 0) {
            slots_[place_of(each.key)] = each;
        }
    }
}

void age_table::put(const mac_address &mac, uint16_t vlan, int64_t updated_ms)
{
    if (2 * size_ >= slots_.size()) {
        grow();
    }
    const uint64_t key = key_of_entry(mac, vlan);
    if (key == 0) {
        return;
    }
    slot &to = slots_[place_of(key)];
    size_ += to.key == 0 ? 1 : 0;
    to = {key, updated_ms};
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
    if (sizes_.size() >= most_sizes) {
        sizes_.clear();
    }
    sizes_[bridge] = entries;
}

void kernel_ages::note_questions(size_t count, int64_t ns)
{
    constexpr size_t least = 64; // fewer do not show the cost of one
    if (count >= least) {
        question_ns_ = ns / static_cast<int64_t>(count);
    }
}

bool kernel_ages::is_valid(const bridge_ages &of) const
{
    return of.taken.time_since_epoch().count() >= valid_from_ && clock::now() - of.taken < lifetime;
}

bool kernel_ages::is_worth_a_dump(uint32_t bridge, const bridge_ages &of)
{
    const base::scoped_lock hold(sizes_mutex_);
    const auto known = sizes_.find(bridge);
    const size_t size = known != sizes_.end() ? known->second : 0;
    return size <= most_dumped && of.demand >= std::max(least_demand, size / dump_share);
}

// Makes room for the table of one more bridge.
void kernel_ages::make_room()
{
    const auto now = clock::now();
    if (held_ <= most_held - most_dumped && now - swept_ < lifetime) {
        return;
    }
    swept_ = now;
    held_ = 0;
    std::erase_if(bridges_, [this, now](const auto &each) {
        return !is_valid(each.second) && now - each.second.asked >= lifetime;
    });
    for (auto &[bridge, ages] : bridges_) {
        if (!is_valid(ages) || held_ + ages.table.size() > most_held - most_dumped) {
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
    const auto now = clock::now();
    bridge_ages &ages = bridges_[bridge];
    if (!is_valid(ages)) {
        ages.demand = keys.size() + (now - ages.asked < lifetime ? ages.demand : 0);
        ages.asked = now;
        if (!is_worth_a_dump(bridge, ages)) {
            return;
        }
        make_room();
        dump(bridge, ages);
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

// ---- Dumps ----

// A dump that ended early is read to its end before the next one, one part for each call: the kernel runs only one dump
// at a time on a socket, and the socket cannot be made again, because the process may have left its network namespace.
void kernel_ages::dump(uint32_t bridge, bridge_ages &to)
{
    to.demand = 0;
    to.table = {};
    if (is_dumping_) {
        read_part(0, to.table);
        return;
    }
    alignas(uint32_t) std::byte request[kernel_request_size];
    to.taken = clock::now();
    const size_t length = kernel_put_dump(request, ++sequence_, kernel_scope::bridge, bridge);
    is_dumping_ = kernel_socket_send(socket_, std::span(request).first(length));
    int64_t saved_ns = allowed_loss_ns; // by not asking about the entries
    while (is_dumping_ && saved_ns >= 0 && to.table.size() < most_dumped) {
        const int64_t began_ns = thread_time_ns();
        const size_t before = to.table.size();
        read_part(bridge, to.table);
        saved_ns += static_cast<int64_t>(to.table.size() - before) * question_ns_ - (thread_time_ns() - began_ns);
    }
    held_ += to.table.size();
    note_size(bridge, is_dumping_ ? SIZE_MAX : to.table.size());
}

void kernel_ages::read_part(uint32_t bridge, age_table &to)
{
    std::span<const std::byte> datagram;
    switch (kernel_socket_read(socket_, buffer_, datagram)) {
    case kernel_read::datagram: take_part(datagram, bridge, to); break;
    // The kernel makes the next part while one is read. If none is there, or one was lost, the end may never come.
    case kernel_read::empty:
    case kernel_read::overrun:
    case kernel_read::truncated: is_dumping_ = false; break;
    case kernel_read::refused: break;
    }
}

// Entries of an interrupted dump are as true as those of any other. Entries that it skipped are asked about.
void kernel_ages::take_part(std::span<const std::byte> part, uint32_t bridge, age_table &to)
{
    for (const kernel_clock now = kernel_clock_now(); kernel_decode(part, now, message_);) {
        if (message_.sequence != sequence_) {
            continue;
        }
        const bool is_end = message_.kind == kernel_message_kind::done || message_.kind == kernel_message_kind::error;
        is_dumping_ = is_dumping_ && !is_end;
        if (message_.kind == kernel_message_kind::fdb_changed && message_.fdb.master == bridge && !message_.fdb.self) {
            to.put(message_.fdb.mac, message_.fdb.vlan, message_.fdb.updated_ms);
        }
    }
}

} // namespace forwarding
