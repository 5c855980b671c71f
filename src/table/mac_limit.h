// SPDX-License-Identifier: Apache-2.0

// The MAC entry limit, which lies in a cell of the platform's: read for every entry created, on any thread.
#pragma once

#include <cstdint>
#include <optional>

#include "l2fib_mac_edm.h"
#include "table/shared_cell.h"

namespace edm {

// The limit as it is now; nothing while the platform has not defined it.
inline std::optional<uint32_t> mac_limit()
{
    const uint32_t *cell = acquire(hw_edm_pool);
    if (cell == nullptr) {
        return std::nullopt;
    }
    return peek(*cell);
}

} // namespace edm
