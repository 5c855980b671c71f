/* SPDX-License-Identifier: Apache-2.0 */

/*
 * The hardware MAC-table data manager: the interface to the forwarding process and to the platform layer that drives
 * the forwarding hardware. Read this header first; l2fm_edm_table.h tells what the cache holds and how to read it.
 *
 * The life of the module:
 *
 *   1. The forwarding process calls l2fib_mac_edm_init once, with a table of callbacks. Two threads start: the cache
 *      thread creates the table and tells so by slot 7 of the callbacks; Mac-Edm-Thread serves the operational
 *      database. There is no shut-down: the module lives as long as the process.
 *   2. The platform defines how many MAC entries may be cached (l2fib_mac_edm_defn_init), and reports every entry that
 *      the hardware holds or changes (l2fib_mac_edm_add).
 *   3. Before it answers a request, the module asks the platform to bring a scope up to date (slots 0 to 2). The
 *      platform marks the scope, feeds again what the hardware holds, sweeps what stayed marked, and reports the end
 *      with l2fib_mac_edm_resync_complete. It may do so inside the callback or later, on any thread.
 *
 * Not obvious:
 *  - The 16-bit `flags` word of an entry decides nearly everything: which port holds the entry, which variant of the
 *    record it gets, how it is updated and counted. The EDM_MAC_ constants below name its bits.
 *  - A full table gives up its newest entry for each new one; the oldest stay.
 *  - Feeding does not remove. Entries go by mark, feed and sweep, with their port or bridge domain, or when the
 *    forwarding process destroys them under the lock.
 *
 * Threads: every function may be called from any thread unless it says otherwise. All of them take the table lock for
 * themselves where they need it; it is recursive, so a caller may hold it already (l2fib_mac_edm_mutex_lock) to make
 * several calls one step. Nobody may wait for a resync with the table lock held.
 *
 * Statuses: 0 for success, one of the codes below, or the unchanged nonzero status of a platform call that failed.
 * Failures are also trace points, except for most of those that are the caller's own: a null argument, a callback table
 * with an empty slot, a number out of range.
 */
#pragma once

#include "platform/event.h"
#include "platform/export.h"
#include "platform/operational_db.h"
#include "platform/parcel.h"

L2FIB_BEGIN_DECLS

/* ---- Status codes ---- */

#define EDM_ERR_INVALID_ARGS 0xa5138016u /* an argument is missing or out of range; the module is not ready */
#define EDM_ERR_NO_RESOURCE 0xc513800cu  /* a record could not be created or refreshed; no room under the limit */
#define EDM_ERR_STOPPED 0x8513800bu      /* a walk was stopped by its callback; an update was refused */
#define EDM_ERR_RESYNC 0x8513ac00u       /* the platform reported that a resync failed */
#define EDM_ERR_NOT_FOUND 0x45138200u    /* a name does not resolve; there is nothing to remove */
#define EDM_ERR_BAD_REQUEST 0x40818800u  /* a request of the operational database is malformed */
#define EDM_ERR_NO_ITEM 0x40818600u      /* the requested item is not in the cache */

/* ---- The descriptor of one hardware MAC entry ---- */

/* Bits of `flags`. Bits without a name here are stored and reported only. */
#define EDM_MAC_PBB 0x0001u             /* carries a backbone address */
#define EDM_MAC_STATIC 0x0002u          /* counted as static */
#define EDM_MAC_LOCAL 0x0004u           /* an address of the port itself; counted apart */
#define EDM_MAC_BD_FIXED 0x0008u        /* of the bridge domain: replaces a cached entry, and outlives other reports */
#define EDM_MAC_BD_OWN 0x0020u          /* of the bridge domain: the bridge's own address */
#define EDM_MAC_BD_40 0x0040u           /* of the bridge domain */
#define EDM_MAC_STALE 0x0080u           /* the table's own mark; feed entries with it clear */
#define EDM_MAC_EXTERN_LEARNED 0x0100u  /* learned by somebody else and handed to the hardware */
#define EDM_MAC_BD_200 0x0200u          /* held by the bridge domain, updated like an ordinary entry; see below */
#define EDM_MAC_BD_400 0x0400u          /* likewise */
#define EDM_MAC_VNI 0x1000u             /* carries the address of a remote VTEP */
#define EDM_MAC_TIMESTAMP_VALID 0x2000u /* `hw_timestamp` counts */

/*
 * Entries with any of these live on their bridge domain's dummy port, whose xcid is 0xffffffff.
 *
 * An entry with EDM_MAC_BD_200 or EDM_MAC_BD_400 and none of EDM_MAC_BD_KINDS is updated like an ordinary entry: if the
 * fed xcid differs from that of the cached entry's port, it has moved. So every feed of such an entry replaces the
 * cached one, which becomes the newest, unless the descriptor's xcid is 0xffffffff.
 */
#define EDM_MAC_ON_DUMMY_PORT 0x0668u
/* Entries with any of these are updated by the rules of the bridge-domain kinds. */
#define EDM_MAC_BD_KINDS 0x0068u
/* Entries with any of these belong to the node that the module runs on. */
#define EDM_MAC_OF_THIS_NODE 0x1105u

/*
 * What the platform reports about an entry; little-endian, read during the call only.
 *
 *     0        2          4                8          10        12
 *    +--------+----------+----------------+----------+---------+----------------+
 *    | flags  | ext_flags| xcid           | bridge_id| unused  | node_id        |
 *    +--------+----------+----------------+----------+---------+----------------+
 *     16                       22         24                28
 *    +------------------------+----------+----------------+------------------------+
 *    | mac_addr               | ext_attr | hw_timestamp   | bmac_addr              |
 *    +------------------------+----------+----------------+------------------------+
 *     34                       40               44
 *    +------------------------+----------------+
 *    | unused                 | vtep_addr      |
 *    +------------------------+----------------+
 */
typedef struct l2fib_mac_edm_entry {
    uint16_t flags;
    uint16_t ext_flags;    /* stored and reported */
    uint32_t xcid;         /* the port; ignored with any bit of EDM_MAC_ON_DUMMY_PORT */
    uint16_t bridge_id;    /* the bridge domain */
    uint16_t unused1;      /* not read */
    uint32_t node_id;      /* not used: the table derives the node itself */
    uint8_t mac_addr[6];   /* in wire order */
    uint16_t ext_attr;     /* stored and reported */
    uint32_t hw_timestamp; /* seconds since the epoch; counts with EDM_MAC_TIMESTAMP_VALID */
    uint8_t bmac_addr[6];  /* in wire order; read with EDM_MAC_PBB */
    uint8_t unused2[6];    /* not read */
    uint8_t vtep_addr[4];  /* IPv4, network byte order; read with EDM_MAC_VNI */
} l2fib_mac_edm_entry_t;

static_assert(offsetof(l2fib_mac_edm_entry_t, flags) == 0, "descriptor layout");
static_assert(offsetof(l2fib_mac_edm_entry_t, ext_flags) == 2, "descriptor layout");
static_assert(offsetof(l2fib_mac_edm_entry_t, xcid) == 4, "descriptor layout");
static_assert(offsetof(l2fib_mac_edm_entry_t, bridge_id) == 8, "descriptor layout");
static_assert(offsetof(l2fib_mac_edm_entry_t, node_id) == 12, "descriptor layout");
static_assert(offsetof(l2fib_mac_edm_entry_t, mac_addr) == 16, "descriptor layout");
static_assert(offsetof(l2fib_mac_edm_entry_t, ext_attr) == 22, "descriptor layout");
static_assert(offsetof(l2fib_mac_edm_entry_t, hw_timestamp) == 24, "descriptor layout");
static_assert(offsetof(l2fib_mac_edm_entry_t, bmac_addr) == 28, "descriptor layout");
static_assert(offsetof(l2fib_mac_edm_entry_t, vtep_addr) == 40, "descriptor layout");
static_assert(sizeof(l2fib_mac_edm_entry_t) == 44, "descriptor layout");

/* ---- Callbacks into the platform ---- */

/*
 * MAC counters of one bridge domain, zeroed by their user. The first four are filled, in the order of the table-wide
 * counters of the same names; 0xffffffff stands for a counter that cannot be given.
 */
typedef struct edm_mac_counters {
    uint32_t mac_cnt_sum;
    uint32_t mac_cnt_plain;
    uint32_t mac_cnt_f2;
    uint32_t mac_cnt_f4;
    uint32_t unused[2];
} edm_mac_counters_t;

static_assert(sizeof(edm_mac_counters_t) == 24, "counter block layout");

#define EDM_COUNTER_UNKNOWN 0xffffffffu

#define EDM_PD_CB_SLOTS 10u
#define EDM_PD_CB_REQUIRED_SLOTS 8u /* slots 0 to 7 must be given */

/* The platform's callbacks, ten slots. The module keeps a copy of slots 0 to 8; slot 9 always reads null. */
typedef struct l2fib_mac_edm_pd_cb {
    /* 0 to 2, on the cache thread: bring everything, a bridge domain or a port up to date, then report the end by
     * l2fib_mac_edm_resync_complete, exactly once for each call. */
    void (*resync_all_cb)(void);
    void (*resync_bd_cb)(uint16_t bridge_id);
    void (*resync_bp_cb)(uint32_t xcid);
    /* 3, on the cache thread: the database's action; done when it returns. */
    void (*action_cb)(void);
    /* 4: required, never called. */
    void (*cb4)(void);
    /* 5, on Mac-Edm-Thread without the table lock: the hardware's counts of a bridge domain. Nonzero when it cannot
     * answer; the module counts the cached entries itself then. */
    uint32_t (*bd_mac_count_cb)(uint16_t bridge_id, edm_mac_counters_t *counters);
    /* 6: required, never called. */
    void (*cb6)(void);
    /* 7, on the cache thread, once: the table exists. The platform may attach its own events to `evm`. */
    void (*cache_evm_cb)(event_manager_t *evm);
    /* 8, optional, on the thread that starts the module: may change the resync wait time, in seconds. Nonzero makes the
     * start fail with that status. */
    uint32_t (*capabilities_cb)(uint16_t *resync_wait_time);
    /* 9 */
    void (*none9)(void);
} l2fib_mac_edm_pd_cb_t;

static_assert(sizeof(l2fib_mac_edm_pd_cb_t) == EDM_PD_CB_SLOTS * sizeof(void *), "callback table layout");
static_assert(offsetof(l2fib_mac_edm_pd_cb_t, cache_evm_cb) == 7 * sizeof(void *), "callback table layout");

/* ---- Start-up ---- */

/* The default of l2fib_mac_edm_capabilities, in seconds. */
#define EDM_RESYNC_WAIT_TIME 120u

/*
 * Starts the module; called once, before anything else, on a thread of the forwarding process. `evm` is that process's
 * event manager, `edm_handle` the handle that the operational-data thread is started with, `lwm_chan` a channel of the
 * process; none may be null. `pd_cb` is read during the call.
 *
 * On success two threads are starting; slot 7 tells when the table exists. A failure is returned, and what was set up
 * before it stays. The calling thread is left with SIGRTMIN+6 and SIGRTMIN+10 blocked.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_init(event_manager_t *evm, void *edm_handle, msg_chan_t *lwm_chan,
                                         const l2fib_mac_edm_pd_cb_t *pd_cb);

/* Stores a callback table; refused with EDM_ERR_INVALID_ARGS, nothing changed, when one of slots 0 to 7 is null. */
L2FIB_EXPORT uint32_t l2fib_mac_edm_init_pd_cb(const l2fib_mac_edm_pd_cb_t *pd_cb);

/*
 * Defines the MAC entry limit: `limit` is written to `limit_cell`, which the platform owns, keeps and may write again
 * at any time (with an atomic store when other threads feed): every creation reads it afresh. No MAC entry can be
 * created before this call. EDM_ERR_INVALID_ARGS for a null cell; the previous one stays.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_defn_init(uint32_t *limit_cell, uint32_t limit);

/* Creates the table lock and starts the two threads; the last step of l2fib_mac_edm_init, which calls it. Note the
 * order of the last two arguments. */
L2FIB_EXPORT uint32_t l2fib_mac_edm_lwm_init(event_manager_t *evm, msg_chan_t *lwm_chan, void *edm_handle);

/* Subscribes to the removal of bridge domains and ports; the cache thread calls it once during its start. */
L2FIB_EXPORT uint32_t l2fib_mac_edm_bdxc_register(void);

/* Hands the handlers to the sibling library; Mac-Edm-Thread calls it once during its start. */
L2FIB_EXPORT uint32_t l2fib_hw_mac_addr_edm_fn_init(void);

/* ---- Feed, mark and sweep ---- */

/*
 * Files one entry that the hardware holds: its bridge domain and port are found or created, then the entry is created
 * or updated. Atomic for all other users of the table. Returns 0, EDM_ERR_INVALID_ARGS for a null descriptor,
 * EDM_ERR_NO_RESOURCE when the bridge domain or port cannot be had, or the status of the entry's creation or update. A
 * bridge domain or port that the call created stays when a later step fails.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_add(const l2fib_mac_edm_entry_t *entry);

/*
 * Mark everything, a bridge domain or a port as doubtful; feeding an entry clears its mark; sweep destroys the entries
 * and VTEPs of the scope that are still marked. Bridge domains and ports stay. Only the low 16 bits of a bridge id
 * count; an unknown scope is empty. The result is that of the walk over the MAC entries: 0, or EDM_ERR_STOPPED when it
 * could not go on at an entry; the others of the scope then keep their marks as they are.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_mark_all(void);
L2FIB_EXPORT uint32_t l2fib_mac_edm_mark_bd(uint32_t bridge_id);
L2FIB_EXPORT uint32_t l2fib_mac_edm_mark_bp(uint32_t xcid);
L2FIB_EXPORT uint32_t l2fib_mac_edm_sweep_all(void);
L2FIB_EXPORT uint32_t l2fib_mac_edm_sweep_bd(uint32_t bridge_id);
L2FIB_EXPORT uint32_t l2fib_mac_edm_sweep_bp(uint32_t xcid);

/* ---- Resynchronisation ---- */

#define EDM_MSG_CLASS 0x0a27u
#define EDM_MSG_TYPE_BASE 0x8000u         /* added to request types and reply codes */
#define EDM_MSG_TYPE_MASK 0x0fffu         /* the bits of a message type that readers look at */
#define EDM_MSG_FILTER_TYPE 0x8fffu       /* the filter type that selects resync messages */
#define EDM_RESYNC_SEND_ERROR 0xa0000000u /* ORed to the error number of a send that failed */

/* Request types. */
#define EDM_RESYNC_ALL 1u
#define EDM_RESYNC_BD 2u
#define EDM_RESYNC_BP 3u
#define EDM_RESYNC_ACTION 4u

/* Reply codes. */
#define EDM_REPLY_DONE 5u
#define EDM_REPLY_DONE_1 6u
#define EDM_REPLY_FAILED 7u
#define EDM_REPLY_ACTION_DONE 8u
#define EDM_REPLY_UNKNOWN 9u

/*
 * A resync request or its reply, 24 bytes in host byte order.
 *
 *     0          2           4                                  20           24
 *    +----------+-----------+----------------------------------+------------+
 *    | msg_type | msg_class | zero                             | msg_arg    |
 *    +----------+-----------+----------------------------------+------------+
 */
typedef struct l2fib_mac_edm_resync_msg {
    uint16_t msg_type;  /* EDM_MSG_TYPE_BASE plus a request type or reply code */
    uint16_t msg_class; /* EDM_MSG_CLASS */
    uint8_t reserved[16];
    uint32_t msg_arg; /* bridge id or xcid, by request type; 0 in replies */
} l2fib_mac_edm_resync_msg_t;

static_assert(offsetof(l2fib_mac_edm_resync_msg_t, msg_type) == 0, "resync message layout");
static_assert(offsetof(l2fib_mac_edm_resync_msg_t, msg_class) == 2, "resync message layout");
static_assert(offsetof(l2fib_mac_edm_resync_msg_t, reserved) == 4, "resync message layout");
static_assert(offsetof(l2fib_mac_edm_resync_msg_t, msg_arg) == 20, "resync message layout");
static_assert(sizeof(l2fib_mac_edm_resync_msg_t) == 24, "resync message layout");

/*
 * Asks for a resync of type EDM_RESYNC_ALL, _BD (`arg` a bridge id), _BP (`arg` an xcid) or _ACTION, and waits for its
 * end, at most l2fib_mac_edm_capabilities seconds. `request` is the database's request that is being served, whose
 * time-out is moved out of the way meanwhile, or null.
 *
 * Returns 0 when the scope is up to date; EDM_ERR_INVALID_ARGS when the module is not ready, the type is unknown, or
 * the platform completed with a status that it must not use; EDM_ERR_RESYNC when the platform failed; the error number
 * of the send ORed with EDM_RESYNC_SEND_ERROR. The caller must not hold the table lock, nor be the cache thread.
 *
 * One requester at a time: the cache thread holds one, and a second request takes the place of the first, whose caller
 * then waits for its time-out. Mac-Edm-Thread asks for each request that needs it, so nobody else should ask while it
 * serves.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_thread_send_resync(uint32_t type, uint32_t arg, optree_request_t *request);

/*
 * Ends the resync that the cache thread holds: 0 or 1 for done (traced differently), 2 for failed. Called once for
 * every call of slots 0 to 2. Returns 0, or the status of the requester's release when that failed, as it does when no
 * resync is held.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_resync_complete(uint32_t status);

/* ---- The table lock ---- */

/* Take and release the table lock. It is recursive; a failure is only traced. Nothing may be waited for with it held.
 */
L2FIB_EXPORT void l2fib_mac_edm_mutex_lock(void);
L2FIB_EXPORT void l2fib_mac_edm_mutex_unlock(void);

/* ---- Counts ---- */

/*
 * Copies the first four counters into a count record, leaving alone the fields of those that are EDM_COUNTER_UNKNOWN.
 * Nothing happens when a pointer is null.
 */
L2FIB_EXPORT void l2fib_hw_mac_addr_cnt_fill(l2fib_mac_count_info_t *record, const edm_mac_counters_t *counters);

/* ---- Objects ---- */

/* The module's copy of the platform's callbacks. Written by the start, read afterwards. */
L2FIB_EXPORT extern l2fib_mac_edm_pd_cb_t hw_edm_pd_cb;
/* The resync wait time in seconds. Written by the start, read afterwards. */
L2FIB_EXPORT extern uint16_t l2fib_mac_edm_capabilities;
/* The platform's cell with the MAC entry limit; null until it is defined. */
L2FIB_EXPORT extern uint32_t *hw_edm_pool;
/* The forwarding process's handles, as given to the start. */
L2FIB_EXPORT extern event_manager_t *hw_edm_evm;
L2FIB_EXPORT extern msg_chan_t *hw_edm_lwm_chan;
/* The event managers of Mac-Edm-Thread and of the cache thread; null until the thread has made its own. */
L2FIB_EXPORT extern event_manager_t *l2fib_mac_edm_evm;
L2FIB_EXPORT extern event_manager_t *l2fib_mac_cache_evm;
/* The connection to the cache thread's channel, 0 until it is open, and the client of the resync it holds. */
L2FIB_EXPORT extern uint32_t conn;
L2FIB_EXPORT extern uint32_t current_lwm_clinfo;
/* Defined for the forwarding process; not used by the module. */
L2FIB_EXPORT extern char pw_id_to_str_buf[40];
L2FIB_EXPORT extern uint32_t l2fib_mac_entry_type;
L2FIB_EXPORT extern uint32_t l2fib_evt_mstp_type;

L2FIB_END_DECLS
