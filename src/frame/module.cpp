// SPDX-License-Identifier: Apache-2.0

#include "frame/module.h"

#include <algorithm>
#include <cstring>

#include "l2fib_mac_edm.h"
#include "table/shared_cell.h"

l2fib_mac_edm_pd_cb_t hw_edm_pd_cb;
uint16_t l2fib_mac_edm_capabilities;
uint32_t *hw_edm_pool;
event_manager_t *hw_edm_evm;
msg_chan_t *hw_edm_lwm_chan;
event_manager_t *l2fib_mac_edm_evm;
event_manager_t *l2fib_mac_cache_evm;
uint32_t conn;
uint32_t current_lwm_clinfo;
char pw_id_to_str_buf[40];
uint32_t l2fib_mac_entry_type;
uint32_t l2fib_evt_mstp_type;

namespace edm {

void *edm_handle;
void *resync_ready;

namespace {

bool has_required_slots(const l2fib_mac_edm_pd_cb_t &pd_cb)
{
    void *slots[EDM_PD_CB_SLOTS];
    std::memcpy(slots, &pd_cb, sizeof(slots));
    return std::all_of(slots, slots + EDM_PD_CB_REQUIRED_SLOTS, [](const void *slot) { return slot != nullptr; });
}

} // namespace
} // namespace edm

uint32_t l2fib_mac_edm_init_pd_cb(const l2fib_mac_edm_pd_cb_t *pd_cb)
{
    if (pd_cb == nullptr || !edm::has_required_slots(*pd_cb)) {
        return EDM_ERR_INVALID_ARGS;
    }
    hw_edm_pd_cb = *pd_cb;
    hw_edm_pd_cb.none9 = nullptr;
    return 0;
}

uint32_t l2fib_mac_edm_defn_init(uint32_t *limit_cell, uint32_t limit)
{
    if (limit_cell == nullptr) {
        return EDM_ERR_INVALID_ARGS;
    }
    // Other threads may feed entries meanwhile. A thread that sees the cell must also see the limit in it.
    edm::poke(*limit_cell, limit);
    edm::publish(hw_edm_pool, limit_cell);
    return 0;
}
