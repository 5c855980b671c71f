/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Sibling layer-2 forwarding library: the forwarding manager's objects, registration of the module's handlers with the
 * operational database, conversion of addresses to the words of item names, and debugging.
 *
 * The library parses the paths of the database's requests. It calls the module's handlers with the parsed keys, on the
 * thread whose event manager the module registered.
 *
 * Threads: any, unless a function says otherwise.
 *
 * Errors: statuses are 0 for success. An unknown object, class or field gives a nonzero status and does no harm.
 */
#pragma once

#include "platform/event.h"
#include "platform/operational_db.h"
#include "platform/trace.h"

L2FIB_BEGIN_DECLS

/*
 * Objects. A class number names a kind of object, a field number one of its values. A context is an 8-byte handle of
 * an object, valid while the caller holds l2fib_lock. A name may be resolved without the lock: if the object is removed
 * before its field is read, the read fails with a status. The segment of a cross-connect is an object whose class is
 * the segment's type.
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
#define L2FIB_FIELD_INTERFACE_SUB_VALUE 23u /* u16; present if the sub-kind is L2FIB_INTERFACE_SUB_KIND_23 */
#define L2FIB_INTERFACE_SUB_KIND_23 23u
#define L2FIB_SEGMENT_PSEUDOWIRE 3u
#define L2FIB_FIELD_PSEUDOWIRE_44 44u /* u32 */
#define L2FIB_SEGMENT_4 4u
#define L2FIB_SEGMENT_VXLAN 5u
#define L2FIB_FIELD_VXLAN_54 54u /* up to L2FIB_VXLAN_54_WORDS words of 32 bits */
#define L2FIB_SEGMENT_33 33u

#define L2FIB_NAME_BUFFER_SIZE 64u
#define L2FIB_VXLAN_54_WORDS 16u

typedef void *l2fib_ctx_t;

/* The library's own lock around its objects. The module takes it while it holds the table lock, never before, and waits
 * for nothing while it holds both. */
L2FIB_EXPORT void l2fib_lock(void);
L2FIB_EXPORT void l2fib_unlock(void);

/* Store the context of the object of `object_class` with this id (a bridge id or an xcid), or with this full name. */
L2FIB_EXPORT uint32_t l2fib_get_plat_ctx_by_id(uint32_t object_class, uint32_t id, l2fib_ctx_t *ctx);
L2FIB_EXPORT uint32_t l2fib_get_plat_ctx_by_name(uint32_t object_class, const char *name, l2fib_ctx_t *ctx);

/* Reads a field of an object into `value`, in host byte order. The comment beside the field gives the size. */
L2FIB_EXPORT uint32_t l2fib_access_field(uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t field, void *value);

/* Stores the type and the context of a cross-connect's first segment. */
L2FIB_EXPORT uint32_t l2fib_get_seg1_by_seg2(uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t *segment_type,
                                             l2fib_ctx_t *segment);

/*
 * Asks the forwarding hardware: `operation` takes an argument of `argument_size` bytes at `argument` and answers into
 * `query`. The module uses one operation, L2FIB_CTL_QUERY_MAC, with an l2fib_mac_query_t. Its argument is a pointer:
 *
 *      argument --> [ pointer, 8 bytes ] --> l2fib_mac_query_request_t
 */
L2FIB_EXPORT uint32_t l2fib_platform_ctl_wrapper(uint32_t operation, uint32_t argument_size, void *argument,
                                                 void *query);

#define L2FIB_CTL_QUERY_MAC 11u

/* Bytes without a name are zero. */
typedef struct l2fib_mac_query_request {
    uint8_t reserved0[120];
    uint32_t bridge_id;
    uint8_t reserved1[940];
} l2fib_mac_query_request_t;

static_assert(offsetof(l2fib_mac_query_request_t, bridge_id) == 120, "MAC query layout");
static_assert(sizeof(l2fib_mac_query_request_t) == 1064, "MAC query layout");

/* The platform sets this bit of l2fib_mac_query_t::state if the entry is static. */
#define L2FIB_MAC_QUERY_F2 0x20u
#define L2FIB_MAC_QUERY_STATIC L2FIB_MAC_QUERY_F2

typedef struct l2fib_mac_query {
    uint8_t reserved0[9];
    uint8_t mac_addr[6]; /* in: wire order */
    uint8_t reserved1[17];
    uint8_t state; /* out: L2FIB_MAC_QUERY_ bits */
    uint8_t reserved2[23];
} l2fib_mac_query_t;

static_assert(offsetof(l2fib_mac_query_t, mac_addr) == 9, "MAC query layout");
static_assert(offsetof(l2fib_mac_query_t, state) == 32, "MAC query layout");
static_assert(sizeof(l2fib_mac_query_t) == 56, "MAC query layout");

/*
 * Handlers of the operational database. Each returns a status: 0, one of the module's codes, or the status of a failed
 * call. If a list handler succeeds, it has stored the reply list in the context. If it fails, it has freed the list.
 *
 * Names are full names, group and bridge domain joined by ":". MAC addresses are 6 bytes in wire order. The address of
 * a VTEP is a number whose bytes in memory are the address in network byte order: 192.0.2.1 is c0 00 02 01 in memory.
 */

/* Request flags. */
#define EDM_REQ_ONLY_FLAGGED 0x20u /* answer with entries that have one of the handler's flagged bits only */
#define EDM_REQ_RESYNC_ALL 0x40u   /* resync everything before the answer, not only the port */

/* Filter kinds of the MAC list by bridge domain. */
#define EDM_FILTER_VTEP 0x1u /* the filter value is a VTEP's address */
#define EDM_FILTER_PORT 0x2u /* the filter value is seg_info2 of a VXLAN port */

/* A null `bd_name` means all bridge domains, a null `mac_addr` all addresses. */
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
/* An attribute of 0 matches all ports. */
typedef uint32_t (*edm_vtep_list_fn)(uint32_t seg_info2, uint32_t seg_info1, edm_list_req_t *request,
                                     optree_list_t **list);
typedef uint32_t (*edm_vtep_get_fn)(uint64_t ignored, uint32_t xcid, uint32_t seg_info2, uint32_t vtep_addr,
                                    edm_get_rsp_t *response);

/* The handler table. Two of its fourteen slots are empty. */
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

/* Takes the handlers. Reads the table during the call only. */
L2FIB_EXPORT uint32_t l2fib_show_mac_edm_fn_init(const l2fib_hw_edm_handler_table_t *table);

/* Registers the data manager under a prefix of the database's paths. From then on the thread that serves `evm` runs the
 * handlers. */
L2FIB_EXPORT uint32_t l2fib_show_mac_edm_optree_init(event_manager_t *evm, const char *prefix);

/* The action table. The module fills one of its slots. An action returns a status. */
typedef uint32_t (*l2fib_action_fn)(optree_request_t *request);

#define L2FIB_ACTION_SLOTS 16u
#define L2FIB_ACTION_SLOT_MAC_EDM 10u

typedef struct l2fib_action_table {
    l2fib_action_fn action[L2FIB_ACTION_SLOTS];
} l2fib_action_table_t;

/* Takes the actions. Reads the table during the call only. */
L2FIB_EXPORT uint32_t l2fib_action_mac_edm_fn_init(const l2fib_action_table_t *table);

/* Registers the action data manager. From then on the thread that serves `evm` runs the actions. */
L2FIB_EXPORT uint32_t l2fib_action_mac_edm_init(event_manager_t *evm);

/* Convert between an address and the three 16-bit words that item names print: 02:00:00:00:0a:01 is 200, 0, a01. */
L2FIB_EXPORT void l2fib_macaddr_to_swords(const uint8_t *mac_addr, uint16_t *words);
L2FIB_EXPORT void macaddr_lwordston(const uint32_t *words, uint8_t *mac_addr);

/* Sets up debugging. The arguments are those of l2fib_mac_edm_init. */
L2FIB_EXPORT uint32_t l2fib_debug_init(void *evm, void *edm_handle, void *lwm_chan, const void *pd_cb);

/* Returns the enabled debug levels, a set of bits. */
L2FIB_EXPORT uint32_t l2fib_debug_get_enabled_bitset(void);

/* Prints a debug message of `function` at `level`, a set of bits. */
L2FIB_EXPORT void l2vpn_vdbgf(l2fib_debug_ctx_t *ctx, uint32_t level, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

L2FIB_END_DECLS
