// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/proof/sample.h"

#include <algorithm>
#include <span>
#include <utility>

namespace forwarding {

sample::sample(feed_context &context, doubt &questions, proof &prover)
    : context_(context)
    , doubt_(questions)
    , proof_(prover)
{}

void sample::take()
{
    chosen_ = std::exchange(disagreeing_, {});
    compare(true);
    choose();
    compare(false);
}

void sample::choose()
{
    chosen_.clear();
    const uint32_t bound = context_.shadow.entries.bound();
    for (uint32_t steps = 0; steps < bound && chosen_.size() < context_.settings.proof_rate; steps++) {
        cursor_ = cursor_ + 1 < bound ? cursor_ + 1 : 0;
        if (context_.shadow.entries[cursor_].alive && !is_of_flood_list(context_.shadow, cursor_)) {
            chosen_.push_back(cursor_);
        }
    }
}

std::vector<fdb_answer> sample::ask() const
{
    std::vector<fdb_key> keys;
    for (const uint32_t entry : chosen_) {
        keys.push_back(context_.shadow.key_of(entry));
    }
    std::vector<fdb_answer> answers(keys.size());
    for (size_t done = 0; done < keys.size(); done += query_batch) {
        const size_t count = std::min(query_batch, keys.size() - done);
        context_.source.query(std::span(keys).subspan(done, count), std::span(answers).subspan(done, count));
    }
    return answers;
}

// True if the answer does not contradict the shadow table. Compared are presence, device, the permanent and noarp bits,
// and the destination of a device's own entry. An unknown answer contradicts nothing.
bool sample::agrees(uint32_t entry, const fdb_answer &answer) const
{
    constexpr unsigned kinds = fdb_permanent | fdb_noarp;
    const shadow_entry &known = context_.shadow.entries[entry];
    if (answer.presence == fdb_presence::unknown) {
        return true;
    }
    if (answer.presence == fdb_presence::absent || !known.alive) {
        return answer.presence == fdb_presence::absent && !known.alive;
    }
    const entry_terms &terms = context_.shadow.terms_of(entry);
    return terms.ifindex == answer.record.ifindex && (!terms.self || terms.destination == answer.record.destination)
           && ((known.state ^ answer.record.state) & kinds) == 0;
}

// True if a change touched the entry since the latest sample was asked for.
bool sample::has_changed(uint32_t entry) const
{
    const uint32_t now = coarse_ms();
    return now - context_.records[entry].touched_ms <= now - disagreed_ms_;
}

// Compares the chosen entries with the plane. One disagreement proves nothing, because a change may be in flight while
// the plane answers. So the entry is asked about again a second later, in a call with `confirms`. A disagreement in
// that call is a fault of the shadow table, and a full dump begins.
//
// An entry that a change touched since it first disagreed does not count, because an entry that keeps moving would
// disagree each time.
void sample::compare(bool confirms)
{
    std::erase_if(chosen_, [this](uint32_t entry) { return !context_.shadow.entries[entry].alive; });
    disagreed_ms_ = confirms ? disagreed_ms_ : coarse_ms();
    const std::vector<fdb_answer> answers = ask();
    context_.source.drain();
    asked_ += confirms ? 0 : chosen_.size();
    uint64_t confirmed = 0;
    for (size_t at = 0; at < chosen_.size(); at++) {
        if (has_changed(chosen_[at]) || agrees(chosen_[at], answers[at])) {
            continue;
        }
        if (confirms) {
            confirmed++;
            proof_.resolve(chosen_[at], answers[at]);
        } else {
            disagreeing_.push_back(chosen_[at]);
        }
    }
    if (confirmed != 0) {
        report(confirmed);
    }
}

void sample::report(uint64_t confirmed)
{
    disagreed_ += confirmed;
    context_.report(severity::warning, "the plane disagrees about " + count_of_ies(confirmed, "sampled entr")
                                           + ", and no change had reported it: a full dump begins");
    doubt_.begin();
    context_.source.request_full_dump();
}

void sample::add_to(proof_view &view) const
{
    view.asked = asked_;
    view.disagreed = disagreed_;
}

} // namespace forwarding
