// SPDX-License-Identifier: Apache-2.0

// The hosting process's side of the sibling library (platform/l2fib.h): the handlers that the module registered, debug
// messages, and the answer to the module's question to the forwarding hardware. l2fib_objects.h has the objects.
//
// The library holds no lock while it calls a function that is set here. A call that has begun continues after the
// function was replaced. So set the functions before the module starts, and keep them.
//
// Threads: any.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/l2fib.h"

namespace host {

// Return the latest tables of the module. All slots are null before the module registers them.
L2FIB_EXPORT l2fib_hw_edm_handler_table_t edm_handlers();
L2FIB_EXPORT l2fib_action_table_t edm_actions();

// Sets the bits that l2fib_debug_get_enabled_bitset returns, 0 at first. They select the messages that the module
// makes.
L2FIB_EXPORT void debug_bits_set(uint32_t bits);

inline constexpr size_t max_debug_message_bytes = 1024; // a longer message is cut

// Receives each debug message, without a line end, on the thread that made it. Throws nothing.
using debug_sink_fn = void (*)(void *cookie, uint32_t level, const char *function, const char *text);

// Sets the receiver of debug messages. Null: standard error, one line for each message.
L2FIB_EXPORT void debug_sink_set(debug_sink_fn sink, void *cookie);

// Answers what the hardware knows of an address: it sets L2FIB_MAC_QUERY_F2 in `state`, which is 0, or leaves it. Runs
// on the module's request thread, under the table lock. So it must not wait for a thread that could wait for the table.
// Returns a status.
using mac_query_fn = uint32_t (*)(void *cookie, uint32_t bridge_id, const uint8_t *mac_addr, uint8_t *state);

// Sets the function that answers. Null: every question succeeds with the state 0.
L2FIB_EXPORT void mac_query_set(mac_query_fn query, void *cookie);

} // namespace host
