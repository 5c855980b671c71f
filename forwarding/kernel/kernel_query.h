// SPDX-License-Identifier: Apache-2.0

// Questions to the kernel about single entries, many in one datagram.
//
// The kernel answers a question while it takes it from the socket, at a cost that does not depend on the size of its
// table. So all answers are there once the questions are sent, and nothing waits. An answer that is missing then was
// lost: its question stays unanswered.
//
// Threads: one at a time for each kernel_querier.
#pragma once

#include <span>
#include <vector>

#include "base/result.h"
#include "forwarding/kernel/netlink/kernel_socket.h"
#include "forwarding/plane.h"

namespace forwarding {

struct kernel_querier {
    kernel_socket socket;
    size_t batch = 0;            // the most questions at once, so that their answers fit the receive buffer
    uint32_t sequence = 0;       // of the latest question
    uint64_t refused = 0;        // answers that were malformed, or that another process sent
    bool is_unsupported = false; // the kernel refuses questions about single entries
    std::vector<std::byte> buffer = {};
};

base::result kernel_querier_open(kernel_querier &querier);

// Answers each key at the same place of `answers`, which has the same length.
void kernel_query(kernel_querier &querier, std::span<const fdb_key> keys, std::span<fdb_answer> answers);

} // namespace forwarding
