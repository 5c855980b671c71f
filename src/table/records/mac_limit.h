// SPDX-License-Identifier: Apache-2.0

// The MAC entry limit. It is in a cell that the platform owns and may write at any time.
//
// Threads: any, without a lock.
#pragma once

#include <cstdint>
#include <optional>

#include "l2fib_mac_edm.h"
#include "table/shared_cell.h"

namespace edm {

// Returns the current limit as a number of entries, or nothing before the platform has defined it.
inline std::optional<uint32_t> mac_limit()
{
    const uint32_t *cell = acquire(hw_edm_pool);
    if (cell == nullptr) {
        return std::nullopt;
    }
    return peek(*cell);
}

} // namespace edm
