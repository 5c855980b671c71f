// SPDX-License-Identifier: Apache-2.0

#include "forwarding/recorded/entries.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <string_view>

namespace forwarding {

namespace {

constexpr uint32_t no_age = UINT32_MAX;
constexpr int64_t ms_per_second = 1000;

} // namespace

int64_t recorded_entries::steady_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Mixes the members in which kinds differ most. The others only make kinds collide.
size_t recorded_entries::kind_hash::operator()(const fdb_record &kind) const
{
    const auto &address = kind.destination.address;
    const std::string_view bytes(reinterpret_cast<const char *>(address.data()), address.size());
    size_t hash = std::hash<std::string_view>()(bytes);
    for (const uint32_t part : {kind.ifindex, uint32_t{kind.vlan}, kind.source_vni, kind.destination.next_hop,
                                kind.destination.vni, uint32_t{kind.self}}) {
        constexpr size_t multiplier = 0x9e3779b97f4a7c15; // 2^64 divided by the golden ratio, which spreads numbers
        hash = (hash ^ part) * multiplier;
        hash ^= hash >> 32U;
    }
    return hash;
}

void recorded_entries::add(const fdb_record &record, std::optional<uint32_t> age)
{
    fdb_record kind = record;
    kind.mac = {};
    kind.updated_ms = 0;
    const auto [found, is_new] = kind_numbers_.try_emplace(kind, static_cast<uint32_t>(kinds_.size()));
    if (is_new) {
        kinds_.push_back(kind);
    }
    entries_.push_back({record.mac, found->second, age.value_or(no_age)});
}

// Kinds whose keys differ only in the destination get the same rank, because the address comes first in a key's order.
void recorded_entries::rank_kinds()
{
    const auto key = [this](uint32_t kind) {
        fdb_key prefix = key_of(kinds_[kind]);
        prefix.destination = {};
        return prefix;
    };
    std::vector<uint32_t> order(kinds_.size());
    std::iota(order.begin(), order.end(), 0U);
    std::ranges::sort(order, {}, key);
    ranks_.resize(kinds_.size());
    for (size_t at = 1; at < order.size(); at++) {
        ranks_[order[at]] = ranks_[order[at - 1]] + (key(order[at - 1]) < key(order[at]) ? 1 : 0);
    }
}

bool recorded_entries::comes_before(const entry &left, const entry &right) const
{
    if (const uint32_t ranks[] = {ranks_[left.kind], ranks_[right.kind]}; ranks[0] != ranks[1]) {
        return ranks[0] < ranks[1];
    }
    if (left.mac != right.mac) {
        return left.mac < right.mac;
    }
    const bool is_flood_list = left.mac == mac_address{} && kinds_[left.kind].self;
    return is_flood_list && kinds_[left.kind].destination < kinds_[right.kind].destination;
}

void recorded_entries::sort()
{
    kind_numbers_ = {};
    kinds_.shrink_to_fit();
    entries_.shrink_to_fit();
    rank_kinds();
    std::ranges::stable_sort(entries_,
                             [this](const entry &left, const entry &right) { return comes_before(left, right); });
}

fdb_record recorded_entries::at(size_t place) const
{
    const entry &found = entries_[place];
    fdb_record record = kinds_[found.kind];
    record.mac = found.mac;
    record.updated_ms = found.age != no_age ? made_ms_ - ms_per_second * found.age : 0;
    return record;
}

std::optional<fdb_record> recorded_entries::find(const fdb_key &key) const
{
    const auto key_at = [this](const entry &each) { return key_of(at(static_cast<size_t>(&each - entries_.data()))); };
    const auto found = std::ranges::lower_bound(entries_, key, {}, key_at);
    if (found == entries_.end() || key_at(*found) != key) {
        return std::nullopt;
    }
    return at(static_cast<size_t>(found - entries_.begin()));
}

} // namespace forwarding
