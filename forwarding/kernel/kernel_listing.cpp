// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/kernel_listing.h"

#include <algorithm>
#include <span>
#include <utility>

namespace forwarding {

namespace {

constexpr uint32_t most_attempts = 8;
constexpr size_t most_changed = size_t{1} << 20;
constexpr size_t anchor_distance = 8;
constexpr uint32_t nowhere = UINT32_MAX;

// The kernel ends a part when nothing more fits into a page, or into more; a shorter one was ended by the end.
constexpr size_t least_full_part = 3072;

// ---- Gaps

// When more was added than deleted the dump goes back instead, and begins a part with what it has told already: nothing
// was skipped.
bool has_gone_back(const kernel_dump_proof &proof, const fdb_key &key)
{
    return std::find(proof.part_before.begin(), proof.part_before.end(), key) != proof.part_before.end();
}

void tear(kernel_dump_proof &proof)
{
    proof.torn = false;
    proof.tears++;
    proof.since = nowhere;
    if (!proof.whole) {
        proof.gaps.push_back(true);
    }
}

// The dump has told, without a torn boundary, all from `since` to what stands behind the first `gaps` gaps.
void reach(kernel_dump_proof &proof, uint32_t gaps)
{
    for (uint32_t gap = proof.since; gap < gaps; gap++) { // none when it has gone back, or since nowhere
        proof.gaps[gap] = false;
    }
    proof.since = gaps;
}

void begin_dump(kernel_dump_proof &proof)
{
    proof.tears = 0;
    proof.since = 0;
    proof.torn = false;
    proof.part.clear();
    proof.part_before.clear();
    std::fill(std::begin(proof.deletions_before), std::end(proof.deletions_before), proof.deletions);
}

// True: nothing can have been missed.
bool end_dump(kernel_dump_proof &proof)
{
    if (proof.torn) {
        tear(proof);
    }
    if (std::exchange(proof.whole, true)) {
        reach(proof, static_cast<uint32_t>(proof.gaps.size()));
    }
    return proof.tears == 0 || std::find(proof.gaps.begin(), proof.gaps.end(), true) == proof.gaps.end();
}

} // namespace

// ---- Dumps

void listing_begin(kernel_listing &listing, const kernel_dump &first)
{
    listing = {};
    listing.running = true;
    listing.whole = first.scope == kernel_scope::links;
    listing.waiting.push_back(first);
}

bool listing_next(kernel_listing &listing)
{
    if (listing.waiting.empty()) {
        return false;
    }
    listing.current = listing.waiting.front();
    listing.waiting.pop_front();
    listing.attempts = 0;
    listing.proof = {};
    return true;
}

void listing_open_window(kernel_listing &listing)
{
    listing.attempts++;
    listing.disturbed = false;
    listing.changed.clear();
    listing.changed_links.clear();
    listing.changed_vnis.clear();
    listing.gone_next_hops.clear();
    listing.unbounded = false;
    begin_dump(listing.proof);
}

// The kernel makes the next part while one is received. What was deleted between the making of a part and of the next
// one was notified, therefore, after the end of the part before it, and is read by now.
void listing_end_part(kernel_listing &listing, size_t length)
{
    kernel_dump_proof &proof = listing.proof;
    proof.torn |= length >= least_full_part && proof.deletions != proof.deletions_before[0];
    proof.deletions_before[0] = std::exchange(proof.deletions_before[1], proof.deletions);
    if (!proof.part.empty()) {
        proof.part_before = std::exchange(proof.part, {});
    }
}

bool listing_close_window(kernel_listing &listing)
{
    if (listing.disturbed) {
        listing.proof = {};
        return false;
    }
    return end_dump(listing.proof);
}

bool listing_may_repeat(const kernel_listing &listing)
{
    return listing.attempts < most_attempts;
}

// ---- Notifications

void listing_note_changed(kernel_listing &listing, const fdb_key &key)
{
    if (!listing.running) {
        return;
    }
    listing.proof.anchors.erase(key); // it may stand elsewhere now
    if (listing.unbounded) {
        return;
    }
    listing.changed.insert(key);
    if (listing.changed.size() > most_changed) {
        listing.changed.clear();
        listing.unbounded = true;
        listing.disturbed = true;
    }
}

void listing_note_gone(kernel_listing &listing, const fdb_record &record, uint32_t bridge)
{
    listing_note_changed(listing, key_of(record));
    const kernel_dump &current = listing.current;
    const bool of_bridge = bridge != 0 && bridge == current.bridge;
    listing.proof.deletions += of_bridge || record.ifindex == current.ifindex ? 1 : 0;
}

void listing_note_link(kernel_listing &listing, uint32_t ifindex)
{
    if (listing.running) {
        listing.changed_links.insert(ifindex);
    }
}

void listing_note_port_left(kernel_listing &listing, uint32_t bridge)
{
    listing.proof.deletions += bridge == listing.current.bridge ? 1 : 0;
}

void listing_note_next_hop_gone(kernel_listing &listing, uint32_t id)
{
    if (listing.running) {
        listing.gone_next_hops.insert(id);
        listing.proof.deletions++; // on which devices is not known
    }
}

bool listing_believes(const kernel_listing &listing, const fdb_record &record)
{
    const bool went_with_next_hop = record.destination.kind == destination_kind::next_hop
                                    && listing.gone_next_hops.contains(record.destination.next_hop);
    return !listing.unbounded && !went_with_next_hop && !listing.changed.contains(key_of(record));
}

bool listing_believes_link(const kernel_listing &listing, uint32_t ifindex)
{
    return !listing.changed_links.contains(ifindex);
}

void listing_note_vlan_vnis(kernel_listing &listing, uint32_t ifindex)
{
    if (listing.running) {
        listing.changed_vnis.insert(ifindex);
    }
}

bool listing_believes_vlan_vnis(const kernel_listing &listing, uint32_t ifindex)
{
    return !listing.changed_vnis.contains(ifindex);
}

// Local addresses may pass to another device unnotified, and a flood list may tell one key twice: these show nothing of
// the order.
void listing_note_told(kernel_listing &listing, const fdb_record &record)
{
    kernel_dump_proof &proof = listing.proof;
    const bool is_local = !record.self && (record.state & fdb_permanent) != 0;
    if (is_local || record.mac == mac_address{}) {
        return;
    }
    const fdb_key key = key_of(record);
    if (proof.torn && !has_gone_back(proof, key)) {
        tear(proof);
    }
    proof.torn = false;
    if (!proof.whole) {
        if (proof.part.size() % anchor_distance == 0) {
            proof.anchors.try_emplace(key, static_cast<uint32_t>(proof.gaps.size()));
        }
    } else if (const auto anchor = proof.anchors.find(key); anchor != proof.anchors.end()) {
        reach(proof, anchor->second);
    }
    proof.part.push_back(key);
}

} // namespace forwarding
