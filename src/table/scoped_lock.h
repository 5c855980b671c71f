// SPDX-License-Identifier: Apache-2.0

// Holds the table lock for the life of a block:
//
//      const edm::scoped_lock lock;
#pragma once

#include "l2fib_mac_edm.h"

namespace edm {

struct [[nodiscard]] L2FIB_SCOPED_CAPABILITY scoped_lock {
    scoped_lock() L2FIB_ACQUIRES_TABLE_LOCK { l2fib_mac_edm_mutex_lock(); }
    ~scoped_lock() L2FIB_RELEASES_TABLE_LOCK { l2fib_mac_edm_mutex_unlock(); }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;
};

} // namespace edm
