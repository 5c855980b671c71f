/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Sibling layer-2 forwarding library: the forwarding manager's objects, the registration of the module's handlers with
 * the operational database, the conversion of addresses to the words of item names, and debugging.
 *
 * The library parses the paths of the database's requests and calls the module's handlers, on the thread whose event
 * manager it was registered on, with the keys it has parsed.
 *
 * Statuses are 0 for success. An unknown object, class or field is a status, never harm.
 */
#pragma once

#include "platform/event.h"
#include "platform/operational_db.h"
#include "platform/trace.h"

L2FIB_BEGIN_DECLS

/*
 * Objects. A class number names a kind of object, a field number one of its values. Contexts are 8-byte handles, good
 * as long as l2fib_lock is held. A name is resolved without it: the object may be gone before its field is read, which
 * is a status then. The segment of a cross-connect is an object whose class is the segment's type.
 */
#define L2FIB_CLASS_BRIDGE_DOMAIN 11u
#define L2FIB_FIELD_BD_ID 94u    /* u32 */
#define L2FIB_FIELD_BD_NAME 146u /* text in a buffer of L2FIB_NAME_BUFFER_SIZE bytes */
#define L2FIB_CLASS_CROSS_CONNECT 13u
#define L2FIB_FIELD_XC_126 126u /* u32 */

#define L2FIB_SEGMENT_INTERFACE 2u
#define L2FIB_FIELD_INTERFACE_HANDLE 2u     /* u32 */
#define L2FIB_FIELD_INTERFACE_3 3u          /* u32 */
#define L2FIB_FIELD_INTERFACE_SUB_KIND 5u   /* u32 */
#define L2FIB_FIELD_INTERFACE_SUB_VALUE 23u /* u16; there when the sub-kind is L2FIB_INTERFACE_SUB_KIND_23 */
#define L2FIB_INTERFACE_SUB_KIND_23 23u
#define L2FIB_SEGMENT_PSEUDOWIRE 3u
#define L2FIB_FIELD_PSEUDOWIRE_44 44u /* u32 */
#define L2FIB_SEGMENT_4 4u
#define L2FIB_SEGMENT_VXLAN 5u
#define L2FIB_FIELD_VXLAN_54 54u /* at most L2FIB_VXLAN_54_WORDS words of 32 bits */
#define L2FIB_SEGMENT_33 33u

#define L2FIB_NAME_BUFFER_SIZE 64u
#define L2FIB_VXLAN_54_WORDS 16u

typedef void *l2fib_ctx_t;

/* The library's own lock around its objects. The module takes it inside the table lock only, and never waits with it.
 */
L2FIB_EXPORT void l2fib_lock(void);
L2FIB_EXPORT void l2fib_unlock(void);

/* The object of `object_class` with this id (a bridge id or an xcid), or with this name. */
L2FIB_EXPORT uint32_t l2fib_get_plat_ctx_by_id(uint32_t object_class, uint32_t id, l2fib_ctx_t *ctx);
L2FIB_EXPORT uint32_t l2fib_get_plat_ctx_by_name(uint32_t object_class, const char *name, l2fib_ctx_t *ctx);

/* Reads a field of an object into `value`, which is as large as the field's comment says. */
L2FIB_EXPORT uint32_t l2fib_access_field(uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t field, void *value);

/* The type and the context of a cross-connect's first segment. */
L2FIB_EXPORT uint32_t l2fib_get_seg1_by_seg2(uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t *segment_type,
                                             l2fib_ctx_t *segment);

/*
 * A question to the forwarding hardware: `operation` with an argument of `argument_size` bytes at `argument`, answered
 * into `query`. The module asks operation 11, whose argument is a cell that holds the address of an
 * l2fib_mac_query_request_t, with an l2fib_mac_query_t.
 */
L2FIB_EXPORT uint32_t l2fib_platform_ctl_wrapper(uint32_t operation, uint32_t argument_size, void *argument,
                                                 void *query);

#define L2FIB_CTL_QUERY_MAC 11u

typedef struct l2fib_mac_query_request {
    uint8_t reserved0[120];
    uint32_t bridge_id;
    uint8_t reserved1[940];
} l2fib_mac_query_request_t;

static_assert(offsetof(l2fib_mac_query_request_t, bridge_id) == 120, "MAC query layout");
static_assert(sizeof(l2fib_mac_query_request_t) == 1064, "MAC query layout");

/* Set by the platform in l2fib_mac_query_t::state: the entry has flag 0x0002. */
#define L2FIB_MAC_QUERY_F2 0x20u

typedef struct l2fib_mac_query {
    uint8_t reserved0[9];
    uint8_t mac_addr[6];
    uint8_t reserved1[17];
    uint8_t state;
    uint8_t reserved2[23];
} l2fib_mac_query_t;

static_assert(offsetof(l2fib_mac_query_t, mac_addr) == 9, "MAC query layout");
static_assert(offsetof(l2fib_mac_query_t, state) == 32, "MAC query layout");
static_assert(sizeof(l2fib_mac_query_t) == 56, "MAC query layout");

/*
 * Handlers of the operational database. Every one returns a status: 0, one of the module's codes, or the status of a
 * call that failed. A list handler that fails has freed the reply list; one that succeeds has handed it back in the
 * context. Names are full names, group and bridge domain joined by ":"; addresses are 6 bytes in wire order.
 */

/* Request flags: only entries with one of the handler's flagged bits; resynchronise everything, not just the port. */
#define EDM_REQ_ONLY_FLAGGED 0x20u
#define EDM_REQ_RESYNC_ALL 0x40u

/* Filter kinds of the MAC list by bridge domain. */
#define EDM_FILTER_VTEP 0x1u /* value: the address as the four bytes in network byte order lie in memory */
#define EDM_FILTER_PORT 0x2u /* value: seg_info2 of a VXLAN port */

/* `bd_name` and `mac_addr` may be null: all bridge domains, all addresses. */
typedef uint32_t (*edm_mac_list_fn)(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                    uint32_t filter_kind, uint32_t filter_value, edm_list_req_t *request,
                                    optree_list_t **list);
typedef uint32_t (*edm_mac_get_fn)(uint32_t request_flags, const char *bd_name, const uint8_t *mac_addr,
                                   edm_get_rsp_t *response);
typedef uint32_t (*edm_mac_aging_fn)(edm_list_req_t *request, optree_list_t **list);
typedef uint32_t (*edm_bp_mac_list_fn)(uint32_t request_flags, const char *bd_name, uint32_t xcid,
                                       edm_list_req_t *request, optree_list_t **list);
typedef uint32_t (*edm_bd_mac_count_fn)(const char *bd_name, edm_get_rsp_t *response);
typedef uint32_t (*edm_bp_mac_count_fn)(uint32_t xcid, edm_get_rsp_t *response);
typedef uint32_t (*edm_mac_count_fn)(edm_get_rsp_t *response);
/* The two attributes match any when 0. */
typedef uint32_t (*edm_vtep_list_fn)(uint32_t seg_info2, uint32_t seg_info1, edm_list_req_t *request,
                                     optree_list_t **list);
/* `vtep_addr` is the address as its four bytes in network byte order lie in memory. */
typedef uint32_t (*edm_vtep_get_fn)(uint64_t ignored, uint32_t xcid, uint32_t seg_info2, uint32_t vtep_addr,
                                    edm_get_rsp_t *response);

/* The handler table: fourteen slots of which two are empty. */
typedef struct l2fib_hw_edm_handler_table {
    edm_mac_list_fn mac_datalist;        /*  0 */
    edm_mac_list_fn mac_list;            /*  1 */
    edm_mac_get_fn mac_get;              /*  2 */
    edm_mac_aging_fn mac_aging_datalist; /*  3 */
    edm_bp_mac_list_fn bp_mac_list;      /*  4 */
    edm_bp_mac_list_fn bp_mac_datalist;  /*  5 */
    void *empty6;                        /*  6 */
    edm_bd_mac_count_fn bd_mac_count;    /*  7 */
    edm_bp_mac_count_fn bp_mac_count;    /*  8 */
    edm_mac_count_fn mac_count;          /*  9 */
    void *empty10;                       /* 10 */
    edm_vtep_list_fn vtep_datalist;      /* 11 */
    edm_vtep_list_fn vtep_list;          /* 12 */
    edm_vtep_get_fn vtep_get;            /* 13 */
} l2fib_hw_edm_handler_table_t;

static_assert(sizeof(l2fib_hw_edm_handler_table_t) == 14 * sizeof(void *), "handler table layout");
static_assert(offsetof(l2fib_hw_edm_handler_table_t, bd_mac_count) == 7 * sizeof(void *), "handler table layout");
static_assert(offsetof(l2fib_hw_edm_handler_table_t, vtep_datalist) == 11 * sizeof(void *), "handler table layout");

/* Takes the handlers; the table is read during the call only. */
L2FIB_EXPORT uint32_t l2fib_show_mac_edm_fn_init(const l2fib_hw_edm_handler_table_t *table);

/* Registers the data manager under a prefix of the database's paths; requests arrive on `evm` from then on. */
L2FIB_EXPORT uint32_t l2fib_show_mac_edm_optree_init(event_manager_t *evm, const char *prefix);

/* The action table: only one of its entries is the module's. */
typedef uint32_t (*l2fib_action_fn)(optree_request_t *request);

#define L2FIB_ACTION_SLOTS 16u
#define L2FIB_ACTION_SLOT_MAC_EDM 10u

typedef struct l2fib_action_table {
    l2fib_action_fn action[L2FIB_ACTION_SLOTS];
} l2fib_action_table_t;

/* Takes the actions; the table is read during the call only. */
L2FIB_EXPORT uint32_t l2fib_action_mac_edm_fn_init(const l2fib_action_table_t *table);

/* Registers the action data manager; actions arrive on `evm` from then on. */
L2FIB_EXPORT uint32_t l2fib_action_mac_edm_init(event_manager_t *evm);

/* The three 16-bit words that an address is printed as in item names, and back. */
L2FIB_EXPORT void l2fib_macaddr_to_swords(const uint8_t *mac_addr, uint16_t *words);
L2FIB_EXPORT void macaddr_lwordston(const uint32_t *words, uint8_t *mac_addr);

/* Debugging. The four arguments of the set-up are those of the module's own start-up. */
L2FIB_EXPORT uint32_t l2fib_debug_init(void *evm, void *edm_handle, void *lwm_chan, const void *pd_cb);
L2FIB_EXPORT uint32_t l2fib_debug_get_enabled_bitset(void);

/* Prints a debug message of `function` at `level`, a bit set. */
L2FIB_EXPORT void l2vpn_vdbgf(l2fib_debug_ctx_t *ctx, uint32_t level, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

L2FIB_END_DECLS
