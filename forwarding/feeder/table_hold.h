// SPDX-License-Identifier: Apache-2.0

// Holds the table lock while it lives. Nothing may be waited for meanwhile.
#pragma once

#include "l2fib_mac_edm.h"

namespace forwarding {

struct table_hold {
    table_hold() { l2fib_mac_edm_mutex_lock(); }
    ~table_hold() { l2fib_mac_edm_mutex_unlock(); }
    table_hold(const table_hold &) = delete;
    table_hold &operator=(const table_hold &) = delete;
};

} // namespace forwarding
