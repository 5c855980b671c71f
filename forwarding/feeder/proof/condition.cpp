// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/proof/condition.h"

#include <utility>

namespace forwarding {

condition::condition(feed_context &context, const doubt &questions, const cache_limit &room, const numbering &ids)
    : context_(context)
    , doubt_(questions)
    , limit_(room)
    , ids_(ids)
{}

completeness condition::state() const
{
    if (doubt_.is_degraded()) {
        return completeness::degraded;
    }
    return causes_of_limit() != limit_causes() ? completeness::limited : completeness::whole;
}

condition::limit_causes condition::causes_of_limit() const
{
    return {limit_.missing() != 0, ids_.is_short()};
}

std::string condition::reason() const
{
    switch (state()) {
    case completeness::degraded:
        return context_.source.health().overruns != 0 || has_full_dump_
                   ? "changes of the forwarding plane were lost; a full dump has yet to prove the table"
                   : "the forwarding plane is being read for the first time";
    case completeness::limited: return text_of_limit();
    default: return {};
    }
}

std::string condition::text_of_limit() const
{
    const limit_causes causes = causes_of_limit();
    std::string text;
    if (causes.room) {
        text = "the table has no room for " + count_of_ies(limit_.missing(), "more entr")
               + " of the forwarding plane (limit " + std::to_string(context_.settings.mac_limit) + ")";
    }
    if (causes.ids) {
        text += (text.empty() ? "" : "; ") + ids_.text_of_shortage();
    }
    return text;
}

void condition::note_loss(uint64_t count)
{
    lost_ += count;
    if (!std::exchange(has_reported_loss_, true)) {
        context_.report(severity::warning,
                        "lost " + (count != 0 ? std::to_string(count) : std::string("an unknown number of"))
                            + " changes of the forwarding plane (receive buffer overrun); answers are marked "
                              "degraded until a full dump has proven the table");
    }
}

void condition::follow()
{
    const completeness now = state();
    const limit_causes causes = now == completeness::limited ? causes_of_limit() : limit_causes();
    if (!has_full_dump_ || (now == reported_state_ && causes == reported_causes_)) {
        return;
    }
    reported_causes_ = causes;
    report(std::exchange(reported_state_, now), now);
    if (now != completeness::degraded) {
        lost_ = 0;
        has_reported_loss_ = false;
    }
}

void condition::report(completeness before, completeness now) const
{
    switch (now) {
    case completeness::degraded:
        if (!has_reported_loss_) {
            context_.report(severity::warning, "answers are marked degraded until a full dump has proven the table");
        }
        break;
    case completeness::limited: context_.report(severity::warning, "answers are marked limited: " + reason()); break;
    case completeness::whole: context_.report(severity::info, text_of_recovery(before)); break;
    }
}

std::string condition::text_of_recovery(completeness before) const
{
    if (before == completeness::limited) {
        return "the table holds all entries again; answers are whole (" + std::to_string(limit_.evictions())
               + " evictions so far)";
    }
    if (doubt_.degradations() == 0 && !has_reported_loss_) {
        return "the forwarding plane has been read: " + count_of_ies(context_.shadow.living, "entr");
    }
    const mended_entries &mended = doubt_.mended();
    return "a full dump has proven the table; answers are whole (" + std::to_string(lost_) + " changes were lost; "
           + count_of_ies(mended.stale, "stale entr") + " and " + count_of_ies(mended.missing, "missing entr")
           + " mended)";
}

} // namespace forwarding
