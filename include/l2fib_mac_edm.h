/* SPDX-License-Identifier: Apache-2.0 */

/*
 * The hardware MAC-table data manager: its interface to the forwarding process, and to the platform layer that drives
 * the forwarding hardware. Read this header first. l2fm_edm_table.h describes the cache and how to read it.
 *
 * Life of the module:
 *
 *   1. The forwarding process calls l2fib_mac_edm_init once, with a table of callbacks. Two threads start. The cache
 *      thread creates the table and then calls slot 7 of the callbacks. Mac-Edm-Thread serves the operational database.
 *      The module has no shut-down: it lives as long as the process.
 *   2. The platform defines how many MAC entries the module may cache (l2fib_mac_edm_defn_init). It reports each entry
 *      that the hardware holds or changes (l2fib_mac_edm_add).
 *   3. Before the module answers a request, it asks the platform to resync a scope (slots 0 to 2). The platform marks
 *      the scope, feeds all entries that the hardware holds, sweeps what is still marked, and calls
 *      l2fib_mac_edm_resync_complete. It does so inside the callback or later, on any thread.
 *
 * Notes:
 *  - The 16-bit `flags` word of an entry decides which port holds the entry, which variant of the record it gets, and
 *    how the table updates and counts it. The EDM_MAC_ constants below name its bits.
 *  - A full table evicts its newest entry for each new one. The oldest entries stay.
 *  - Feeding removes nothing. An entry is removed by mark, feed and sweep, with its port or bridge domain, or when the
 *    forwarding process destroys it under the lock.
 *
 * Threads: any thread may call each function unless it says otherwise. Each takes the table lock itself where it needs
 * it. The lock is recursive, so a caller may hold it (l2fib_mac_edm_mutex_lock) to make several calls one step. No
 * thread may wait for a resync while it holds the table lock.
 *
 * Errors: a status is 0 for success, one of the codes below, or the unchanged nonzero status of a platform call that
 * failed. Failures are also trace points. Most mistakes of the caller are not traced: a null argument, a callback table
 * with an empty slot, a number out of range.
 */
#pragma once

#include "platform/event.h"
#include "platform/export.h"
#include "platform/operational_db.h"
#include "platform/parcel.h"
#include "platform/thread_safety.h"

L2FIB_BEGIN_DECLS

/* ---- Status codes ---- */

#define EDM_ERR_INVALID_ARGS 0xa5138016u /* an argument is missing or out of range, or the module is not ready */
#define EDM_ERR_NO_RESOURCE 0xc513800cu  /* the table cannot create or refresh a record: no memory, or the limit */
#define EDM_ERR_STOPPED 0x8513800bu      /* a callback stopped a walk, or the table refused an update */
#define EDM_ERR_RESYNC 0x8513ac00u       /* the platform reported that a resync failed */
#define EDM_ERR_NOT_FOUND 0x45138200u    /* a name does not resolve, or there is nothing to remove */
#define EDM_ERR_BAD_REQUEST 0x40818800u  /* a request of the operational database is malformed */
#define EDM_ERR_NO_ITEM 0x40818600u      /* the requested item is not in the cache */

/* ---- The table lock ---- */

/*
 * One recursive lock guards the table. The attributes below let clang's thread-safety analysis check its use. They are
 * active in sources that are compiled with L2FIB_CHECKS_TABLE_LOCK, as the module is. A process whose threads do not
 * share the table yet, or no longer, needs no lock, and so the check is the caller's choice.
 *
 *      void recount(void) L2FIB_REQUIRES_TABLE_LOCK;       the caller holds the table lock
 *      void answer(void) L2FIB_EXCLUDES_TABLE_LOCK;        the caller does not hold it: the function waits
 *      uint32_t entries L2FIB_GUARDED_BY_TABLE_LOCK;       readers and writers hold it
 */
#ifdef L2FIB_CHECKS_TABLE_LOCK
/* Stands for the lock in attributes. No such object exists. */
typedef struct L2FIB_CAPABILITY("table lock") l2fib_table_lock {
    uint8_t unused;
} l2fib_table_lock_t;
extern l2fib_table_lock_t l2fib_table_lock;

#define L2FIB_REQUIRES_TABLE_LOCK L2FIB_REQUIRES(l2fib_table_lock)
#define L2FIB_EXCLUDES_TABLE_LOCK L2FIB_EXCLUDES(l2fib_table_lock)
#define L2FIB_GUARDED_BY_TABLE_LOCK L2FIB_GUARDED_BY(l2fib_table_lock)
#define L2FIB_ACQUIRES_TABLE_LOCK L2FIB_ACQUIRE(l2fib_table_lock)
#define L2FIB_RELEASES_TABLE_LOCK L2FIB_RELEASE(l2fib_table_lock)
#else
#define L2FIB_REQUIRES_TABLE_LOCK
#define L2FIB_EXCLUDES_TABLE_LOCK
#define L2FIB_GUARDED_BY_TABLE_LOCK
#define L2FIB_ACQUIRES_TABLE_LOCK
#define L2FIB_RELEASES_TABLE_LOCK
#endif

/* Take and release the table lock. A failure is traced and not returned. The holder waits for nothing: no resync, no
 * message, no event. */
L2FIB_EXPORT void l2fib_mac_edm_mutex_lock(void) L2FIB_ACQUIRES_TABLE_LOCK;
L2FIB_EXPORT void l2fib_mac_edm_mutex_unlock(void) L2FIB_RELEASES_TABLE_LOCK;

/* ---- Ids ---- */

/* A bridge id is 16 bits wide. Some functions take 32 bits and ignore the upper half; they say so. */
#define EDM_BRIDGE_ID_MASK 0xffffu

/* An xcid names a cross-connect, and so a bridge port. */
#define EDM_XCID_NONE 0u           /* no port */
#define EDM_XCID_FIRST 1u          /* ordinary ports: from this one */
#define EDM_XCID_LAST 0xfffffffeu  /* to this one */
#define EDM_XCID_DUMMY 0xffffffffu /* the dummy port of any bridge domain */

/* ---- The descriptor of one hardware MAC entry ---- */

/* Bits of `flags`. "Of the bridge domain" means that the entry belongs to the bridge domain itself and to no port. */
#define EDM_MAC_PBB 0x0001u             /* carries a backbone address */
#define EDM_MAC_STATIC 0x0002u          /* counted as static */
#define EDM_MAC_LOCAL 0x0004u           /* an address of the port itself; counted apart */
#define EDM_MAC_BD_FIXED 0x0008u        /* of the bridge domain: replaces a cached entry, ignores other reports */
#define EDM_MAC_STICKY 0x0010u          /* does not move to another port; stored and reported only */
#define EDM_MAC_BD_OWN 0x0020u          /* of the bridge domain: the bridge's own address */
#define EDM_MAC_BD_40 0x0040u           /* of the bridge domain */
#define EDM_MAC_STALE 0x0080u           /* the table's own mark; the platform feeds entries with this bit clear */
#define EDM_MAC_EXTERN_LEARNED 0x0100u  /* learned by another program, which added it to the hardware */
#define EDM_MAC_BD_200 0x0200u          /* of the bridge domain, updated like an ordinary entry; see below */
#define EDM_MAC_BD_400 0x0400u          /* likewise */
#define EDM_MAC_OFFLOADED 0x0800u       /* programmed into the hardware; stored and reported only */
#define EDM_MAC_VNI 0x1000u             /* carries the address of a remote VTEP */
#define EDM_MAC_TIMESTAMP_VALID 0x2000u /* `hw_timestamp` counts */
#define EDM_MAC_4000 0x4000u            /* stored and reported only */
#define EDM_MAC_LOCKED 0x8000u          /* its station may not send yet; stored and reported only */

/*
 * Entries with any of these live on their bridge domain's dummy port, whose xcid is EDM_XCID_DUMMY.
 *
 * The table updates an entry with EDM_MAC_BD_200 or EDM_MAC_BD_400 and none of EDM_MAC_BD_KINDS like an ordinary entry:
 * if the fed xcid differs from that of the cached entry's port, the entry has moved. Each feed of such an entry
 * therefore replaces the cached one, which becomes the newest, unless the descriptor's xcid is EDM_XCID_DUMMY.
 */
#define EDM_MAC_ON_DUMMY_PORT (EDM_MAC_BD_KINDS | EDM_MAC_BD_200 | EDM_MAC_BD_400)
/* The table updates entries with any of these by the rules of the bridge-domain kinds. */
#define EDM_MAC_BD_KINDS (EDM_MAC_BD_FIXED | EDM_MAC_BD_OWN | EDM_MAC_BD_40)
/* Entries with any of these belong to the node that the module runs on. */
#define EDM_MAC_OF_THIS_NODE (EDM_MAC_PBB | EDM_MAC_LOCAL | EDM_MAC_EXTERN_LEARNED | EDM_MAC_VNI)

/* A bit of `ext_flags`: the station has sent nothing for a while. Other bits are stored and not reported. */
#define EDM_MAC_EXT_INACTIVE 0x0001u

/*
 * What the platform reports about an entry: 44 bytes, numbers little-endian. The module reads it during the call only.
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
    uint16_t flags;        /* EDM_MAC_ bits */
    uint16_t ext_flags;    /* EDM_MAC_EXT_ bits */
    uint32_t xcid;         /* the port; ignored with any bit of EDM_MAC_ON_DUMMY_PORT */
    uint16_t bridge_id;    /* the bridge domain */
    uint16_t unused1;      /* not read */
    uint32_t node_id;      /* not used: the table derives the node itself */
    uint8_t mac_addr[6];   /* wire order */
    uint16_t ext_attr;     /* stored and reported */
    uint32_t hw_timestamp; /* seconds since the epoch; counts with EDM_MAC_TIMESTAMP_VALID */
    uint8_t bmac_addr[6];  /* wire order; read with EDM_MAC_PBB */
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
 * MAC counters of one bridge domain. The caller zeroes them. The platform fills the first four, which count like the
 * table-wide counters of the same names (l2fm_edm_table.h). EDM_COUNTER_UNKNOWN stands for a counter that it does not
 * have.
 */
typedef struct edm_mac_counters {
    uint32_t mac_cnt_sum;
    uint32_t mac_cnt_plain;
    L2FIB_TWO_NAMES(uint32_t, mac_cnt_f2, mac_cnt_static);
    L2FIB_TWO_NAMES(uint32_t, mac_cnt_f4, mac_cnt_local);
    uint32_t unused[2];
} edm_mac_counters_t;

static_assert(sizeof(edm_mac_counters_t) == 24, "counter block layout");

#define EDM_COUNTER_UNKNOWN 0xffffffffu

#define EDM_PD_CB_SLOTS 10u
#define EDM_PD_CB_REQUIRED_SLOTS 8u /* slots 0 to 7 are required */

/* The platform's callbacks, ten slots. The module copies slots 0 to 8; in its copy slot 9 is null. */
typedef struct l2fib_mac_edm_pd_cb {
    /* 0 to 2, on the cache thread: resync everything, a bridge domain or a port. The platform then calls
     * l2fib_mac_edm_resync_complete exactly once for each call. */
    void (*resync_all_cb)(void);
    void (*resync_bd_cb)(uint16_t bridge_id);
    void (*resync_bp_cb)(uint32_t xcid);
    /* 3, on the cache thread: the database's action, which is done when the callback returns. */
    void (*action_cb)(void);
    /* 4: required, never called. */
    void (*cb4)(void);
    /* 5, on Mac-Edm-Thread without the table lock: stores the hardware's counts of a bridge domain. If it returns
     * nonzero, it cannot count, and the module counts the cached entries itself. */
    uint32_t (*bd_mac_count_cb)(uint16_t bridge_id, edm_mac_counters_t *counters);
    /* 6: required, never called. */
    void (*cb6)(void);
    /* 7, on the cache thread, once: the table exists. The platform may attach its own events to `evm`. */
    void (*cache_evm_cb)(event_manager_t *evm);
    /* 8, optional, on the thread that starts the module: may change the resync wait time, in seconds. If it returns
     * nonzero, the start fails with that status. */
    uint32_t (*capabilities_cb)(uint16_t *resync_wait_time);
    /* 9: not used. */
    void (*none9)(void);
} l2fib_mac_edm_pd_cb_t;

static_assert(sizeof(l2fib_mac_edm_pd_cb_t) == EDM_PD_CB_SLOTS * sizeof(void *), "callback table layout");
static_assert(offsetof(l2fib_mac_edm_pd_cb_t, cache_evm_cb) == 7 * sizeof(void *), "callback table layout");

/* ---- Start-up ---- */

/* How long a requester waits for a resync, in seconds, unless slot 8 changes it. */
#define EDM_RESYNC_WAIT_TIME 120u

/* The paths by which the platform knows the event managers of the two threads (event.h). */
#define EDM_CACHE_THREAD_PATH "/dev/l2fib_mac_cache"
#define EDM_REQUEST_THREAD_PATH "/dev/l2fib_mac_edm"

/*
 * Starts the module. A thread of the forwarding process calls it once, before all other functions.
 *
 *      evm           the forwarding process's event manager
 *      edm_handle    the handle that Mac-Edm-Thread is started with
 *      lwm_chan      a channel of the forwarding process
 *      pd_cb         the platform's callbacks; read during the call only
 *
 * None of them may be null. Returns 0 when two threads are starting; slot 7 reports when the table exists. On failure
 * it returns a status and keeps what it has set up so far. It leaves SIGRTMIN+6 and SIGRTMIN+10 blocked in the calling
 * thread.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_init(event_manager_t *evm, void *edm_handle, msg_chan_t *lwm_chan,
                                         const l2fib_mac_edm_pd_cb_t *pd_cb);

/* Copies a callback table. If one of slots 0 to 7 is null, it changes nothing and returns EDM_ERR_INVALID_ARGS. */
L2FIB_EXPORT uint32_t l2fib_mac_edm_init_pd_cb(const l2fib_mac_edm_pd_cb_t *pd_cb);

/*
 * Defines the MAC entry limit: writes `limit`, a number of entries, to `limit_cell`. The platform owns the cell and
 * keeps it. It may write the cell again at any time, with an atomic store if other threads feed. The module reads the
 * cell for each entry that it creates, and creates none before this call. Returns EDM_ERR_INVALID_ARGS for a null cell;
 * an earlier cell then stays in use.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_defn_init(uint32_t *limit_cell, uint32_t limit);

/* Creates the table lock and starts the two threads. l2fib_mac_edm_init calls it as its last step. The last two
 * arguments are in the opposite order. */
L2FIB_EXPORT uint32_t l2fib_mac_edm_lwm_init(event_manager_t *evm, msg_chan_t *lwm_chan, void *edm_handle);

/* Subscribes to the removal of bridge domains and ports. The cache thread calls it once during its start. */
L2FIB_EXPORT uint32_t l2fib_mac_edm_bdxc_register(void);

/* Registers the request handlers with the sibling library. Mac-Edm-Thread calls it once during its start. */
L2FIB_EXPORT uint32_t l2fib_hw_mac_addr_edm_fn_init(void);

/* ---- Feed, mark and sweep ---- */

/*
 * Feeds one entry that the hardware holds. Finds or creates its bridge domain and port, then creates or updates the
 * entry. Other users of the table see all of it or nothing.
 *
 * Returns 0, or:
 *
 *      EDM_ERR_INVALID_ARGS    the descriptor is null
 *      EDM_ERR_NO_RESOURCE     it can neither find nor create the bridge domain or the port
 *      else                    the status of the entry's creation or update
 *
 * A bridge domain or port that the call created stays if a later step fails.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_add(const l2fib_mac_edm_entry_t *entry);

/*
 * Feeds `count` entries in their order, with the effect and the trace points of as many calls of l2fib_mac_edm_add. It
 * takes the lock once for some dozens of entries, and prefetches the memory of all of them before it stores the first.
 * Other users of the table see each entry as a whole or not at all, and may see the first entries without the last.
 *
 *      l2fib_mac_edm_entry_t entries[2] = {first, second};
 *      uint32_t statuses[2];
 *      if (l2fib_mac_edm_add_batch(entries, 2, statuses) != 0) {
 *          ...                             statuses[i] is what l2fib_mac_edm_add(&entries[i]) would have returned
 *      }
 *
 * An entry that fails does not keep those behind it from being fed. `statuses` has room for `count` of them, or is
 * null. Returns 0 if all are 0, else the first that is not. If `entries` is null and `count` is not 0, it returns
 * EDM_ERR_INVALID_ARGS, feeds nothing and leaves `statuses` as it is.
 *
 * Threads: any, like l2fib_mac_edm_add.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_add_batch(const l2fib_mac_edm_entry_t *entries, size_t count, uint32_t *statuses);

/*
 * Mark and sweep a scope: everything, a bridge domain or a port. Mark sets the mark of each entry and VTEP of the
 * scope. Feeding an entry clears its mark and that of its VTEP. Sweep destroys what is still marked. Bridge domains and
 * ports stay.
 *
 *      l2fib_mac_edm_mark_bd(7);          a, b and c are marked
 *      l2fib_mac_edm_add(&a);             b and c are marked
 *      l2fib_mac_edm_sweep_bd(7);         a is left
 *
 * Only the low 16 bits of a bridge id count. An unknown scope is empty. The result is that of the walk over the MAC
 * entries: 0, or EDM_ERR_STOPPED if one entry stopped it. The entries behind that one are then neither marked nor
 * swept.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_mark_all(void);
L2FIB_EXPORT uint32_t l2fib_mac_edm_mark_bd(uint32_t bridge_id);
L2FIB_EXPORT uint32_t l2fib_mac_edm_mark_bp(uint32_t xcid);
L2FIB_EXPORT uint32_t l2fib_mac_edm_sweep_all(void);
L2FIB_EXPORT uint32_t l2fib_mac_edm_sweep_bd(uint32_t bridge_id);
L2FIB_EXPORT uint32_t l2fib_mac_edm_sweep_bp(uint32_t xcid);

/* ---- Resync ---- */

#define EDM_MSG_CLASS 0x0a27u
#define EDM_MSG_TYPE_BASE 0x8000u         /* added to request types and reply codes */
#define EDM_MSG_TYPE_MASK 0x0fffu         /* the bits of a message type that hold the request type or reply code */
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
 * Asks the cache thread for a resync and waits for its end, at most l2fib_mac_edm_capabilities seconds.
 *
 *      type       EDM_RESYNC_ALL, EDM_RESYNC_BD, EDM_RESYNC_BP or EDM_RESYNC_ACTION
 *      arg        a bridge id for EDM_RESYNC_BD, an xcid for EDM_RESYNC_BP; else ignored
 *      request    the database's request in service, or null. Its time-out is extended while the caller waits.
 *
 * Returns 0 if the scope is up to date, or:
 *
 *      EDM_ERR_INVALID_ARGS    the module is not ready, the type is unknown, or the platform completed the resync with
 * a status that l2fib_mac_edm_resync_complete does not allow EDM_ERR_RESYNC          the platform failed
 *      EDM_RESYNC_SEND_ERROR   ORed with the error number of the send that failed
 *
 * Threads: any but the cache thread. The cache thread holds one requester at a time. A second request replaces the
 * first one, whose caller then waits until its time-out. Mac-Edm-Thread asks for a resync for each request that needs
 * one, so no other thread should ask while it serves requests.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_thread_send_resync(uint32_t type, uint32_t arg,
                                                       optree_request_t *request) L2FIB_EXCLUDES_TABLE_LOCK;

/* How the platform completes a resync. The first two differ in the trace point only. */
#define EDM_RESYNC_STATUS_DONE 0u
#define EDM_RESYNC_STATUS_DONE_1 1u
#define EDM_RESYNC_STATUS_FAILED 2u

/*
 * Completes the resync whose requester the cache thread holds. The platform calls it once for each call of slots 0 to
 * 2, with an EDM_RESYNC_STATUS_. Returns 0, or the status of the requester's release if that failed, as it does when
 * the cache thread holds no requester.
 */
L2FIB_EXPORT uint32_t l2fib_mac_edm_resync_complete(uint32_t status);

/* ---- Counts ---- */

/*
 * Copies the first four counters into a count record. A counter that is EDM_COUNTER_UNKNOWN leaves its field unchanged.
 * Does nothing if a pointer is null.
 */
L2FIB_EXPORT void l2fib_hw_mac_addr_cnt_fill(l2fib_mac_count_info_t *record, const edm_mac_counters_t *counters);

/* ---- Objects ---- */

/* The module's copy of the platform's callbacks. The start writes it, all threads read it afterwards. */
L2FIB_EXPORT extern l2fib_mac_edm_pd_cb_t hw_edm_pd_cb;
/* The resync wait time in seconds. The start writes it, all threads read it afterwards. */
L2FIB_EXPORT extern uint16_t l2fib_mac_edm_capabilities;
/* The platform's cell with the MAC entry limit; null until the platform defines it. */
L2FIB_EXPORT extern uint32_t *hw_edm_pool;
/* The forwarding process's handles, as passed to the start. */
L2FIB_EXPORT extern event_manager_t *hw_edm_evm;
L2FIB_EXPORT extern msg_chan_t *hw_edm_lwm_chan;
/* The event managers of Mac-Edm-Thread and of the cache thread; null until the thread has created its own. */
L2FIB_EXPORT extern event_manager_t *l2fib_mac_edm_evm;
L2FIB_EXPORT extern event_manager_t *l2fib_mac_cache_evm;
/* The connection to the cache thread's channel, 0 until it is open, and the client of the requester that it holds. */
L2FIB_EXPORT extern uint32_t conn;
L2FIB_EXPORT extern uint32_t current_lwm_clinfo;
/* The forwarding process uses these three. The module only defines them. */
L2FIB_EXPORT extern char pw_id_to_str_buf[40];
L2FIB_EXPORT extern uint32_t l2fib_mac_entry_type;
L2FIB_EXPORT extern uint32_t l2fib_evt_mstp_type;

L2FIB_END_DECLS
