// SPDX-License-Identifier: Apache-2.0

// The twelve handlers of the operational database. The sibling library calls them on Mac-Edm-Thread, one request at a
// time, and holds no lock. platform/l2fib.h describes their arguments and results, registration.cpp assigns their
// slots.
#pragma once

#include "l2fib_mac_edm.h"
#include "platform/l2fib.h"

extern "C" {

// MAC entries of one bridge domain or of all.
uint32_t l2fib_hw_mac_addr_edm_datalist(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                        uint32_t filter_kind, uint32_t filter_value, edm_list_req_t *request,
                                        optree_list_t **list) L2FIB_EXCLUDES_TABLE_LOCK;
uint32_t l2fib_hw_mac_addr_edm_list(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                    uint32_t filter_kind, uint32_t filter_value, edm_list_req_t *request,
                                    optree_list_t **list) L2FIB_EXCLUDES_TABLE_LOCK;
uint32_t l2fib_hw_mac_addr_edm_get(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                   edm_get_rsp_t *response) L2FIB_EXCLUDES_TABLE_LOCK;

// MAC entries in order of creation.
uint32_t l2fib_hw_mac_aging_edm_datalist(edm_list_req_t *request, optree_list_t **list) L2FIB_EXCLUDES_TABLE_LOCK;

// MAC entries of one port.
uint32_t l2fib_hw_mac_addr_bp_edm_list(uint32_t request_flags, const char *bd_name, uint32_t xcid,
                                       edm_list_req_t *request, optree_list_t **list) L2FIB_EXCLUDES_TABLE_LOCK;
uint32_t l2fib_hw_mac_addr_bp_edm_datalist(uint32_t request_flags, const char *bd_name, uint32_t xcid,
                                           edm_list_req_t *request, optree_list_t **list) L2FIB_EXCLUDES_TABLE_LOCK;

// Counts of MAC entries: of a bridge domain, of a port, of the whole table.
uint32_t l2fib_hw_mac_addr_bd_cnt_edm_get(const char *bd_name, edm_get_rsp_t *response) L2FIB_EXCLUDES_TABLE_LOCK;
uint32_t l2fib_hw_mac_addr_bp_cnt_edm_get(uint32_t xcid, edm_get_rsp_t *response) L2FIB_EXCLUDES_TABLE_LOCK;
uint32_t l2fib_hw_mac_addr_cnt_edm_get(edm_get_rsp_t *response) L2FIB_EXCLUDES_TABLE_LOCK;

// VTEPs, by the attributes of their ports.
uint32_t l2fib_hw_vtep_addr_edm_datalist(uint32_t seg_info2, uint32_t seg_info1, edm_list_req_t *request,
                                         optree_list_t **list) L2FIB_EXCLUDES_TABLE_LOCK;
uint32_t l2fib_hw_vtep_addr_edm_list(uint32_t seg_info2, uint32_t seg_info1, edm_list_req_t *request,
                                     optree_list_t **list) L2FIB_EXCLUDES_TABLE_LOCK;
uint32_t l2fib_hw_vtep_addr_edm_get(uint64_t ignored, uint32_t xcid, uint32_t seg_info2, uint32_t vtep_addr,
                                    edm_get_rsp_t *response) L2FIB_EXCLUDES_TABLE_LOCK;
}
