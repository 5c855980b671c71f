// SPDX-License-Identifier: Apache-2.0

// What answers are worth (forwarding::completeness), why, and the log of its changes. Degraded is worse than limited:
//
//      doubt ------------------> degraded
//      cache_limit, numbering -> limited
//
// Threads: the cache thread. Any thread may call the functions of the last section.
#pragma once

#include <atomic>
#include <string>

#include "forwarding/feeder/cache/limit.h"
#include "forwarding/feeder/objects/numbering.h"
#include "forwarding/feeder/proof/doubt.h"

namespace forwarding {

class condition {
public:
    condition(feed_context &context, const doubt &questions, const cache_limit &room, const numbering &ids);

    // Logs a change of the state, or of the causes of a limited state, once. Logs nothing before the first full dump
    // ends.
    void follow();
    // The plane has lost `count` more changes (0: unknown). Logs the first loss since answers were last not degraded.
    void note_loss(uint64_t count);
    // A full dump has ended.
    void note_full_dump() { has_full_dump_ = true; }

    // ---- Any thread ----

    completeness state() const;
    // Why answers are not whole, for the operator; empty if they are.
    std::string reason() const;
    bool has_full_dump() const { return has_full_dump_; }

private:
    // Why answers are limited.
    struct limit_causes {
        bool room = false; // the cache lacks entries that the shadow table holds
        bool ids = false;  // objects or entries wait for an id
        bool operator==(const limit_causes &) const = default;
    };

    limit_causes causes_of_limit() const;
    std::string text_of_limit() const;
    std::string text_of_recovery(completeness before) const;
    void report(completeness before, completeness now) const;

    feed_context &context_;
    const doubt &doubt_;
    const cache_limit &limit_;
    const numbering &ids_;
    completeness reported_state_ = completeness::degraded; // as logged last
    limit_causes reported_causes_;                         // as logged last
    uint64_t lost_ = 0;                                    // changes lost since answers were last not degraded
    bool has_reported_loss_ = false;                       // a loss was logged since then
    std::atomic<bool> has_full_dump_{false};               // the first full dump has ended
};

} // namespace forwarding
