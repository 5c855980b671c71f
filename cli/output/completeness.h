// SPDX-License-Identifier: Apache-2.0

// The daemon's mark of completeness: whether an answer has everything that the forwarding plane holds.
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
    limited, // the table refused or evicted entries
    degraded // the daemon cannot prove its copy of the forwarding plane
};

struct mark {
    completeness state = completeness::whole;
    std::string reason = {}; // the daemon's words; may be empty

    // Keeps the worse of the two, and of equal ones the first that has a reason.
    void add(const mark &other);

    // The line for the operator.
    std::string text() const;
};

// From the daemon's word. No word means whole, because older daemons send none; an unknown one means degraded.
completeness completeness_of(std::string_view word);

} // namespace l2fibctl
