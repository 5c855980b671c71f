// SPDX-License-Identifier: Apache-2.0

// The twelve handlers of the operational database, as the sibling library calls them: on Mac-Edm-Thread, one request at
// a time, without any lock held. platform/l2fib.h describes their arguments and results, registration.cpp their slots.
#pragma once

#include "platform/l2fib.h"

extern "C" {

// MAC entries of one bridge domain or of all.
uint32_t l2fib_hw_mac_addr_edm_datalist(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                        uint32_t filter_kind, uint32_t filter_value, edm_list_req_t *request,
                                        optree_list_t **list);
uint32_t l2fib_hw_mac_addr_edm_list(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                    uint32_t filter_kind, uint32_t filter_value, edm_list_req_t *request,
                                    optree_list_t **list);
uint32_t l2fib_hw_mac_addr_edm_get(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                   edm_get_rsp_t *response);

// MAC entries in order of creation.
uint32_t l2fib_hw_mac_aging_edm_datalist(edm_list_req_t *request, optree_list_t **list);

// MAC entries of one port.
uint32_t l2fib_hw_mac_addr_bp_edm_list(uint32_t request_flags, const char *bd_name, uint32_t xcid,
                                       edm_list_req_t *request, optree_list_t **list);
uint32_t l2fib_hw_mac_addr_bp_edm_datalist(uint32_t request_flags, const char *bd_name, uint32_t xcid,
                                           edm_list_req_t *request, optree_list_t **list);

// Counts of MAC entries: of a bridge domain, a port, everything.
uint32_t l2fib_hw_mac_addr_bd_cnt_edm_get(const char *bd_name, edm_get_rsp_t *response);
uint32_t l2fib_hw_mac_addr_bp_cnt_edm_get(uint32_t xcid, edm_get_rsp_t *response);
uint32_t l2fib_hw_mac_addr_cnt_edm_get(edm_get_rsp_t *response);

// VTEPs.
uint32_t l2fib_hw_vtep_addr_edm_datalist(uint32_t seg_info2, uint32_t seg_info1, edm_list_req_t *request,
                                         optree_list_t **list);
uint32_t l2fib_hw_vtep_addr_edm_list(uint32_t seg_info2, uint32_t seg_info1, edm_list_req_t *request,
                                     optree_list_t **list);
uint32_t l2fib_hw_vtep_addr_edm_get(uint64_t ignored, uint32_t xcid, uint32_t seg_info2, uint32_t vtep_addr,
                                    edm_get_rsp_t *response);
}
