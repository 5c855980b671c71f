// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/full_dump.h"

#include <algorithm>
#include <utility>

namespace forwarding {

namespace {

// How many dumps of one scope a full dump requests, so that it ends on a bridge where every dump is torn.
constexpr uint32_t max_attempts = 8;

constexpr size_t max_changed = size_t{1} << 20; // keys that a window keeps; about 100 MB
constexpr size_t anchor_distance = 8;           // every eighth entry of a part is an anchor
constexpr uint32_t unknown_place = UINT32_MAX;

// The kernel ends a part when the next entry does not fit into a page (4096 bytes) or more. So a shorter part is the
// last one, and nothing can have been skipped behind it.
constexpr size_t min_full_part = 3072;

// ---- Gaps ----

// Returns whether the dump went back: if more entries were added than deleted, the next part begins with entries that
// were reported already, and nothing was skipped.
bool has_gone_back(const dump_proof &proof, const fdb_key &key)
{
    return std::find(proof.part_before.begin(), proof.part_before.end(), key) != proof.part_before.end();
}

void tear(dump_proof &proof)
{
    proof.maybe_torn = false;
    proof.tears++;
    proof.since = unknown_place;
    if (!proof.first_ended) {
        proof.gaps.push_back(true);
    }
}

// The dump has come to a place with `gaps` gaps before it, and closes every gap since its untorn run began. There are
// none if the dump went back, or if the run began at an unknown place.
void reach(dump_proof &proof, uint32_t gaps)
{
    for (uint32_t gap = proof.since; gap < gaps; gap++) {
        proof.gaps[gap] = false;
    }
    proof.since = gaps;
}

void begin_dump(dump_proof &proof)
{
    proof.tears = 0;
    proof.since = 0;
    proof.maybe_torn = false;
    proof.part.clear();
    proof.part_before.clear();
    std::fill(std::begin(proof.deletions_before), std::end(proof.deletions_before), proof.deletions);
}

// Returns whether the dumps so far have reported every entry.
bool end_dump(dump_proof &proof)
{
    if (proof.maybe_torn) {
        tear(proof);
    }
    if (std::exchange(proof.first_ended, true)) {
        reach(proof, static_cast<uint32_t>(proof.gaps.size()));
    }
    return proof.tears == 0 || std::find(proof.gaps.begin(), proof.gaps.end(), true) == proof.gaps.end();
}

} // namespace

// ---- Dumps ----

void full_dump_begin(full_dump &dump, const dump_request &first)
{
    dump = {};
    dump.running = true;
    dump.covers_everything = first.scope == kernel_scope::links;
    dump.waiting.push_back(first);
}

bool full_dump_next(full_dump &dump)
{
    if (dump.waiting.empty()) {
        return false;
    }
    dump.current = dump.waiting.front();
    dump.waiting.pop_front();
    dump.attempts = 0;
    dump.proof = {};
    return true;
}

void full_dump_open_window(full_dump &dump)
{
    dump.attempts++;
    dump.disturbed = false;
    dump.changed.clear();
    dump.changed_links.clear();
    dump.changed_vnis.clear();
    dump.gone_next_hops.clear();
    dump.is_unbounded = false;
    begin_dump(dump.proof);
}

// Decides whether the boundary behind this part may be torn. The kernel makes part n + 1 while part n is received, and
// made part n after the end of part n - 2. So deletions that can tear the boundary between them came after the end of
// part n - 2, and are counted by now.
void full_dump_end_part(full_dump &dump, size_t length)
{
    dump_proof &proof = dump.proof;
    proof.maybe_torn |= length >= min_full_part && proof.deletions != proof.deletions_before[0];
    proof.deletions_before[0] = std::exchange(proof.deletions_before[1], proof.deletions);
    if (!proof.part.empty()) {
        proof.part_before = std::exchange(proof.part, {});
    }
}

bool full_dump_close_window(full_dump &dump)
{
    if (dump.disturbed) {
        dump.proof = {};
        return false;
    }
    return end_dump(dump.proof);
}

bool full_dump_may_repeat(const full_dump &dump)
{
    return dump.attempts < max_attempts;
}

// ---- Notifications ----

void full_dump_note_changed(full_dump &dump, const fdb_key &key)
{
    if (!dump.running) {
        return;
    }
    dump.proof.anchors.erase(key); // the entry may have another place now
    if (dump.is_unbounded) {
        return;
    }
    dump.changed.insert(key);
    if (dump.changed.size() > max_changed) {
        dump.changed.clear();
        dump.is_unbounded = true;
        dump.disturbed = true;
    }
}

void full_dump_note_gone(full_dump &dump, const fdb_record &record, uint32_t bridge)
{
    full_dump_note_changed(dump, key_of(record));
    const dump_request &current = dump.current;
    const bool of_bridge = bridge != 0 && bridge == current.bridge;
    const bool of_device = record.ifindex == current.ifindex && current.scope != kernel_scope::port_vlans;
    dump.proof.deletions += of_bridge || of_device ? 1 : 0;
}

void full_dump_note_link(full_dump &dump, uint32_t ifindex)
{
    if (dump.running) {
        dump.changed_links.insert(ifindex);
    }
}

void full_dump_note_vlan_vnis(full_dump &dump, uint32_t ifindex)
{
    if (dump.running) {
        dump.changed_vnis.insert(ifindex);
    }
}

void full_dump_note_port_left(full_dump &dump, uint32_t bridge)
{
    dump.proof.deletions += bridge == dump.current.bridge ? 1 : 0;
}

void full_dump_note_next_hop_gone(full_dump &dump, uint32_t id)
{
    if (dump.running) {
        dump.gone_next_hops.insert(id);
        dump.proof.deletions++; // the devices of the deleted entries are unknown
    }
}

// ---- Records of the dump ----

bool full_dump_believes(const full_dump &dump, const fdb_record &record)
{
    const bool went_with_next_hop = record.destination.kind == destination_kind::next_hop
                                    && dump.gone_next_hops.contains(record.destination.next_hop);
    return !dump.is_unbounded && !went_with_next_hop && !dump.changed.contains(key_of(record));
}

bool full_dump_believes_link(const full_dump &dump, uint32_t ifindex)
{
    return !dump.changed_links.contains(ifindex);
}

bool full_dump_believes_vlan_vnis(const full_dump &dump, uint32_t ifindex)
{
    return !dump.changed_vnis.contains(ifindex);
}

// Two kinds of entries prove nothing about the order: local addresses, which may pass to another device without a
// notification, and flood lists, in which one key may come twice.
void full_dump_note_reported(full_dump &dump, const fdb_record &record)
{
    dump_proof &proof = dump.proof;
    const bool is_local = !record.self && (record.state & fdb_permanent) != 0;
    if (is_local || record.mac == mac_address{}) {
        return;
    }
    const fdb_key key = key_of(record);
    if (proof.maybe_torn && !has_gone_back(proof, key)) {
        tear(proof);
    }
    proof.maybe_torn = false;
    if (!proof.first_ended) {
        if (proof.part.size() % anchor_distance == 0) {
            proof.anchors.try_emplace(key, static_cast<uint32_t>(proof.gaps.size()));
        }
    } else if (const auto anchor = proof.anchors.find(key); anchor != proof.anchors.end()) {
        reach(proof, anchor->second);
    }
    proof.part.push_back(key);
}

} // namespace forwarding
