// SPDX-License-Identifier: Apache-2.0

// Registers the handlers with the sibling library.

#include "handlers/handlers.h"
#include "l2fib_mac_edm.h"

uint32_t l2fib_hw_mac_addr_edm_fn_init()
{
    const l2fib_hw_edm_handler_table_t table = {
        .mac_datalist = l2fib_hw_mac_addr_edm_datalist,
        .mac_list = l2fib_hw_mac_addr_edm_list,
        .mac_get = l2fib_hw_mac_addr_edm_get,
        .mac_aging_datalist = l2fib_hw_mac_aging_edm_datalist,
        .bp_mac_list = l2fib_hw_mac_addr_bp_edm_list,
        .bp_mac_datalist = l2fib_hw_mac_addr_bp_edm_datalist,
        .empty6 = nullptr,
        .bd_mac_count = l2fib_hw_mac_addr_bd_cnt_edm_get,
        .bp_mac_count = l2fib_hw_mac_addr_bp_cnt_edm_get,
        .mac_count = l2fib_hw_mac_addr_cnt_edm_get,
        .empty10 = nullptr,
        .vtep_datalist = l2fib_hw_vtep_addr_edm_datalist,
        .vtep_list = l2fib_hw_vtep_addr_edm_list,
        .vtep_get = l2fib_hw_vtep_addr_edm_get,
    };
    return l2fib_show_mac_edm_fn_init(&table);
}
