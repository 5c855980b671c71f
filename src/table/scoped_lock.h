// SPDX-License-Identifier: Apache-2.0

// Holds the table lock for the life of a block.
#pragma once

#include "l2fib_mac_edm.h"

namespace edm {

struct [[nodiscard]] scoped_lock {
    scoped_lock() { l2fib_mac_edm_mutex_lock(); }
    ~scoped_lock() { l2fib_mac_edm_mutex_unlock(); }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;
};

} // namespace edm
