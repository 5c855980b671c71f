// SPDX-License-Identifier: Apache-2.0

// The daemon's mark of completeness: whether an answer has every entry that the forwarding plane holds.
//
// Threads: plain values.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace l2fibctl {

// From the best to the worst.
enum class completeness : uint8_t {
    whole,
    limited, // the forwarding plane holds entries that the table refused or evicted
    degraded // the daemon cannot prove its shadow table, for example after a receive buffer overrun
};

struct completeness_mark {
    completeness state = completeness::whole;
    std::string reason = {}; // in the daemon's words; may be empty

    // Replaces this mark by `other` if that is worse, or if it is equal and only `other` has a reason.
    void add(const completeness_mark &other);

    // The warning for the operator.
    std::string text() const;
};

// Reads the daemon's word. An empty word means whole, because older daemons send none. An unknown word means degraded.
completeness completeness_of(std::string_view word);

} // namespace l2fibctl
