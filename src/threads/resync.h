// SPDX-License-Identifier: Apache-2.0

// The resync exchange, as far as it is not exported: what the two threads attach at their start.
//
// Mac-Edm-Thread sends a request to the cache thread's channel and waits (l2fib_mac_edm_thread_send_resync). The cache
// thread keeps the requester in `current_lwm_clinfo`, calls the platform and goes on serving events; whoever ends the
// platform's work answers that requester (l2fib_mac_edm_resync_complete). One request is held at a time: a request that
// nobody completed is replaced by the next one, and a completion answers the request that is held when it comes.
#pragma once

#include "platform/event.h"
#include "platform/operational_db.h"

namespace edm {

// Receives the resync messages; runs on the cache thread, without the table lock.
void l2fib_mac_cache_thread_hdlr(const event_message_t *event);

// The database's action; runs on Mac-Edm-Thread, without the table lock. Returns as l2fib_mac_edm_thread_send_resync.
uint32_t l2fib_mac_edm_action_cb(optree_request_t *request);

} // namespace edm
