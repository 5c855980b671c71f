// SPDX-License-Identifier: Apache-2.0

// The hosting process's side of the sibling library: the handlers that the module has handed over, debug messages, and
// who answers the module's question to the forwarding hardware. The objects are in l2fib_objects.h.
//
// A function that is registered here is called without any lock of the library. It stays callable after it has been
// replaced until calls that were under way have returned: register it before the module starts, and leave it.
//
// Threads: any.
#pragma once

#include <cstdint>

#include "platform/l2fib.h"

namespace host {

// The tables that the module handed over last; all slots are null before it has.
L2FIB_EXPORT l2fib_hw_edm_handler_table_t edm_handlers();
L2FIB_EXPORT l2fib_action_table_t edm_actions();

// The bits that l2fib_debug_get_enabled_bitset returns, 0 at first. They tell the module which messages to make; what
// is made is printed.
L2FIB_EXPORT void debug_bits_set(uint32_t bits);

// Receives each debug message as a text without a line end, on the thread that made it.
using debug_sink_fn = void (*)(void *cookie, uint32_t level, const char *function, const char *text);

// Where debug messages go; null: to standard error, a line each.
L2FIB_EXPORT void debug_sink_set(debug_sink_fn sink, void *cookie);

// Answers what the hardware knows of an address: `state` is 0 and may get L2FIB_MAC_QUERY_F2. Called on the module's
// request thread with the table lock held: it waits for nothing that could wait for the table. Returns a status.
using mac_query_fn = uint32_t (*)(void *cookie, uint32_t bridge_id, const uint8_t *mac_addr, uint8_t *state);

// Who answers; null: nobody, and every answer is a success with the state 0.
L2FIB_EXPORT void mac_query_set(mac_query_fn query, void *cookie);

} // namespace host
