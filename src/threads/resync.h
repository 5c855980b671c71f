// SPDX-License-Identifier: Apache-2.0

// The part of the resync exchange that l2fib_mac_edm.h does not export: what the two threads attach when they start.
//
//      Mac-Edm-Thread                       cache thread                       platform
//            |                                   |                                |
//            |--- request ---------------------->|                                |
//            |    (l2fib_mac_edm_                |    holds the client in         |
//            |     thread_send_resync)           |    current_lwm_clinfo          |
//            |                                   |--- slot 0, 1 or 2 ------------>|
//            |                                   |    serves other events         | marks, feeds, sweeps
//            |<-- reply ----------------------------------------------------------|
//            |                                        (l2fib_mac_edm_resync_complete, on any thread)
//
// The cache thread holds one client at a time. A new request replaces a client that nobody has answered. A completion
// answers the client that is held when it comes.
#pragma once

#include "l2fib_mac_edm.h"
#include "platform/event.h"
#include "platform/operational_db.h"

namespace edm {

// Receives the resync messages. Runs on the cache thread.
void l2fib_mac_cache_thread_hdlr(const event_message_t *event) L2FIB_EXCLUDES_TABLE_LOCK;

// Runs the database's action. Runs on Mac-Edm-Thread. Returns as l2fib_mac_edm_thread_send_resync does.
uint32_t l2fib_mac_edm_action_cb(optree_request_t *request) L2FIB_EXCLUDES_TABLE_LOCK;

} // namespace edm
