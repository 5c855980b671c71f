// SPDX-License-Identifier: Apache-2.0

// The start of the module, as the forwarding process calls it.
#include <cstdint>

#include "l2fib_mac_edm.h"
#include "platform/l2fib.h"
#include "table/trace_point.h"

namespace edm {
namespace {

// Sets the resync wait time to its default, then lets the platform change it.
uint32_t set_wait_time()
{
    l2fib_mac_edm_capabilities = EDM_RESYNC_WAIT_TIME;
    return hw_edm_pd_cb.capabilities_cb == nullptr ? 0 : hw_edm_pd_cb.capabilities_cb(&l2fib_mac_edm_capabilities);
}

uint32_t traced(uint32_t status)
{
    if (status != 0) {
        EDM_TRACE_AS("l2fib_mac_edm_init", EDM_TRACE_START_FAILED, status);
    }
    return status;
}

} // namespace
} // namespace edm

uint32_t l2fib_mac_edm_init(event_manager_t *evm, void *edm_handle, msg_chan_t *lwm_chan,
                            const l2fib_mac_edm_pd_cb_t *pd_cb)
{
    if (evm == nullptr || edm_handle == nullptr || lwm_chan == nullptr || pd_cb == nullptr) {
        return edm::traced(EDM_ERR_INVALID_ARGS);
    }
    if (const uint32_t status = l2fib_debug_init(evm, edm_handle, lwm_chan, pd_cb); status != 0) {
        return edm::traced(status);
    }
    // The only failure without a trace point.
    if (const uint32_t status = l2fib_mac_edm_init_pd_cb(pd_cb); status != 0) {
        return status;
    }
    if (const uint32_t status = edm::set_wait_time(); status != 0) {
        return edm::traced(status);
    }
    return edm::traced(l2fib_mac_edm_lwm_init(evm, lwm_chan, edm_handle));
}
