/* SPDX-License-Identifier: Apache-2.0 */

/*
 * The cache: what records it holds, how to find, walk, create and destroy them.
 *
 * Everything hangs together like this; arrows upward are pointers in the records, arrows downward are trees:
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
 * Not obvious:
 *  - The dummy port of a bridge domain (xcid 0xffffffff) holds the entries that belong to the bridge domain itself. It
 *    is on its bridge domain's tree only: a lookup by xcid never finds it.
 *  - A port that has moved to another bridge domain keeps its entries, whose own `bridge_id` stays the old one until
 *    they are fed again.
 *  - VTEPs live on ports of bp_type 4 only, and outlive the entries that named them until a sweep.
 *  - One address may stand on several ports of a bridge domain. Lookups by bridge domain take the port of the lowest
 *    xcid.
 *  - Lookups answer what the trees hold, also after direct changes of them. While only this module changes the table,
 *    indexes answer. Some calls go past the indexes, and from the first of them on lookups search the trees until
 *    l2fm_edm_table_deinit, which costs a lookup by bridge domain one search for each of its ports. They are:
 *    ordtree_insert, ordtree_delete and ordtree_finish on a tree of this table; the four accessors that set or clear
 *    `bp` and `bd`; l2fm_edm_table_bp_alloc_and_fill; l2fm_edm_table_bp_mac_table_destroy and
 *    l2fm_edm_table_bd_bp_table_destroy. The hosting process must not write `bp`, `bd`, or the key of a record that is
 *    in a tree, into the record itself: nothing would notice.
 *
 * Locking: every function but the walks, l2fm_edm_table_bd_destroy and l2fm_edm_table_bp_destroy expects its caller to
 * hold the table lock (l2fib_mac_edm_mutex_lock), or that no other thread uses the table. Records stay valid while the
 * lock is held and nobody destroys them; a caller that pages keeps a key between two holds, never a pointer.
 *
 * Null arguments are answered by null or a status, by lookups silently; a tree that does not run by a trace point and
 * null.
 */
#pragma once

#include "l2fib_mac_edm.h"
#include "platform/export.h"
#include "platform/ordtree.h"

L2FIB_BEGIN_DECLS

/* ---- Records ---- */

#define EDM_XCID_NONE 0u
#define EDM_XCID_DUMMY 0xffffffffu
#define EDM_NODE_UNKNOWN 0xffffffffu

#define EDM_BD_NAME_SIZE 61u

/* A bridge domain. It exists from the first entry fed for its id until it is destroyed; its name is read once. */
typedef struct l2fm_edm_bd {
    uint32_t bridge_id;             /* at most 16 bits wide */
    char bd_name[EDM_BD_NAME_SIZE]; /* full name, group ":" bridge domain; empty if it has more than 60 characters */
    ordtree_t bp_tree;              /* its ports by xcid, dummy port included */
} l2fm_edm_bd_t;

/* Kinds of port, from the segment of the cross-connect, and what the three attributes are. */
#define EDM_BP_TYPE_NONE 0u       /* dummy port, or a segment of unknown kind: no attributes */
#define EDM_BP_TYPE_INTERFACE 1u  /* interface handle; interface field 3; sub-value of sub-kind 23 */
#define EDM_BP_TYPE_PSEUDOWIRE 2u /* pseudowire field 44; cross-connect field 126 */
#define EDM_BP_TYPE_3 3u          /* no attributes */
#define EDM_BP_TYPE_VXLAN 4u      /* fourth word of VXLAN field 54; its first word */
#define EDM_BP_TYPE_5 5u          /* no attributes */

/* A bridge port: an attachment of a bridge domain. */
typedef struct l2fm_edm_bp {
    uint32_t refresh_pending; /* nonzero: the next feed for the port reads its attributes again, or moves it */
    uint8_t bp_type;
    uint32_t seg_info1;
    uint32_t seg_info2;
    uint16_t seg_info3;
    uint32_t xcid;
    struct l2fm_edm_bd *bd; /* null after a move that failed */
    ordtree_t mac_tree;     /* its entries by address */
    ordtree_t vtep_tree;    /* its VTEPs by address; runs for EDM_BP_TYPE_VXLAN only */
} l2fm_edm_bp_t;

/* Membership of a MAC entry in the list of all entries; points to itself while the entry is not on it. */
typedef struct l2fm_edm_ll_link {
    struct l2fm_edm_ll_link *next;
    struct l2fm_edm_ll_link *prev;
} l2fm_edm_ll_link_t;

/*
 * A MAC entry. Its flags choose the variant it is allocated as, and the variant never changes in place: with
 * EDM_MAC_PBB an l2fm_edm_mac_pbb_t, else with EDM_MAC_VNI an l2fm_edm_mac_vni_t, else the base record alone.
 */
typedef struct l2fm_edm_mac {
    uint32_t bridge_id;
    uint32_t xcid;          /* as fed; finds the port again when `bp` is null */
    struct l2fm_edm_bp *bp; /* the port that holds the entry */
    uint8_t mac_addr[6];    /* wire order */
    uint16_t flags;         /* EDM_MAC_ bits */
    uint64_t update_stamp;  /* fts_get_stamp_fast at creation and at each update */
    uint32_t hw_timestamp;  /* seconds since the epoch; counts with EDM_MAC_TIMESTAMP_VALID */
    uint32_t node_id;       /* the node that owns the port, or EDM_NODE_UNKNOWN */
    l2fm_edm_ll_link_t list_link;
    uint16_t ext_attr;
    uint16_t ext_flags;
    uint32_t aux_value; /* nothing writes it: 0 */
    /* The table's own: pointers that chain the entries of one address, whatever their port. Their low bits remember
     * whether and how the entry was counted, so that it can be uncounted the same way. */
    uintptr_t same_addr_next;
    uintptr_t same_addr_prev;
} l2fm_edm_mac_t;

/* The extension of both variants begins at the same place: in an entry with both flags the VTEP's address overlays the
 * first four bytes of the backbone address. */
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

static_assert(sizeof(l2fm_edm_mac_t) == 80, "a base record fills ten words");
static_assert(offsetof(l2fm_edm_mac_pbb_t, bmac_addr) == sizeof(l2fm_edm_mac_t), "extension place");
static_assert(offsetof(l2fm_edm_mac_vni_t, vtep_addr) == sizeof(l2fm_edm_mac_t), "extension place");

/* A VXLAN tunnel end point seen behind a port. */
typedef struct l2fm_edm_vtep {
    uint8_t vtep_addr[4]; /* IPv4, network byte order */
    uint32_t stale;       /* 1 after a mark, 0 when created or fed again */
} l2fm_edm_vtep_t;

/* The list of all MAC entries, oldest first. An empty list's ends point at the root itself, seen as a link. */
typedef struct l2fm_edm_ll_root {
    l2fm_edm_ll_link_t *ll_first;
    l2fm_edm_ll_link_t *ll_last;
    uint32_t ll_count;
    uint32_t ll_initialised;
} l2fm_edm_ll_root_t;

/* Table-wide counters. They equal what a walk would count, but for `bd_cnt` after a teardown, which zeroes nothing, and
 * but for entries that the hosting process has put into the trees itself: those are not counted, nor uncounted. */
typedef struct l2fm_edm_mac_pool {
    uint32_t mac_cnt_sum;   /* EDM_MAC_STATIC, or not EDM_MAC_LOCAL: the next two together */
    uint32_t mac_cnt_plain; /* neither EDM_MAC_STATIC nor EDM_MAC_LOCAL */
    uint32_t mac_cnt_f2;    /* EDM_MAC_STATIC */
    uint32_t mac_cnt_f4;    /* EDM_MAC_LOCAL */
    uint32_t mac_cnt_f60;   /* EDM_MAC_BD_OWN or EDM_MAC_BD_40 */
    uint32_t mac_cnt_total; /* all entries: what the limit is compared with */
    uint32_t bd_cnt;
    uint32_t bp_cnt; /* dummy ports included */
    uint32_t vtep_cnt;
} l2fm_edm_mac_pool_t;

static_assert(sizeof(l2fm_edm_mac_pool_t) == 36, "nine counters");

/* ---- Start and teardown ---- */

/*
 * Makes the table usable and empty: the list, the two global trees, the six pools, the counters. The cache thread calls
 * it once. Returns 0, or EDM_ERR_NO_RESOURCE when the pools cannot be created; other failing steps are only traced.
 */
L2FIB_EXPORT uint32_t l2fm_edm_table_init(void);

/*
 * Destroys every record and gives all memory back. For the hosting process, when no other thread uses the table any
 * more; the table can be started again afterwards. Returns the status of the last destruction, 0 when there was none.
 */
L2FIB_EXPORT uint32_t l2fm_edm_table_deinit(void);

/* The steps of the start. The cache steps return 0, EDM_ERR_INVALID_ARGS when the tree runs already, or the tree's
 * status; the list step EDM_ERR_INVALID_ARGS when the list was initialised before in this process. */
L2FIB_EXPORT uint32_t l2fm_edm_table_ll_init(void);
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_cache_init(void);
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_cache_init(void);

/* ---- Accessors: no checks, no lock ---- */

L2FIB_EXPORT void l2fm_edm_table_mac_set_bp(l2fm_edm_mac_t *mac, l2fm_edm_bp_t *bp);
L2FIB_EXPORT void l2fm_edm_table_mac_unset_bp(l2fm_edm_mac_t *mac);
L2FIB_EXPORT void l2fm_edm_table_bp_set_bd(l2fm_edm_bp_t *bp, l2fm_edm_bd_t *bd);
L2FIB_EXPORT void l2fm_edm_table_bp_unset_bd(l2fm_edm_bp_t *bp);
L2FIB_EXPORT ordtree_t *l2fm_edm_table_bd_get_root(void);
L2FIB_EXPORT ordtree_t *l2fm_edm_table_bp_get_root(void);
L2FIB_EXPORT l2fm_edm_ll_root_t *l2fm_edm_table_ll_get_root(void);
L2FIB_EXPORT l2fm_edm_mac_pool_t *l2fm_edm_table_mac_get_pool(void);

/* What the two counting operations count; any other kind changes nothing. There is no floor at 0. */
#define EDM_COUNT_BP 0u
#define EDM_COUNT_BD 1u
L2FIB_EXPORT void l2fm_edm_table_cnt_inc(uint32_t kind);
L2FIB_EXPORT void l2fm_edm_table_cnt_dec(uint32_t kind);

/* Append an entry to the list of all entries, once; returns 0. */
L2FIB_EXPORT uint32_t l2fm_edm_table_ll_insert(l2fm_edm_mac_t *mac);
/* Take an entry off the list; one that is not on it changes nothing. Returns the entry's link. */
L2FIB_EXPORT l2fm_edm_ll_link_t *l2fm_edm_table_ll_remove(l2fm_edm_mac_t *mac);

/* ---- Tree access ---- */

/*
 * The element whose key equals the probe's, the one with the smallest greater key, the first one; each for a tree of
 * this table and one of its indexes. The probe is a node: the links at the start of an element.
 */
L2FIB_EXPORT void *l2fm_edm_table_get(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index);
L2FIB_EXPORT void *l2fm_edm_table_get_next(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index);
L2FIB_EXPORT void *l2fm_edm_table_get_first(const ordtree_t *tree, uint32_t index);

/* ---- Lookups of bridge domains ---- */

L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_by_name(const char *name);
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_by_bridgeid(uint32_t bridge_id);
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_first_by_name(void);
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_next_by_name(const l2fm_edm_bd_t *bd);
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_first_by_bridgeid(void);
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_get_next_by_bridgeid(const l2fm_edm_bd_t *bd);

/*
 * Resolves a full name by the forwarding manager, whether the bridge domain is cached or not. Needs no lock. Returns 0
 * with the id stored, or EDM_ERR_NOT_FOUND.
 */
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_name_to_id(const char *name, uint32_t *bridge_id);

/* ---- Lookups of ports ---- */

/* By xcid in all bridge domains: never a dummy port. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_get_by_xcid(uint32_t xcid);
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_get_first(void);
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_get_next(const l2fm_edm_bp_t *bp);

/* Within one bridge domain: EDM_XCID_DUMMY finds its dummy port. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bd_bp_get(const l2fm_edm_bd_t *bd, uint32_t xcid);
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bd_bp_get_first(const l2fm_edm_bd_t *bd);
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bd_bp_get_next(const l2fm_edm_bd_t *bd, const l2fm_edm_bp_t *bp);

/* ---- Lookups of MAC entries and VTEPs of one port: exact ones take its tree, ordered ones the port ---- */

L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bp_mac_get(const ordtree_t *mac_tree, const uint8_t *mac_addr);
/* The entry with the smallest address greater than `mac_addr`, which need not be there. */
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bp_macaddr_get_next(const ordtree_t *mac_tree, const uint8_t *mac_addr);
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bp_mac_get_first(const l2fm_edm_bp_t *bp);
/* Of `mac` only the link and the address are looked at: a zeroed record with an address set will do. */
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bp_mac_get_next(const l2fm_edm_bp_t *bp, const l2fm_edm_mac_t *mac);
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_bp_vtep_get(const ordtree_t *vtep_tree, const uint8_t *vtep_addr);
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_bp_vtep_get_first(const l2fm_edm_bp_t *bp);
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_bp_vtep_get_next(const l2fm_edm_bp_t *bp, const l2fm_edm_vtep_t *vtep);
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_vtep_lookup(const uint8_t *vtep_addr, const l2fm_edm_bp_t *bp);

/* ---- Lookups across ports: of several ports of a bridge domain the one of the lowest xcid ---- */

L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_get_by_xcid_mac(uint32_t xcid, const uint8_t *mac_addr);
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_bd_mac_get(const l2fm_edm_bd_t *bd, const uint8_t *mac_addr);
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_get_by_bridgeid_mac(uint32_t bridge_id, const uint8_t *mac_addr);
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_get_by_bdname_mac(const char *name, const uint8_t *mac_addr);
/* The smallest address of the bridge domain that is greater than `mac_addr`, which need not be there. */
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_get_next_by_bdname_mac(const char *name, const uint8_t *mac_addr);
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_vtep_get_by_bridgeid_vtep(uint32_t bridge_id, const uint8_t *vtep_addr);

/* The entry that a fed descriptor updates: its address on `bp` (not null), else anywhere in the bridge domain with the
 * descriptor's id. */
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_lookup(const l2fib_mac_edm_entry_t *entry, const l2fm_edm_bd_t *bd,
                                                       l2fm_edm_bp_t *bp);

/* ---- Walks ---- */

/*
 * A walk takes the table lock for its whole run and calls back for each item; the callback returns nonzero to go on. It
 * may destroy the item it is given, and nothing else that the walk is in. Returns 0 when all were visited or there was
 * nothing, EDM_ERR_STOPPED when the callback stopped it, EDM_ERR_INVALID_ARGS for a null callback.
 */
typedef uint32_t (*l2fm_edm_mac_walk_fn)(l2fm_edm_mac_t *mac, void *cookie);
typedef uint32_t (*l2fm_edm_vtep_walk_fn)(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *bp);

/* In order of creation. */
L2FIB_EXPORT uint32_t l2fm_edm_table_walk_all_macs(l2fm_edm_mac_walk_fn callback, void *cookie);
/* Ports by xcid, dummy port included, in each the entries by address. */
L2FIB_EXPORT uint32_t l2fm_edm_table_walk_all_macs_under_bd(l2fm_edm_mac_walk_fn callback, void *cookie,
                                                            uint32_t bridge_id);
/* By address. */
L2FIB_EXPORT uint32_t l2fm_edm_table_walk_all_macs_under_bp(l2fm_edm_mac_walk_fn callback, void *cookie, uint32_t xcid);
/* Bridge domains by name, in each the ports by xcid, in each the VTEPs by address. The argument named `unused` is 0. */
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

/* Creates the six pools, or none and EDM_ERR_NO_RESOURCE. */
L2FIB_EXPORT uint32_t l2fm_edm_table_chunk_init(void);
/* Destroys the six pools; the handles are left as they are. */
L2FIB_EXPORT void l2fm_edm_table_chunk_deinit(void);
/* A zero-filled element of a pool, or null. */
L2FIB_EXPORT void *l2fm_edm_table_malloc(uint32_t pool);
/* Releases an element to the pool it came from: 0, EDM_ERR_INVALID_ARGS, or EDM_ERR_NO_RESOURCE when the pool refuses.
 */
L2FIB_EXPORT uint32_t l2fm_edm_table_free(uint32_t pool, void *element);
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_free(l2fm_edm_bd_t *bd);

/* ---- Bridge domains ---- */

/* A new record, named by the forwarding manager, in no tree; null on failure. */
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_alloc_and_fill(uint32_t bridge_id);
/* A new record in the table, for the low 16 bits of `bridge_id`; null on failure. Names are unique: of two bridge
 * domains with names of more than 60 characters, both stored empty, only the first can be created. */
L2FIB_EXPORT l2fm_edm_bd_t *l2fm_edm_table_bd_create(uint32_t bridge_id);
/* Destroys a bridge domain with all its ports, entries and VTEPs; takes the lock itself. 0 when there is none. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_destroy(uint32_t bridge_id);
/* The same under the caller's hold of the lock; to lower `bd_cnt` is the caller's. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bd_destroy_internal(l2fm_edm_bd_t *bd);
/* Destroys every port of a bridge domain and finishes its tree. */
L2FIB_EXPORT void l2fm_edm_table_bd_bp_table_destroy(l2fm_edm_bd_t *bd);

/* ---- Ports ---- */

/* Stores `xcid` in a port and reads its kind and attributes from the forwarding manager; what was read before a failure
 * stays. The xcid is the key of a port that is in a tree: for such a port it must be the one that it has. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_fill(l2fm_edm_bp_t *bp, uint32_t xcid);
/* A new port with its trees, in no tree; `fill` nonzero reads the forwarding manager. Null on failure. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_alloc_and_fill(l2fm_edm_bd_t *bd, uint32_t xcid, uint32_t fill);
/* A new port in the table; null on failure, and for the ids 0 and 0xffffffff. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_create(l2fm_edm_bd_t *bd, uint32_t xcid);
/* A bridge domain's new dummy port; null on failure. */
L2FIB_EXPORT l2fm_edm_bp_t *l2fm_edm_table_bp_create_dummy(l2fm_edm_bd_t *bd, uint32_t xcid);
/* Refreshes a port whose `refresh_pending` is set, or moves it to the bridge domain with this id. Success clears
 * `refresh_pending`, unless the port has become EDM_BP_TYPE_VXLAN and its VTEP tree cannot be started: then the result
 * is 0 as well, and the next feed for the port tries again. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_update(l2fm_edm_bp_t *bp, uint32_t bridge_id);
/* Destroys a port with its entries and VTEPs; takes the lock itself. 0 when there is none. The second form runs under
 * the caller's hold of it. */
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_destroy(uint32_t xcid);
L2FIB_EXPORT uint32_t l2fm_edm_table_bp_destroy_internal(l2fm_edm_bp_t *bp);
/* Destroys every entry of a port and finishes its tree. */
L2FIB_EXPORT void l2fm_edm_table_bp_mac_table_destroy(l2fm_edm_bp_t *bp);

/* ---- MAC entries ---- */

/* A new entry filled from a descriptor, linked nowhere; null on failure. */
L2FIB_EXPORT l2fm_edm_mac_t *l2fm_edm_table_mac_alloc_and_fill(const l2fib_mac_edm_entry_t *entry);
/* Creates an entry under a port, evicting the newest one when the limit is reached. */
L2FIB_EXPORT uint32_t l2fm_edm_table_mac_create(l2fm_edm_bp_t *bp, const l2fib_mac_edm_entry_t *entry);
/* Brings a cached entry to what a descriptor reports: in place, or by replacing it. `mac` may be gone afterwards. */
L2FIB_EXPORT uint32_t l2fm_edm_table_mac_update(l2fm_edm_bp_t *bp, l2fm_edm_mac_t *mac,
                                                const l2fib_mac_edm_entry_t *entry);
/* Unlinks, uncounts and frees an entry; it is gone whatever the status, unless it was null. An entry that
 * l2fm_edm_table_mac_create did not create was never counted, and changes no counter. */
L2FIB_EXPORT uint32_t l2fm_edm_table_mac_destroy(l2fm_edm_mac_t *mac);
/* Destroys the newest entry; EDM_ERR_NOT_FOUND when there is none. */
L2FIB_EXPORT uint32_t l2fm_edm_table_mac_destroy_old_mac(void);
/* Returns an entry to its pool; it must be linked nowhere. */
L2FIB_EXPORT void l2fib_mac_edm_mac_free(l2fm_edm_mac_t *mac);

/* ---- VTEPs ---- */

/* A new record, in no tree; null on failure. */
L2FIB_EXPORT l2fm_edm_vtep_t *l2fm_edm_table_vtep_alloc_and_fill(const uint8_t *vtep_addr);
/* Sees to it that the port has the descriptor's VTEP, unmarked. */
L2FIB_EXPORT uint32_t l2fm_edm_table_vtep_create_modify(const l2fib_mac_edm_entry_t *entry, l2fm_edm_bp_t *bp);
/* Takes a VTEP off its port and frees it; it is gone whatever the status, unless an argument was null. */
L2FIB_EXPORT uint32_t l2fm_edm_table_vtep_destroy(l2fm_edm_vtep_t *vtep, l2fm_edm_bp_t *bp);
/* Returns a VTEP to its pool; it must be in no tree. */
L2FIB_EXPORT void l2fib_mac_edm_vtep_free(l2fm_edm_vtep_t *vtep);

L2FIB_END_DECLS
