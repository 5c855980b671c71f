// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/proof/proof.h"

#include <ctime>
#include <utility>

#include "host/event/event_host.h"

namespace forwarding {
namespace {

// Pause after a round in which the plane answered no question, so that the feeder does not ask without a break.
constexpr uint64_t ask_again_ns = 1'000'000'000;

} // namespace

bool is_of_flood_list(const shadow_table &shadow, uint32_t entry)
{
    const mac_address &mac = shadow.entries[entry].mac;
    return shadow.terms_of(entry).self && ((mac[0] & 1U) != 0 || mac == mac_address{});
}

proof::proof(feed_context &context, const entry_counters &counters, doubt &questions, condition &answers)
    : context_(context)
    , counters_(counters)
    , doubt_(questions)
    , condition_(answers)
{}

// ---- The queue of entries in doubt ----

void proof::entry_unreported(uint32_t entry)
{
    doubt_.begin();
    put_in_doubt(entry);
}

void proof::next_hop_gone(uint32_t id)
{
    if (counters_.of_destination(destination_kind::next_hop) != 0) {
        gone_next_hops_.insert(id);
        ask_later();
    }
}

void proof::put_in_doubt(uint32_t entry)
{
    if (!context_.records[entry].is_in_doubt) {
        context_.records[entry].is_in_doubt = true;
        in_doubt_.push_back(entry);
        ask_later();
    }
}

// Schedules the next round of questions, unless one is already scheduled.
void proof::ask_later()
{
    if (!is_round_expected_) {
        is_round_expected_ = host::event_post(context_.evm, call<&proof::resolve_all>, nullptr, this) == 0;
    }
}

// Queues the entries that deliver to a deleted next hop, because the plane may report none of them gone.
void proof::put_next_hops_in_doubt()
{
    if (gone_next_hops_.empty()) {
        return;
    }
    const std::set<uint32_t> gone = std::exchange(gone_next_hops_, {});
    context_.shadow.for_each_entry([&](uint32_t entry) {
        const fdb_destination &to = context_.shadow.terms_of(entry).destination;
        if (to.kind == destination_kind::next_hop && gone.contains(to.next_hop)) {
            put_in_doubt(entry);
        }
    });
}

// Takes up to query_batch entries out of the queue. Entries that have gone meanwhile, or whose slot is free, are left
// out.
std::vector<uint32_t> proof::take_batch()
{
    std::vector<uint32_t> batch;
    while (batch.size() < query_batch && !in_doubt_.empty()) {
        const uint32_t entry = in_doubt_.front();
        in_doubt_.pop_front();
        if (context_.records[entry].is_in_doubt && context_.shadow.entries[entry].alive) {
            batch.push_back(entry);
        }
        context_.records[entry].is_in_doubt = false;
    }
    return batch;
}

// One round of questions about queued entries. While entries remain, another round follows.
void proof::resolve_all()
{
    put_next_hops_in_doubt();
    const std::vector<uint32_t> batch = take_batch();
    const std::vector<fdb_answer> answers = doubt_.ask(batch);
    const size_t left = in_doubt_.size();
    for (size_t at = 0; at < batch.size(); at++) {
        resolve(batch[at], answers[at]);
    }
    const bool has_learned = left != 0 || in_doubt_.size() < batch.size();
    is_round_expected_ = !in_doubt_.empty() && schedule_next_round(has_learned);
    if (in_doubt_.empty()) {
        end();
    } else if (!has_learned && !is_proving_) {
        context_.source.request_full_dump();
    }
}

// The next round follows at once if this one learned something or left queued entries unasked, otherwise after
// ask_again_ns.
bool proof::schedule_next_round(bool has_learned)
{
    if (has_learned) {
        return host::event_post(context_.evm, call<&proof::resolve_all>, nullptr, this) == 0;
    }
    uint32_t timer = 0;
    return host::event_timer_attach(context_.evm, ask_again_ns, 0, call<&proof::resolve_all>, this, &timer) == 0;
}

// The plane does not know about each of many destinations. While a clean full dump is being proven, that dump decides
// about them. Such an entry lives if the dump or a later change reported it, and is gone otherwise.
void proof::resolve(uint32_t entry, const fdb_answer &answer)
{
    const bool is_unknown = answer.presence == fdb_presence::unknown;
    const bool is_decided = is_unknown && is_proving_ && is_of_flood_list(context_.shadow, entry);
    const shadow_table &shadow = context_.shadow;
    const bool is_unlisted = shadow.dumps_behind(shadow.entries[entry].full_dump) > shadow.dumps_behind(proving_dump_);
    if (answer.presence == fdb_presence::absent || (is_decided && is_unlisted)) {
        stale_ += is_proving_ ? 1 : 0;
        doubt_.mended().stale += is_proving_ ? 1 : 0;
        doubt_.remove_surely(entry);
    } else if (is_unknown && !is_decided) {
        doubt_.begin();
        context_.records[entry].is_in_doubt = true;
        in_doubt_.push_back(entry);
    } else {
        doubt_.note_kept();
        if (!is_unknown && context_.shadow.find_link(answer.record.ifindex) != nullptr) {
            context_.shadow.fdb_changed(answer.record);
        }
    }
}

// ---- Full dumps ----

void proof::full_dump_begun()
{
    dump_only_.clear();
    was_clean_ = !doubt_.is_degraded();
    if (!context_.source.health().clean) {
        doubt_.begin();
    }
    doubt_.mended() = {};
}

// A full dump reported an entry that the shadow table did not hold so. In the first full dump this is normal.
void proof::full_dump_differs(uint32_t entry)
{
    if (condition_.has_full_dump()) {
        dump_only_.push_back(entry);
    }
}

// Counts the entries that only the full dump reported. A change that was in flight when the dump read its entry has
// cleared dump_only by now, so it does not count.
void proof::full_dump_ended(bool clean)
{
    for (const uint32_t entry : std::exchange(dump_only_, {})) {
        const shadow_entry &found = context_.shadow.entries[entry];
        doubt_.mended().missing += found.alive && found.dump_only ? 1U : 0U;
    }
    missing_ += doubt_.mended().missing;
    condition_.note_full_dump();
    is_proving_ = clean;
    proving_dump_ = context_.shadow.full_dump();
    if (!context_.source.health().clean) { // an unclean proof leaves the plane clean: the table is as good as before
        doubt_.begin();
    }
    if (in_doubt_.empty()) {
        end();
    }
}

// No entry is in doubt any more. If a clean full dump led here, the table is proven. Otherwise answers stay degraded,
// and a full dump is requested if the plane is clean.
void proof::end()
{
    if (!std::exchange(is_proving_, false)) {
        if (doubt_.is_unproven() && context_.source.health().clean) {
            context_.source.request_full_dump();
        }
        return;
    }
    proven_time_ = std::time(nullptr);
    const mended_entries &mended = doubt_.mended();
    if (was_clean_ && (mended.stale != 0 || mended.missing != 0)) {
        context_.report(severity::warning,
                        "a full dump has found what no change had reported: " + count_of_ies(mended.stale, "stale entr")
                            + ", " + count_of_ies(mended.missing, "missing entr") + "; mended");
    }
    if (context_.source.health().clean) {
        doubt_.end();
    }
    condition_.follow();
}

void proof::hasten()
{
    if (doubt_.is_degraded()) {
        context_.source.request_full_dump();
    }
}

void proof::add_to(proof_view &view) const
{
    view.listed_stale = stale_;
    view.listed_missing = missing_;
    view.last = proven_time_;
}

} // namespace forwarding
