// SPDX-License-Identifier: Apache-2.0

// Counts of MAC entries. The count of the whole table comes from its counters, that of a port from a walk. The hardware
// counts a bridge domain; if it cannot, a walk does.

#include "handlers/handlers.h"
#include "handlers/reply.h"
#include "handlers/request.h"
#include "table/shared_cell.h"

namespace edm {

namespace {

uint32_t answer_count(const char *handler, edm_get_rsp_t *response, l2fib_mac_count_info_t &record)
{
    const uint32_t status = answer_get(response, &record, &l2fib_bridge_hw_mac_count_info_parcel);
    return status == 0 ? 0 : mac_request_failed(handler, request_kind::get, status);
}

// Lets the platform count. Returns false if it cannot, or if the threads were started without callbacks.
bool count_by_platform(uint32_t bridge_id, edm_mac_counters_t &counters)
{
    const auto count = hw_edm_pd_cb.bd_mac_count_cb;
    return count != nullptr && count(static_cast<uint16_t>(bridge_id), &counters) == 0;
}

uint32_t answer_counters(const char *handler, edm_get_rsp_t *response, const edm_mac_counters_t &counters)
{
    l2fib_mac_count_info_t record = {};
    l2fib_hw_mac_addr_cnt_fill(&record, &counters);
    return answer_count(handler, response, record);
}

} // namespace

} // namespace edm

// Needs no lock, because each counter is right by itself.
uint32_t l2fib_hw_mac_addr_cnt_edm_get(edm_get_rsp_t *response)
{
    const uint32_t status = l2fib_resync_bridge_domain_or_all(nullptr, response->request);
    if (status != 0) {
        return status;
    }
    const l2fm_edm_mac_pool_t &pool = *l2fm_edm_table_mac_get_pool();
    edm_mac_counters_t counters = {};
    counters.mac_cnt_sum = edm::peek(pool.mac_cnt_sum);
    counters.mac_cnt_plain = edm::peek(pool.mac_cnt_plain);
    counters.mac_cnt_static = edm::peek(pool.mac_cnt_static);
    counters.mac_cnt_local = edm::peek(pool.mac_cnt_local);
    l2fib_mac_count_info_t record = {};
    l2fib_hw_mac_addr_cnt_fill(&record, &counters);
    record.mac_cnt_bridge = edm::peek(pool.mac_cnt_bridge);
    return edm::answer_count(__func__, response, record);
}

// A port that does not exist has no entries.
uint32_t l2fib_hw_mac_addr_bp_cnt_edm_get(uint32_t xcid, edm_get_rsp_t *response)
{
    edm_mac_counters_t counters = {};
    l2fm_edm_table_walk_all_macs_under_bp(l2fib_hw_mac_cnt_walk_cb, &counters, xcid);
    return edm::answer_counters(__func__, response, counters);
}

uint32_t l2fib_hw_mac_addr_bd_cnt_edm_get(const char *bd_name, edm_get_rsp_t *response)
{
    uint32_t bridge_id = 0;
    if (l2fm_edm_table_bd_name_to_id(bd_name, &bridge_id) != 0) {
        return EDM_ERR_NO_ITEM;
    }
    edm_mac_counters_t counters = {};
    if (!edm::count_by_platform(bridge_id, counters)) {
        counters = {};
        l2fm_edm_table_walk_all_macs_under_bd(l2fib_hw_mac_cnt_walk_cb, &counters, bridge_id);
    }
    return edm::answer_counters(__func__, response, counters);
}
