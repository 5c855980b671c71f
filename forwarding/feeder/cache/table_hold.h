// SPDX-License-Identifier: Apache-2.0

// Takes the table lock in its constructor and releases it in its destructor. Any thread may use it. The lock is
// recursive. A thread that holds it must not wait for the cache thread or for a resync, because both need the lock.
#pragma once

#include "l2fib_mac_edm.h"

namespace forwarding {

struct L2FIB_SCOPED_CAPABILITY table_hold {
    table_hold() L2FIB_ACQUIRES_TABLE_LOCK { l2fib_mac_edm_mutex_lock(); }
    ~table_hold() L2FIB_RELEASES_TABLE_LOCK { l2fib_mac_edm_mutex_unlock(); }
    table_hold(const table_hold &) = delete;
    table_hold &operator=(const table_hold &) = delete;
};

} // namespace forwarding
