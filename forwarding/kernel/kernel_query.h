// SPDX-License-Identifier: Apache-2.0

// Questions to the kernel about single entries, many on their way at once.
//
// The kernel answers a question while it is sent, at a cost that does not depend on the size of the table. Therefore no
// answer is waited for: one that is not there after the sending was lost, and the question was not answered.
//
// Threads: one at a time per kernel_querier.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "forwarding/kernel/kernel_socket.h"
#include "forwarding/plane.h"

namespace forwarding {

struct kernel_querier {
    kernel_socket socket;
    size_t at_once = 0;          // questions whose answers fit the socket's buffer
    uint32_t sequence = 0;       // of the last question
    uint64_t refused = 0;        // answers that were malformed, or not the kernel's
    bool is_unsupported = false; // the kernel takes no questions about single entries
    std::vector<std::byte> buffer = {};
};

// Returns nothing on success, otherwise the reason.
std::string kernel_querier_open(kernel_querier &querier);

// Answers each key at the same place of `answers`, which is as long.
void kernel_query(kernel_querier &querier, std::span<const fdb_key> keys, std::span<fdb_answer> answers);

} // namespace forwarding
