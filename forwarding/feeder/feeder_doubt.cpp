// SPDX-License-Identifier: Apache-2.0

// The part of the feeder that asks the plane about doubtful entries, proves the shadow table, and says how complete
// answers are.
//
//      full dump ended clean without the entry --+
//      next hop of the entry deleted ------------+--> doubtful_ --> query --> absent:  the entry is removed
//                      +-------------------------+                   |        present: the entry is kept and updated
//                      |                                             |
//                      +------------- unknown: asked again ----------+
//
// If the plane does not know about one of many destinations, a clean full dump decides instead (see resolve). When
// doubtful_ is empty after a clean full dump, the shadow table is proven.
//
// Threads: the cache thread, without the table lock. Any thread may call `state` and `reason`.
#include <algorithm>
#include <ctime>
#include <utility>

#include "forwarding/feeder/feeder.h"
#include "host/event/event_host.h"

namespace forwarding {
namespace {

// Pause after a round in which the plane answered no question, so that the feeder does not ask without a break.
constexpr uint64_t ask_again_ns = 1'000'000'000;

// True for a device's own entry with the zero or a group address, which may have many destinations. The plane's answer
// names only the first destination, so it does not decide about the others.
bool is_of_flood_list(const fdb_record &record)
{
    return record.self && (record.mac[0] & 1U || record.mac == mac_address{});
}

std::string plural(uint64_t count, const char *what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "y" : "ies");
}

} // namespace

// ---- Before an entry is settled ----

// True if the feeder asks the plane before it settles the entry: its reports may be in the wrong order, or its return
// may be among the lost changes.
bool feeder::is_questionable(uint32_t at) const
{
    const shadow_entry &entry = shadow_.entries[at];
    const bool may_be_back =
        !entry.alive && !entry.surely_gone && entry.fed_xcid != 0 && state() == completeness::degraded;
    return entry.contested || may_be_back;
}

// Asks the plane about the questionable ones among the dirty entries from the first unsettled one up to `end`.
void feeder::ask_about_slice(size_t end)
{
    std::vector<uint32_t> asked;
    std::vector<fdb_key> keys;
    for (size_t at = settled_; at < end; at++) {
        if (is_questionable(dirty_[at])) {
            asked.push_back(dirty_[at]);
            keys.push_back(key_of(shadow_.entries[dirty_[at]].record));
        }
    }
    if (keys.empty()) {
        return;
    }
    std::vector<fdb_answer> answers(keys.size());
    plane_.query(keys, answers);
    asked_ += keys.size();
    for (size_t at = 0; at < keys.size(); at++) {
        shadow_.entries[asked[at]].contested = false;
        take_answer(asked[at], answers[at]);
    }
}

// True if the entry's device still exists and has the same master. The entry can then return without a new port.
bool feeder::may_stand(const fdb_record &record) const
{
    const shadow_link *on = shadow_.find_link(record.ifindex);
    const bool is_own = record.self || record.ifindex == record.master;
    return on != nullptr && (is_own || on->record.master == record.master);
}

// Corrects the shadow table by the plane's answer. An entry that was reported gone returns if the plane holds it. While
// answers are degraded it also returns if the plane does not know: the next clean full dump decides. That return is no
// report, so the entry keeps the number of the full dump that reported it last.
void feeder::take_answer(uint32_t at, const fdb_answer &answer)
{
    shadow_entry &entry = shadow_.entries[at];
    if (answer.presence == fdb_presence::absent) {
        if (entry.alive) {
            remove_surely(at);
        }
        return;
    }
    if (answer.presence == fdb_presence::present && shadow_.find_link(answer.record.ifindex) != nullptr) {
        kept_ += entry.alive ? 0 : 1;
        shadow_.fdb_changed(answer.record);
    } else if (!entry.alive && state() == completeness::degraded && may_stand(entry.record)) {
        kept_++;
        const uint32_t generation = entry.generation;
        shadow_.fdb_changed(fdb_record(entry.record));
        entry.generation = generation;
    }
    entry.contested = false;
}

// Removes an entry that the plane does not hold. `surely_gone` keeps the feeder from asking again before it settles the
// entry.
void feeder::remove_surely(uint32_t at)
{
    shadow_.remove(at);
    shadow_.entries[at].surely_gone = true;
    shadow_.entries[at].contested = false;
}

// ---- The queue of doubtful entries ----

// A clean full dump did not report the entry.
void feeder::entry_unreported(uint32_t at)
{
    begin_doubt();
    doubt(at);
}

void feeder::next_hop_gone(uint32_t id)
{
    if (foreign_[static_cast<size_t>(destination_kind::next_hop)] != 0) {
        gone_next_hops_.insert(id);
        doubt_later();
    }
}

void feeder::doubt(uint32_t at)
{
    if (!shadow_.entries[at].doubtful) {
        shadow_.entries[at].doubtful = true;
        doubtful_.push_back(at);
        doubt_later();
    }
}

// Schedules the next round of questions, unless one is already scheduled.
void feeder::doubt_later()
{
    if (!doubt_expected_) {
        doubt_expected_ = host::event_post(evm_, call<&feeder::resolve_doubts>, nullptr, this) == 0;
    }
}

// Queues the entries that deliver to a deleted next hop, because the plane may report none of them gone.
void feeder::doubt_next_hops()
{
    if (gone_next_hops_.empty()) {
        return;
    }
    const std::set<uint32_t> gone = std::exchange(gone_next_hops_, {});
    shadow_.for_each_entry([&](uint32_t at) {
        const fdb_destination &to = shadow_.entries[at].record.destination;
        if (to.kind == destination_kind::next_hop && gone.contains(to.next_hop)) {
            doubt(at);
        }
    });
}

// One round of questions about queued entries. While entries remain, another round follows: at once if this one learned
// something or left queued entries unasked, otherwise after ask_again_ns. In the second case a full dump is requested
// too, unless one is being proven.
void feeder::resolve_doubts()
{
    doubt_next_hops();
    std::vector<uint32_t> slots;
    std::vector<fdb_key> keys;
    while (keys.size() < query_batch && !doubtful_.empty()) {
        const uint32_t at = doubtful_.front();
        doubtful_.pop_front();
        if (shadow_.entries[at].doubtful && shadow_.entries[at].alive) {
            slots.push_back(at);
            keys.push_back(key_of(shadow_.entries[at].record));
        }
        shadow_.entries[at].doubtful = false;
    }
    std::vector<fdb_answer> answers(keys.size());
    plane_.query(keys, answers);
    asked_ += keys.size();
    const size_t left = doubtful_.size();
    for (size_t at = 0; at < keys.size(); at++) {
        resolve(slots[at], answers[at]);
    }
    const bool has_learned = left != 0 || doubtful_.size() < keys.size();
    uint32_t timer = 0;
    doubt_expected_ =
        !doubtful_.empty()
        && (has_learned ? host::event_post(evm_, call<&feeder::resolve_doubts>, nullptr, this)
                        : host::event_timer_attach(evm_, ask_again_ns, 0, call<&feeder::resolve_doubts>, this, &timer))
               == 0;
    if (doubtful_.empty()) {
        end_proof();
    } else if (!has_learned && !is_proving_) {
        plane_.request_full_dump();
    }
}

// Removes, keeps or queues an entry again, by the plane's answer. The plane does not know about each of many
// destinations. While a clean full dump is being proven, that dump decides about them. Such an entry lives if the dump
// or a later change reported it, and is gone otherwise.
void feeder::resolve(uint32_t at, const fdb_answer &answer)
{
    const shadow_entry &entry = shadow_.entries[at];
    const bool is_unknown = answer.presence == fdb_presence::unknown;
    const bool is_decided = is_unknown && is_proving_ && is_of_flood_list(entry.record);
    const bool is_unlisted = static_cast<int32_t>(entry.generation - proof_generation_) < 0;
    if (answer.presence == fdb_presence::absent || (is_decided && is_unlisted)) {
        listed_stale_ += is_proving_ ? 1 : 0;
        stale_in_proof_ += is_proving_ ? 1 : 0;
        remove_surely(at);
    } else if (is_unknown && !is_decided) {
        begin_doubt();
        shadow_.entries[at].doubtful = true;
        doubtful_.push_back(at);
    } else {
        kept_++;
        if (!is_unknown && shadow_.find_link(answer.record.ifindex) != nullptr) {
            shadow_.fdb_changed(answer.record);
        }
    }
}

// ---- Proof by a full dump ----

void feeder::changes_lost(uint64_t count)
{
    lost_since_whole_ += count;
    if (!std::exchange(has_reported_loss_, true)) {
        report(severity::warning, "lost " + (count != 0 ? std::to_string(count) : std::string("an unknown number of"))
                                      + " changes of the forwarding plane (receive buffer overrun); answers are marked "
                                        "degraded until a full dump has proven the table");
    }
    begin_doubt();
    follow_state();
}

void feeder::full_dump_begun()
{
    listed_only_.clear();
    was_clean_ = state() != completeness::degraded;
    if (!plane_.health().clean) {
        begin_doubt();
    }
    stale_in_proof_ = 0;
    missing_in_proof_ = 0;
}

// A full dump reported an entry that the shadow table did not hold so. In the first full dump this is normal.
void feeder::full_dump_differs(uint32_t at)
{
    if (listed_) {
        listed_only_.push_back(at);
    }
}

// Counts the entries that only the full dump reported. A change that was in flight when the dump read its entry has
// cleared listed_only by now, so it does not count.
void feeder::full_dump_ended(bool clean)
{
    for (const uint32_t at : std::exchange(listed_only_, {})) {
        missing_in_proof_ += shadow_.entries[at].alive && shadow_.entries[at].listed_only ? 1U : 0U;
    }
    listed_missing_ += missing_in_proof_;
    listed_ = true;
    links_ = shadow_.known_links;
    entries_ = shadow_.living;
    is_proving_ = clean;
    proof_generation_ = shadow_.generation();
    if (!plane_.health().clean) { // an unclean proof leaves the plane clean: the shadow table is as good as before
        begin_doubt();
    }
    if (doubtful_.empty()) {
        end_proof();
    }
    if (!waiting_.empty()) {
        host::event_post(evm_, call<&feeder::serve_waiting>, nullptr, this);
    }
}

// No entry is in doubt any more. If a clean full dump led here, the table is proven. Otherwise answers stay degraded,
// and a full dump is requested if the plane is clean.
void feeder::end_proof()
{
    if (!std::exchange(is_proving_, false)) {
        if (is_unproven_ && plane_.health().clean) {
            plane_.request_full_dump();
        }
        return;
    }
    proven_time_ = std::time(nullptr);
    if (was_clean_ && (stale_in_proof_ != 0 || missing_in_proof_ != 0)) {
        report(severity::warning,
               "a full dump has found what no change had reported: " + plural(stale_in_proof_, "stale entr") + ", "
                   + plural(missing_in_proof_, "missing entr") + "; mended");
    }
    if (plane_.health().clean) {
        is_unproven_ = false;
    }
    follow_state();
}

// If answers are degraded, requests the next full dump without the plane's longer pauses.
void feeder::hasten_proof()
{
    if (state() == completeness::degraded) {
        plane_.request_full_dump();
    }
}

// ---- Proof by a sample ----

// True if the answer does not contradict the shadow table. Compared are presence, device, the permanent and noarp bits,
// and the destination of a device's own entry. An unknown answer contradicts nothing.
bool feeder::agrees(uint32_t at, const fdb_answer &answer) const
{
    constexpr unsigned kinds = fdb_permanent | fdb_noarp;
    const fdb_record &known = shadow_.entries[at].record;
    switch (answer.presence) {
    case fdb_presence::absent: return !shadow_.entries[at].alive;
    case fdb_presence::present:
        return shadow_.entries[at].alive && known.ifindex == answer.record.ifindex
               && (!known.self || known.destination == answer.record.destination)
               && ((known.state ^ answer.record.state) & kinds) == 0;
    default: return true;
    }
}

// Runs once a second. It takes no sample while answers are degraded, because a full dump is due anyway.
void feeder::look_after_shadow_table()
{
    if (!listed_ || removals_in_flight_ != 0 || state() == completeness::degraded) {
        disagreeing_.clear();
        return;
    }
    plane_.drain();
    settle_everything();
    sample();
    shadow_.end_empty_domains();
}

// Asks again about the entries that disagreed in the last sample, then takes a new sample of up to proof_rate entries.
// The new one begins behind the entry at which the last one ended, so samples cover the whole table in turn:
//
//      second 1:                              ask about sample A --> disagreeing_
//      second 2: ask about disagreeing_;      ask about sample B --> disagreeing_
void feeder::sample()
{
    sampled_ = std::exchange(disagreeing_, {});
    compare_sample(true);
    sampled_.clear();
    const uint32_t bound = shadow_.entries.bound();
    for (uint32_t steps = 0; steps < bound && sampled_.size() < settings_.proof_rate; steps++) {
        sample_cursor_ = sample_cursor_ + 1 < bound ? sample_cursor_ + 1 : 0;
        const shadow_entry &entry = shadow_.entries[sample_cursor_];
        if (entry.alive && !is_of_flood_list(entry.record)) {
            sampled_.push_back(sample_cursor_);
        }
    }
    compare_sample(false);
}

// Compares the entries of sampled_ with the plane. One disagreement proves nothing, because a change may be in flight
// while the plane answers. So the entry is asked about again a second later, in a call with `confirms`. A disagreement
// in that call is a fault of the shadow table, and a full dump begins.
//
// An entry that a change touched since it first disagreed does not count, because an entry that keeps moving would
// disagree each time.
void feeder::compare_sample(bool confirms)
{
    const auto has_gone = [this](uint32_t at) { return !shadow_.entries[at].alive; };
    std::erase_if(sampled_, has_gone);
    disagreed_ms_ = confirms ? disagreed_ms_ : coarse_ms();
    const auto has_changed = [this](uint32_t at) {
        const uint32_t now = coarse_ms();
        return now - shadow_.entries[at].touched_ms <= now - disagreed_ms_;
    };
    std::vector<fdb_key> keys;
    for (const uint32_t at : sampled_) {
        keys.push_back(key_of(shadow_.entries[at].record));
    }
    std::vector<fdb_answer> answers(keys.size());
    for (size_t done = 0; done < keys.size(); done += query_batch) {
        const size_t count = std::min(query_batch, keys.size() - done);
        plane_.query(std::span(keys).subspan(done, count), std::span(answers).subspan(done, count));
    }
    plane_.drain();
    proof_asked_ += confirms ? 0 : keys.size();
    uint64_t confirmed = 0;
    for (size_t at = 0; at < sampled_.size(); at++) {
        if (has_changed(sampled_[at]) || agrees(sampled_[at], answers[at])) {
            continue;
        }
        if (confirms) {
            confirmed++;
            resolve(sampled_[at], answers[at]);
        } else {
            disagreeing_.push_back(sampled_[at]);
        }
    }
    if (confirmed != 0) {
        proof_disagreed_ += confirmed;
        report(severity::warning, "the plane disagrees about " + plural(confirmed, "sampled entr")
                                      + ", and no change had reported it: a full dump begins");
        begin_doubt();
        plane_.request_full_dump();
    }
}

// ---- Completeness of answers ----

// Marks answers degraded and counts the change from proven to unproven.
void feeder::begin_doubt()
{
    if (!is_unproven_.exchange(true)) {
        degradations_++;
    }
}

completeness feeder::state() const
{
    if (is_unproven_ || !plane_.health().clean) {
        return completeness::degraded;
    }
    return causes_of_limit() != limit_causes() ? completeness::limited : completeness::whole;
}

feeder::limit_causes feeder::causes_of_limit() const
{
    return {missing_ != 0, lacks_ids()};
}

std::string feeder::reason() const
{
    switch (state()) {
    case completeness::degraded:
        return plane_.health().overruns != 0 || listed_
                   ? "changes of the forwarding plane were lost; a full dump has yet to prove the table"
                   : "the forwarding plane is being read for the first time";
    case completeness::limited: return text_of_limit();
    default: return {};
    }
}

std::string feeder::text_of_limit() const
{
    const limit_causes causes = causes_of_limit();
    std::string text;
    if (causes.room) {
        text = "the table has no room for " + plural(missing_, "more entr") + " of the forwarding plane (limit "
               + std::to_string(settings_.mac_limit) + ")";
    }
    if (causes.ids) {
        text += (text.empty() ? "" : "; ") + text_of_id_shortage();
    }
    return text;
}

// Logs a change of the state, or of the causes of a limited state, once. Logs nothing before the first full dump ends.
void feeder::follow_state()
{
    const completeness now = state();
    const limit_causes causes = now == completeness::limited ? causes_of_limit() : limit_causes();
    if (!listed_ || (now == reported_state_ && causes == reported_causes_)) {
        return;
    }
    reported_causes_ = causes;
    const completeness before = std::exchange(reported_state_, now);
    switch (now) {
    case completeness::degraded:
        if (!has_reported_loss_) {
            report(severity::warning, "answers are marked degraded until a full dump has proven the table");
        }
        break;
    case completeness::limited: report(severity::warning, "answers are marked limited: " + reason()); break;
    case completeness::whole: report(severity::info, text_of_recovery(before)); break;
    }
    if (now != completeness::degraded) {
        lost_since_whole_ = 0;
        has_reported_loss_ = false;
    }
}

std::string feeder::text_of_recovery(completeness before) const
{
    if (before == completeness::limited) {
        return "the table holds all entries again; answers are whole (" + std::to_string(evictions_)
               + " evictions so far)";
    }
    if (degradations_ == 0 && !has_reported_loss_) {
        return "the forwarding plane has been read: " + plural(shadow_.living, "entr");
    }
    return "a full dump has proven the table; answers are whole (" + std::to_string(lost_since_whole_)
           + " changes were lost; " + plural(stale_in_proof_, "stale entr") + " and "
           + plural(missing_in_proof_, "missing entr") + " mended)";
}

} // namespace forwarding
