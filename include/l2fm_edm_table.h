/* SPDX-License-Identifier: Apache-2.0 */

/*
 * The cache: which records it holds, and how to find, walk, create and destroy them.
 *
 * How the records refer to each other. Arrows upward are pointers in the records, arrows downward are trees:
 *
 *        by name, by bridge id              by xcid (not dummy ports)        in order of creation
 *                 |                                  |                               |
 *                 v          bp_tree by xcid         v      mac_tree by address      v
 *          l2fm_edm_bd_t  <------------------>  l2fm_edm_bp_t  <------------->  l2fm_edm_mac_t
 *                               bd                   |  ^             bp
 *                                vtep_tree by address |  (a VTEP points to nothing)
 *                                                    v
 *                                              l2fm_edm_vtep_t
 *
 * Notes:
 *  - The dummy port of a bridge domain (EDM_XCID_DUMMY) holds the entries that belong to the bridge domain itself. It
 *    is in its bridge domain's tree only: a lookup by xcid never finds it.
 *  - A port that moves to another bridge domain keeps its entries. Their own `bridge_id` stays the old one until the
 *    platform feeds them again.
 *  - VTEPs live on ports of EDM_BP_TYPE_VXLAN only. A VTEP outlives the entries that named it, until a sweep.
 *  - One address may be on several ports of a bridge domain. Lookups by bridge domain take the port with the lowest
 *    xcid.
 *
 * Indexes: while only this module changes the table, indexes beside the trees answer lookups. A lookup always finds
 * what the trees hold, also after another program changed a tree itself. From the first such call on lookups search the
 * trees, until l2fm_edm_table_deinit. A lookup by bridge domain then costs one search for each of its ports. These
 * calls bypass the indexes:
 *  - ordtree_insert, ordtree_delete and ordtree_finish on a tree of this table;
 *  - the four accessors that set or clear `bp` and `bd`;
 *  - l2fm_edm_table_bp_alloc_and_fill, l2fm_edm_table_bp_mac_table_destroy and l2fm_edm_table_bd_bp_table_destroy.
 * The hosting process must not write `bp`, `bd`, or the key of a record that is in a tree, into the record itself: the
 * table would not notice.
 *
 * Locking: a function with L2FIB_REQUIRES_TABLE_LOCK expects its caller to hold the table lock, or that no other thread
 * uses the table. Records stay valid while the caller holds the lock and nobody destroys them. A caller that reads in
 * pages keeps a key between two pages, never a pointer.
 *
 * Errors: functions answer a null argument with null or a status; lookups do not trace it. They answer a tree that does
 * not run with a trace point and null.
 *
 * Example, the ports of a bridge domain:
 *
 *      l2fib_mac_edm_mutex_lock();
 *      const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_name("group:first");
 *      const l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
 *      for (; bp != NULL; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
 *          printf("%u\n", bp->xcid);
 *      }
 *      l2fib_mac_edm_mutex_unlock();
 */
#pragma once

#include "l2fib_mac_edm.h"
#include "platform/export.h"
#include "platform/ordtree.h"

L2FIB_BEGIN_DECLS

/* ---- Records ---- */

#define EDM_NODE_UNKNOWN 0xffffffffu

/* A full name has at most 60 characters, and its final zero. */
#define EDM_BD_NAME_SIZE 61u

/* A bridge domain. The first entry fed for its id creates it, and it exists until it is destroyed. The table reads its
 * name once. */
typedef struct l2fm_edm_bd {
    uint32_t bridge_id;             /* at most 16 bits wide */
    char bd_name[EDM_BD_NAME_SIZE]; /* full name, group ":" bridge domain; empty if it has more than 60 characters */
    ordtree_t bp_tree;              /* its ports by xcid, dummy port included */
} l2fm_edm_bd_t;

/* Kinds of port, by the segment of the cross-connect, and what seg_info1 to seg_info3 hold. */
#define EDM_BP_TYPE_NONE 0u       /* dummy port, or a segment of unknown kind: no attributes */
#define EDM_BP_TYPE_INTERFACE 1u  /* interface handle; interface field 3; sub-value of sub-kind 23 */
#define EDM_BP_TYPE_PSEUDOWIRE 2u /* pseudowire field 44; cross-connect field 126 */
#define EDM_BP_TYPE_3 3u          /* no attributes */
#define EDM_BP_TYPE_VXLAN 4u      /* fourth word of VXLAN field 54; its first word */
#define EDM_BP_TYPE_5 5u          /* no attributes */

/* A bridge port: an attachment of a bridge domain. */
typedef struct l2fm_edm_bp {
    uint32_t refresh_pending; /* nonzero: the next feed for the port reads its attributes again, or moves it */
    uint8_t bp_type;          /* EDM_BP_TYPE_ */
    uint32_t seg_info1;
    uint32_t seg_info2;
    uint16_t seg_info3;
    uint32_t xcid;
    struct l2fm_edm_bd *bd; /* null after a move that failed */
    ordtree_t mac_tree;     /* its entries by address */
    ordtree_t vtep_tree;    /* its VTEPs by address; runs for EDM_BP_TYPE_VXLAN only */
} l2fm_edm_bp_t;

/* Membership of a MAC entry in the list of all entries. The link points to itself while the entry is not in the list.
 */
typedef struct l2fm_edm_ll_link {
    struct l2fm_edm_ll_link *next;
    struct l2fm_edm_ll_link *prev;
} l2fm_edm_ll_link_t;

/*
 * A MAC entry. Its flags choose the variant that the table allocates, which never changes in place:
 *
 *      EDM_MAC_PBB                       l2fm_edm_mac_pbb_t
 *      EDM_MAC_VNI and no EDM_MAC_PBB    l2fm_edm_mac_vni_t
 *      neither                           l2fm_edm_mac_t
 */
typedef struct l2fm_edm_mac {
    uint32_t bridge_id;
    uint32_t xcid;          /* as fed; finds the port again when `bp` is null */
    struct l2fm_edm_bp *bp; /* the port that holds the entry */
    uint8_t mac_addr[6];    /* wire order */
    uint16_t flags;         /* EDM_MAC_ bits */
    uint64_t update_stamp;  /* fts_get_stamp_fast at creation and at each update, in nanoseconds */
    uint32_t hw_timestamp;  /* seconds since the epoch; counts with EDM_MAC_TIMESTAMP_VALID */
    uint32_t node_id;       /* the node that owns the port, or EDM_NODE_UNKNOWN */
    l2fm_edm_ll_link_t list_link;
    uint16_t ext_attr;
    uint16_t ext_flags;
    uint32_t aux_value; /* nothing writes it: 0 */
    /* The table's own: a pointer to the place of the entry among those with the same address, null for most entries.
     * Its low bits remember whether and how the entry was counted, so that the table can uncount it the same way. */
    uintptr_t same_addr;
} l2fm_edm_mac_t;

/*
 * The variants. Both extensions begin at the same place. In an entry with both flags the VTEP's address overlays the
 * first four bytes of the backbone address.
 *
 *      0                 72            76   78
 *      +-----------------+-------------+----+
 *      | l2fm_edm_mac_t  | bmac_addr        |       l2fm_edm_mac_pbb_t
 *      +-----------------+-------------+----+
 *      | l2fm_edm_mac_t  | vtep_addr   | reserved    l2fm_edm_mac_vni_t
 *      +-----------------+-------------+------- ...
 */
typedef struct l2fm_edm_mac_pbb {
    l2fm_edm_mac_t mac;
    uint8_t bmac_addr[6]; /* wire order */
} l2fm_edm_mac_pbb_t;

#define EDM_VNI_EXTENSION_SIZE 188u

typedef struct l2fm_edm_mac_vni {
    l2fm_edm_mac_t mac;
    uint8_t vtep_addr[4]; /* IPv4, network byte order */
    uint8_t reserved[EDM_VNI_EXTENSION_SIZE - 4];
} l2fm_edm_mac_vni_t;

static_assert(sizeof(l2fm_edm_mac_t) == 72, "a base record fills nine words");
static_assert(offsetof(l2fm_edm_mac_pbb_t, bmac_addr) == sizeof(l2fm_edm_mac_t), "extension place");
static_assert(offsetof(l2fm_edm_mac_vni_t, vtep_addr) == sizeof(l2fm_edm_mac_t), "extension place");

/* A VXLAN tunnel end point behind a port. */
typedef struct l2fm_edm_vtep {
    uint8_t vtep_addr[4]; /* IPv4, network byte order */
    uint32_t stale;       /* 1 after a mark, 0 after its creation and after a feed */
} l2fm_edm_vtep_t;

/* The list of all MAC entries, oldest first. The ends of an empty list point at the root itself, seen as a link. */
typedef struct l2fm_edm_ll_root {
    l2fm_edm_ll_link_t *ll_first;
    l2fm_edm_ll_link_t *ll_last;
    uint32_t ll_count;
    uint32_t ll_initialised;
} l2fm_edm_ll_root_t;

/*
 * Table-wide counters. They equal what a walk would count, with two exceptions. A teardown zeroes no counter, so
 * `bd_cnt` keeps its value. Entries that the hosting process has put into the trees itself are never counted.
 *
 * Which counters an entry adds one to, besides mac_cnt_total:
 *
 *      flags of the entry                 mac_cnt_   sum   plain   static   local   bridge
 *      neither EDM_MAC_STATIC nor EDM_MAC_LOCAL       1     1
 *      EDM_MAC_STATIC                                 1             1
 *      EDM_MAC_LOCAL                                                         1
 *      EDM_MAC_STATIC and EDM_MAC_LOCAL               1             1        1
 *      also EDM_MAC_BD_OWN or EDM_MAC_BD_40                                          1
 */
typedef struct l2fm_edm_mac_pool {
    uint32_t mac_cnt_sum;
    uint32_t mac_cnt_plain;
    L2FIB_TWO_NAMES(uint32_t, mac_cnt_f2, mac_cnt_static);
    L2FIB_TWO_NAMES(uint32_t, mac_cnt_f4, mac_cnt_local);
    L2FIB_TWO_NAMES(uint32_t, mac_cnt_f60, mac_cnt_bridge);
    uint32_t mac_cnt_total; /* all entries: the table compares it with the limit */
    uint32_t bd_cnt;
    uint32_t bp_cnt; /* dummy ports included */
    uint32_t vtep_cnt;
} l2fm_edm_mac_pool_t;

static_assert(sizeof(l2fm_edm_mac_pool_t) == 36, "nine counters");

/* ---- Start and teardown ---- */

/*
 * Makes the table usable and empty: the list, the two global trees, the six pools, the counters. The cache thread calls
 * it once. Returns 0, or EDM_ERR_NO_RESOURCE if it cannot create the pools. It only traces other steps that fail.
 */
L2FIB_EXPORT uint32_t l2fm_edm_table_init(void) L2FIB_REQUIRES_TABLE_LOCK;

/*
 * Destroys all records and releases all memory. The hosting process calls it when no other thread uses the table. It
 * may start the table again afterwards. Returns the status of the last destruction, or 0 if there was none.
 */
L2FIB_EXPORT uint32_t l2fm_edm_table_deinit(void) L2FIB_REQUIRES_TABLE_LOCK;

/* Steps of the start. The list step returns EDM_ERR_INVALID_ARGS if the list was initialised before in this process.
 * The cache steps return EDM_ERR_INVALID_ARGS if the tree runs already, or the tree's status. */
L2FIB_EXPORT uint32_t l2fm_edm_table_ll_init(void) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_cache_init(void) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_cache_init(void) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- Accessors: they check nothing. The addresses that the getters return never change. ---- */

L2FIB_EXPORT void l2fm_edm_table_mac_set_bp(l2fm_edm_mac_t *mac, l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT void l2fm_edm_table_mac_unset_bp(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT void l2fm_edm_table_bp_set_bd(l2fm_edm_bp_t *bp, l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT void l2fm_edm_table_bp_unset_bd(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT ordtree_t *l2fm_edm_table_bd_get_root(void);
L2FIB_EXPORT ordtree_t *l2fm_edm_table_bp_get_root(void);
L2FIB_EXPORT l2fm_edm_ll_root_t *l2fm_edm_table_ll_get_root(void);
L2FIB_EXPORT l2fm_edm_mac_pool_t *l2fm_edm_table_mac_get_pool(void);

/* What the next two functions count. Any other kind changes nothing. A counter wraps below 0. */
#define EDM_COUNT_BP 0u
#define EDM_COUNT_BD 1u
L2FIB_EXPORT void l2fm_edm_table_cnt_inc(uint32_t kind) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT void l2fm_edm_table_cnt_dec(uint32_t kind) L2FIB_REQUIRES_TABLE_LOCK;

/* Appends an entry, which is not in the list yet, to the list of all entries. Returns 0. */
L2FIB_EXPORT uint32_t l2fm_edm_table_ll_insert(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;
/* Removes an entry from the list. Changes nothing if the entry is not in it. Returns the entry's link. */
L2FIB_EXPORT l2fm_edm_ll_link_t *l2fm_edm_table_ll_remove(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- Tree access ---- */

/*
 * Search one index of a tree of this table. They return the element whose key equals the probe's, the one with the
 * smallest greater key, or the first one; null if there is none. The probe is a node: the links at the start of an
 * element.
 */
L2FIB_EXPORT void *l2fm_edm_table_get(const ordtree_t *tree, const ordtree_link_t *probe,
                                      uint32_t index) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT void *l2fm_edm_table_get_next(const ordtree_t *tree, const ordtree_link_t *probe,
                                           uint32_t index) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT void *l2fm_edm_table_get_first(const ordtree_t *tree, uint32_t index) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- Lookups of bridge domains: null if there is none ---- */

L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_by_name(const char *name) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_by_bridgeid(uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_first_by_name(void) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_next_by_name(const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_first_by_bridgeid(void) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_next_by_bridgeid(const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;

/*
 * Asks the forwarding manager for the bridge id of a full name, whether the bridge domain is cached or not. Needs no
 * lock. Returns 0 and stores the id, or returns EDM_ERR_NOT_FOUND.
 */
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_name_to_id(const char *name, uint32_t *bridge_id);

/* ---- Lookups of ports ---- */

/* By xcid in all bridge domains. They never return a dummy port. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_get_by_xcid(uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_get_first(void) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_get_next(const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;

/* Within one bridge domain. EDM_XCID_DUMMY finds its dummy port. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bd_bp_get(const l2fm_edm_bd_t *bd, uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bd_bp_get_first(const l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bd_bp_get_next(const l2fm_edm_bd_t *bd,
                                                          const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- Lookups of MAC entries and VTEPs of one port: exact ones take its tree, ordered ones the port ---- */

L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bp_mac_get(const ordtree_t *mac_tree,
                                                       const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK;
/* Returns the entry with the smallest address greater than `mac_addr`. No entry needs to have that address. */
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bp_macaddr_get_next(const ordtree_t *mac_tree,
                                                                const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bp_mac_get_first(const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
/* Reads the link and the address of `mac` only: a zeroed record with an address works too. */
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bp_mac_get_next(const l2fm_edm_bp_t *bp,
                                                            const l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_bp_vtep_get(const ordtree_t *vtep_tree,
                                                         const uint8_t *vtep_addr) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_bp_vtep_get_first(const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_bp_vtep_get_next(const l2fm_edm_bp_t *bp,
                                                              const l2fm_edm_vtep_t *vtep) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_vtep_lookup(const uint8_t *vtep_addr,
                                                         const l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- Lookups across ports: of several ports of a bridge domain they take the one with the lowest xcid ---- */

L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_get_by_xcid_mac(uint32_t xcid,
                                                                const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bd_mac_get(const l2fm_edm_bd_t *bd,
                                                       const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_get_by_bridgeid_mac(uint32_t bridge_id,
                                                                    const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_get_by_bdname_mac(const char *name,
                                                                  const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK;
/* Returns the smallest address of the bridge domain that is greater than `mac_addr`. */
L2FIB_EXPORT l2fm_edm_mac_t *
l2fm_edm_table_mac_get_next_by_bdname_mac(const char *name, const uint8_t *mac_addr) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT l2fm_edm_vtep_t *
l2fm_edm_table_vtep_get_by_bridgeid_vtep(uint32_t bridge_id, const uint8_t *vtep_addr) L2FIB_REQUIRES_TABLE_LOCK;

/* Returns the entry that a fed descriptor updates: the one with its address on `bp`, else one in the bridge domain with
 * the descriptor's id. `bp` is not null. */
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_lookup(const l2fib_mac_edm_entry_t *entry, const l2fm_edm_bd_t *bd,
                                                       l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- Walks ---- */

/*
 * A walk holds the table lock for its whole run and calls the callback for each item. The callback may destroy the item
 * that it gets, and nothing else on the walk's way. A walk returns 0 at its end, EDM_ERR_STOPPED if the callback
 * stopped it, and EDM_ERR_INVALID_ARGS for a null callback.
 */

/* Results of a callback. Each nonzero value continues the walk. */
#define EDM_WALK_STOP 0u
#define EDM_WALK_CONTINUE 1u

typedef uint32_t (*l2fm_edm_mac_walk_fn)(l2fm_edm_mac_t *mac, void *cookie);
typedef uint32_t (*l2fm_edm_vtep_walk_fn)(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *bp);

/* In order of creation. */
L2FIB_EXPORT uint32_t l2fm_edm_table_walk_all_macs(l2fm_edm_mac_walk_fn callback, void *cookie);
/* By xcid of the port, dummy port included; the entries of a port by address. */
L2FIB_EXPORT uint32_t l2fm_edm_table_walk_all_macs_under_bd(l2fm_edm_mac_walk_fn callback, void *cookie,
                                                            uint32_t bridge_id);
/* By address. */
L2FIB_EXPORT uint32_t l2fm_edm_table_walk_all_macs_under_bp(l2fm_edm_mac_walk_fn callback, void *cookie, uint32_t xcid);
/* By name of the bridge domain, then by xcid of the port, then by address. `unused` is null. */
L2FIB_EXPORT uint32_t l2fm_edm_table_walk_all_vteps(l2fm_edm_vtep_walk_fn callback);
L2FIB_EXPORT uint32_t l2fm_edm_table_walk_all_vteps_under_bd(l2fm_edm_vtep_walk_fn callback, void *unused,
                                                             uint32_t bridge_id);
L2FIB_EXPORT uint32_t l2fm_edm_table_walk_all_vteps_under_bp(l2fm_edm_vtep_walk_fn callback, void *unused,
                                                             uint32_t xcid);

/* ---- Pools ---- */

#define EDM_POOL_MAC 0u
#define EDM_POOL_MAC_PBB 1u
#define EDM_POOL_MAC_VNI 2u
#define EDM_POOL_BP 3u
#define EDM_POOL_BD 4u
#define EDM_POOL_VTEP 5u
#define EDM_POOL_COUNT 6u

/* Creates the six pools. If one fails, it destroys the others and returns EDM_ERR_NO_RESOURCE. */
L2FIB_EXPORT uint32_t l2fm_edm_table_chunk_init(void) L2FIB_REQUIRES_TABLE_LOCK;
/* Destroys the six pools. Their handles keep their values. */
L2FIB_EXPORT void l2fm_edm_table_chunk_deinit(void) L2FIB_REQUIRES_TABLE_LOCK;
/* Returns a zero-filled element of a pool, or null. The caller owns it until l2fm_edm_table_free. */
L2FIB_EXPORT void *l2fm_edm_table_malloc(uint32_t pool) L2FIB_REQUIRES_TABLE_LOCK;
/* Releases an element to its pool. Returns 0, EDM_ERR_INVALID_ARGS, or EDM_ERR_NO_RESOURCE if the pool refuses it. */
L2FIB_EXPORT uint32_t l2fm_edm_table_free(uint32_t pool, void *element) L2FIB_REQUIRES_TABLE_LOCK;
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_free(l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- Bridge domains ---- */

/* Returns a new record in no tree, with the name that the forwarding manager has for it, or null. */
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_alloc_and_fill(uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK;
/* Returns a new record in the table for the low 16 bits of `bridge_id`, or null. Names are unique. A name of more than
 * 60 characters is stored empty, so only one such bridge domain can exist. */
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_create(uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK;
/* Takes the lock and destroys a bridge domain with all its ports, entries and VTEPs. Returns 0 if there is none. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_destroy(uint32_t bridge_id);
/* The same under the caller's lock. The caller lowers `bd_cnt` itself. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_destroy_internal(l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;
/* Destroys all ports of a bridge domain and finishes its tree. */
L2FIB_EXPORT void l2fm_edm_table_bd_bp_table_destroy(l2fm_edm_bd_t *bd) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- Ports ---- */

/* Stores `xcid` in a port and reads its kind and attributes from the forwarding manager. On failure it keeps what it
 * has read so far. The xcid is a key: a port that is in a tree must keep its own. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_fill(l2fm_edm_bp_t *bp, uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK;
/* Returns a new port with its own trees, in no tree, or null. A nonzero `fill` calls l2fm_edm_table_bp_fill. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_alloc_and_fill(l2fm_edm_bd_t *bd, uint32_t xcid,
                                                             uint32_t fill) L2FIB_REQUIRES_TABLE_LOCK;
/* Returns a new port in the table, or null. It refuses EDM_XCID_NONE and EDM_XCID_DUMMY. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_create(l2fm_edm_bd_t *bd, uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK;
/* Returns a new dummy port of a bridge domain, or null. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_create_dummy(l2fm_edm_bd_t *bd, uint32_t xcid) L2FIB_REQUIRES_TABLE_LOCK;
/* Refreshes a port whose `refresh_pending` is set, or moves it to the bridge domain with this id. Success clears
 * `refresh_pending`, with one exception: the port has become EDM_BP_TYPE_VXLAN and its VTEP tree does not start. The
 * result is then 0, and the next feed for the port tries again. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_update(l2fm_edm_bp_t *bp, uint32_t bridge_id) L2FIB_REQUIRES_TABLE_LOCK;
/* Takes the lock and destroys a port with its entries and VTEPs. Returns 0 if there is none. The second form runs under
 * the caller's lock. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_destroy(uint32_t xcid);
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_destroy_internal(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
/* Destroys all entries of a port and finishes its tree. */
L2FIB_EXPORT void l2fm_edm_table_bp_mac_table_destroy(l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- MAC entries ---- */

/* Returns a new entry with a descriptor's values, in no tree and no list, or null. */
L2FIB_EXPORT l2fm_edm_mac_t *
l2fm_edm_table_mac_alloc_and_fill(const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK;
/* Creates an entry on a port. If the table is full, it evicts the newest entry first. */
L2FIB_EXPORT uint32_t l2fm_edm_table_mac_create(l2fm_edm_bp_t *bp,
                                                const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK;
/* Updates a cached entry to what a descriptor reports, in place or by replacing it. `mac` may be invalid afterwards. */
L2FIB_EXPORT uint32_t l2fm_edm_table_mac_update(l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac,
                                                const l2fib_mac_edm_entry_t *entry) L2FIB_REQUIRES_TABLE_LOCK;
/* Unlinks, uncounts and frees an entry, also if it returns a failure. Only l2fm_edm_table_mac_create counts entries;
 * any other entry changes no counter here. */
L2FIB_EXPORT uint32_t l2fm_edm_table_mac_destroy(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;
/* Destroys the newest entry. Returns EDM_ERR_NOT_FOUND if there is none. */
L2FIB_EXPORT uint32_t l2fm_edm_table_mac_destroy_old_mac(void) L2FIB_REQUIRES_TABLE_LOCK;
/* Releases an entry, which is in no tree and no list, to its pool. */
L2FIB_EXPORT void l2fib_mac_edm_mac_free(l2fm_edm_mac_t *mac) L2FIB_REQUIRES_TABLE_LOCK;

/* ---- VTEPs ---- */

/* Returns a new record in no tree, or null. */
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_vtep_alloc_and_fill(const uint8_t *vtep_addr) L2FIB_REQUIRES_TABLE_LOCK;
/* Creates the descriptor's VTEP on the port, or clears its mark if it exists. */
L2FIB_EXPORT uint32_t l2fm_edm_table_vtep_create_modify(const l2fib_mac_edm_entry_t *entry,
                                                        l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
/* Removes a VTEP from its port and frees it, also if it returns a failure. Does nothing if an argument is null. */
L2FIB_EXPORT uint32_t l2fm_edm_table_vtep_destroy(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *bp) L2FIB_REQUIRES_TABLE_LOCK;
/* Releases a VTEP, which is in no tree, to its pool. */
L2FIB_EXPORT void l2fib_mac_edm_vtep_free(l2fm_edm_vtep_t *vtep) L2FIB_REQUIRES_TABLE_LOCK;

L2FIB_END_DECLS
