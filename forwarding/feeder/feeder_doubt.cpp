// SPDX-License-Identifier: Apache-2.0

// Questions to the plane about entries whose life is in doubt, the proof of the shadow table, and what answers are
// worth.
#include <algorithm>
#include <ctime>
#include <utility>

#include "forwarding/feeder/feeder.h"
#include "host/event/event_host.h"

namespace forwarding {
namespace {

// What the plane could not answer is asked again after this.
constexpr uint64_t ask_again_ns = 1'000'000'000;

// Of a destination list the plane answers for the first destination only.
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

bool feeder::is_questionable(uint32_t at) const
{
    const shadow_entry &entry = shadow_.entries[at];
    const bool may_be_back =
        !entry.alive && !entry.surely_gone && entry.fed_xcid != 0 && state() == completeness::degraded;
    return entry.contested || may_be_back;
}

// Asks about the dirty entries from the first unsettled one to `end`.
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

// Whether the links of an entry are where it was, so that its return makes no port.
bool feeder::may_stand(const fdb_record &record) const
{
    const shadow_link *on = shadow_.find_link(record.ifindex);
    const bool is_own = record.self || record.ifindex == record.master;
    return on != nullptr && (is_own || on->record.master == record.master);
}

// An entry that has gone comes back when the plane holds it, and also when it cannot tell: then the next clean listing
// decides.
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

// Nobody asks about it again before it is settled.
void feeder::remove_surely(uint32_t at)
{
    shadow_.remove(at);
    shadow_.entries[at].surely_gone = true;
    shadow_.entries[at].contested = false;
}

// ---- The queue of doubtful entries ----

void feeder::entry_untold(uint32_t at)
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

void feeder::doubt_later()
{
    if (!doubt_expected_) {
        doubt_expected_ = host::event_post(evm_, call<&feeder::resolve_doubts>, nullptr, this) == 0;
    }
}

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

// The plane cannot tell about each destination of several. A clean listing decides about them: one that neither it nor
// a change since has reported has gone, and any other lives.
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

// ---- Proof by a full listing ----

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

void feeder::full_dump_differs(uint32_t at)
{
    if (listed_) {
        listed_only_.push_back(at);
    }
}

// Changes that were still on their way while the listing read their entries have been reported by now.
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
    if (!plane_.health().clean) { // a proof that fails leaves the plane clean, and the shadow table as good as it was
        begin_doubt();
    }
    if (doubtful_.empty()) {
        end_proof();
    }
    if (!waiting_.empty()) {
        host::event_post(evm_, call<&feeder::serve_waiting>, nullptr, this);
    }
}

// Nothing is in doubt any more. If no clean listing has led here, only another one can take the mark away.
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

void feeder::hasten_proof()
{
    if (state() == completeness::degraded) {
        plane_.request_full_dump();
    }
}

// ---- Proof by a sample ----

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

// Each second. While the shadow table is in doubt anyway, a full listing is on its way.
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

// A change may be on its way while the plane is asked. So what disagrees once is asked again with the next sample,
// which `confirms` it unless a change was reported since: an entry that keeps moving disagrees each time.
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

// ---- What answers are worth ----

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

// Logs once when the state or the cause of a limited one changes.
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
