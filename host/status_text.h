// SPDX-License-Identifier: Apache-2.0

// Describes the module's statuses and the system's error numbers for an operator.
//
// Threads: pure functions, for any thread.
#pragma once

#include <cstdint>

namespace host {

// Describes one of the module's statuses or an error number. Returns null for any other number. The text is static.
const char *status_meaning(uint64_t status);

// Whether a status says that a resync request was not sent or not answered. Such a status holds an error number.
bool is_send_error(uint64_t status);

// The error number in such a status.
uint32_t send_error_number(uint64_t status);

} // namespace host
