// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/proof/doubt.h"

namespace forwarding {
namespace {

// Two processors may report two changes of one entry in the wrong order. If the reports are further apart than this,
// their order is right.
constexpr uint32_t contest_time_ms = 50;

} // namespace

void doubt::begin()
{
    if (!is_unproven_.exchange(true)) {
        degradations_++;
    }
}

void doubt::follow_report(uint32_t entry)
{
    feed_record &record = context_.records[entry];
    const bool alive = context_.shadow.entries[entry].alive;
    const uint32_t now = coarse_ms();
    const bool has_flipped = record.touched_ms != 0 && (record.was_alive != 0) != alive;
    if (has_flipped && context_.source.ages_silently() && now - record.touched_ms <= contest_time_ms) {
        record.is_contested = true;
    }
    record.was_alive = alive;
    if (alive) {
        record.is_surely_gone = record.has_aged = false;
    }
    record.touched_ms = now;
}

// True if the feeder asks the plane before it settles the entry: its reports may be in the wrong order, or its return
// may be among the lost changes.
bool doubt::is_questionable(uint32_t entry) const
{
    const feed_record &record = context_.records[entry];
    const bool may_be_back =
        record.is_fed && !context_.shadow.entries[entry].alive && !record.is_surely_gone && is_degraded();
    return record.is_contested || may_be_back;
}

std::vector<fdb_answer> doubt::ask(std::span<const uint32_t> entries)
{
    std::vector<fdb_key> keys;
    keys.reserve(entries.size());
    for (const uint32_t entry : entries) {
        keys.push_back(context_.shadow.key_of(entry));
    }
    std::vector<fdb_answer> answers(keys.size());
    context_.source.query(keys, answers);
    asked_ += keys.size();
    return answers;
}

void doubt::ask_before_settling(std::span<const uint32_t> entries)
{
    std::vector<uint32_t> questionable;
    for (const uint32_t entry : entries) {
        if (is_questionable(entry)) {
            questionable.push_back(entry);
        }
    }
    if (questionable.empty()) {
        return;
    }
    const std::vector<fdb_answer> answers = ask(questionable);
    for (size_t at = 0; at < questionable.size(); at++) {
        context_.records[questionable[at]].is_contested = false;
        take_answer(questionable[at], answers[at]);
        context_.records[questionable[at]].is_contested = false; // the correction is no report
    }
}

// True if the entry's device still exists and has the same master. The entry can then return without a new port.
bool doubt::may_stand(uint32_t entry) const
{
    const entry_terms &terms = context_.shadow.terms_of(entry);
    const shadow_link *on = context_.shadow.find_link(terms.ifindex);
    const bool is_own = terms.self || terms.ifindex == terms.master;
    return on != nullptr && (is_own || on->record.master == terms.master);
}

// Corrects the shadow table by the plane's answer. An entry that was reported gone returns if the plane holds it. While
// answers are degraded it also returns if the plane does not know: the next clean full dump decides.
void doubt::take_answer(uint32_t entry, const fdb_answer &answer)
{
    const bool alive = context_.shadow.entries[entry].alive;
    if (answer.presence == fdb_presence::absent) {
        if (alive) {
            remove_surely(entry);
        }
        return;
    }
    if (answer.presence == fdb_presence::present && context_.shadow.find_link(answer.record.ifindex) != nullptr) {
        kept_ += alive ? 0 : 1;
        context_.shadow.fdb_changed(answer.record);
    } else if (!alive && is_degraded() && may_stand(entry)) {
        keep_gone(entry);
    }
}

// Returns an entry to the shadow table. That is no report, so the entry keeps the number of the full dump that reported
// it last.
void doubt::keep_gone(uint32_t entry)
{
    kept_++;
    const uint16_t full_dump = context_.shadow.entries[entry].full_dump;
    context_.shadow.fdb_changed(context_.shadow.record_of(entry));
    context_.shadow.entries[entry].full_dump = full_dump & full_dump_mask;
}

void doubt::remove_surely(uint32_t entry)
{
    context_.shadow.remove(entry);
    context_.records[entry].is_surely_gone = true;
    context_.records[entry].is_contested = false;
}

void doubt::correct(std::span<const fdb_key> keys)
{
    std::vector<fdb_answer> answers(keys.size());
    context_.source.query(keys, answers);
    for (size_t at = 0; at < keys.size(); at++) {
        const uint32_t entry = context_.shadow.find(keys[at]);
        if (answers[at].presence == fdb_presence::absent && entry != no_slot && context_.shadow.entries[entry].alive) {
            remove_surely(entry);
        } else if (answers[at].presence == fdb_presence::present
                   && context_.shadow.find_link(answers[at].record.ifindex) != nullptr) {
            context_.shadow.fdb_changed(answers[at].record);
        }
    }
}

} // namespace forwarding
