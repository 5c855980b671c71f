// SPDX-License-Identifier: Apache-2.0

// What statuses mean, in words for an operator.
#pragma once

#include <cstdint>

namespace host {

// The meaning of one of the module's statuses or of an error number; null for any other. Never to be released.
const char *status_meaning(uint64_t status);

// Whether a status is the error number of a resync request that could not be sent, or was not answered.
bool is_send_error(uint64_t status);

// That error number.
uint32_t send_error_number(uint64_t status);

} // namespace host
