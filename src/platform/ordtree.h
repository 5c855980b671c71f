/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Ordered multi-index tree: every container of the cache that has an order.
 *
 * A tree is a handle that its user allocates, in one or more indexes over the same records. Records are not copied and
 * nothing is allocated for them by the user: each embeds one link per index, side by side, and that group of links is
 * the node that the tree knows:
 *
 *        element ->  +-------------+
 *           node ->  | link 0      |   handed to the comparator of index 0
 *                    | link 1      |   handed to the comparator of index 1 (a second index only)
 *                    +-------------+
 *                    | record      |   where the keys are, at an offset from the link that only the comparator knows
 *                    +-------------+
 *
 * Not obvious:
 *  - A link that is in no tree reads as zero, and a zero-filled handle reads as a tree that does not run. Whoever
 *    allocates elements zero-filled need not initialise either.
 *  - Keys are unique in each index. An insertion is refused as a whole when any index holds an equal key.
 *  - A key must not change while its record is in the tree.
 *  - `ordtree_get_next` of a record that is in this tree needs no search, whatever the tree's size; of any other probe
 *    it is one search. A probe's links are zero or those of a record in some tree, never uninitialised memory.
 *
 * Threads: a tree has no lock. Who changes it excludes everybody else; readers exclude changes. Different trees are
 * independent of each other, also when they grow at the same time.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

#define ORDTREE_MAX_INDEXES 2u

/* What comparators answer about their first argument. */
#define ORDTREE_LESS 0u
#define ORDTREE_EQUAL 1u
#define ORDTREE_GREATER 2u

/* One record's membership in one index: where the tree keeps it, null when it is in no tree. */
typedef struct ordtree_link {
    void *place;
} ordtree_link_t;

static_assert(sizeof(ordtree_link_t) == 8, "element layouts count on links of 8 bytes");

/* Orders two links of one index by the keys of their records; a null link is less than any other. */
typedef uint32_t (*ordtree_compare_fn)(const ordtree_link_t *first, const ordtree_link_t *second);

/* Turns a node that the tree returned into the start of its element. */
typedef void *(*ordtree_node_to_entry_fn)(ordtree_link_t *node);

/* The tree's own view of one index. */
typedef struct ordtree_index {
    ordtree_compare_fn compare;
    void *root;
    void *cursor;        /* where the last successor was found; also written by readers, atomically */
    uint32_t key_offset; /* of a described key from its link, in bytes */
    uint16_t key_width;  /* of a described key in bytes; 0: not described, the comparator is called */
    uint16_t key_kind;   /* ordtree_key_kind_t */
} ordtree_index_t;

/* The handle. Its user reads `node_to_entry` and `changes` back; everything else belongs to the tree. */
typedef struct ordtree {
    ordtree_node_to_entry_fn node_to_entry; /* null: a node is its element's start */
    uint32_t index_count;                   /* 0 while the tree does not run */
    uint32_t reserved;
    uint64_t record_count;
    ordtree_index_t index[ORDTREE_MAX_INDEXES];
    uint64_t *changes; /* set by ordtree_watch; null: nobody watches the tree */
} ordtree_t;

/*
 * Starts an empty tree of `index_count` indexes (1 to ORDTREE_MAX_INDEXES), ordered by one ordtree_compare_fn per index
 * after `node_to_entry` (null for none). The handle is zero-filled or finished.
 * Returns 0, or a nonzero status with the handle as it was.
 */
L2FIB_EXPORT uint32_t ordtree_init(ordtree_t *tree, uint32_t index_count, ordtree_node_to_entry_fn node_to_entry, ...);

/* Nonzero between a successful ordtree_init and ordtree_finish. */
L2FIB_EXPORT uint32_t ordtree_running(const ordtree_t *tree);

/*
 * Puts a record's node into every index, or into none. Returns the node; null when an index holds an equal key, the
 * node is in a tree already, the tree does not run, or the tree cannot get the memory for it.
 */
L2FIB_EXPORT ordtree_link_t *ordtree_insert(ordtree_t *tree, ordtree_link_t *node);

/*
 * Takes a node out of every index and zeroes its links. Returns the node; null, with nothing touched, when the node is
 * not in this tree. Never needs memory.
 */
L2FIB_EXPORT ordtree_link_t *ordtree_delete(ordtree_t *tree, ordtree_link_t *node);

/* The node whose key equals the probe's on `index`, or null. `probe` is a node: the group of all links. */
L2FIB_EXPORT ordtree_link_t *ordtree_search(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index);

/* The node with the smallest key on `index`, or null. */
L2FIB_EXPORT ordtree_link_t *ordtree_get_first(const ordtree_t *tree, uint32_t index);

/* The node with the smallest key strictly greater than the probe's on `index`, or null. */
L2FIB_EXPORT ordtree_link_t *ordtree_get_next(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index);

/* Stops the tree and gives its memory back. Its user has deleted every node before. */
L2FIB_EXPORT void ordtree_finish(ordtree_t *tree);

/* How the key that a comparator compares lies in memory. */
typedef enum ordtree_key_kind {
    ORDTREE_KEY_BYTES = 0, /* 1 to 8 bytes, ordered as memcmp orders them */
    ORDTREE_KEY_U32 = 1    /* a uint32_t in host byte order, ordered as a number */
} ordtree_key_kind_t;

/*
 * Tells the tree that `compare` orders links by the `width` bytes at `offset` from the link, so that it may keep keys
 * beside its pointers instead of calling the comparator. Holds for the trees initialised afterwards. Saying it again is
 * harmless; a description that makes no sense is ignored. Any thread. A platform may lack this operation.
 */
L2FIB_EXPORT L2FIB_OPTIONAL void ordtree_describe_key(ordtree_compare_fn compare, uint32_t offset, uint32_t width,
                                                      ordtree_key_kind_t kind);

/*
 * Tells the tree that a node with the probe's key is about to be inserted or searched for, so that its memory may be on
 * the way while the caller does something else. Changes nothing; any arguments that suit ordtree_search. A platform may
 * lack this operation.
 */
L2FIB_EXPORT L2FIB_OPTIONAL void ordtree_expect(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index);

/*
 * Makes the tree count its changes in `*changes`: from now on each successful insertion or deletion, and the tree's
 * end, adds one, no matter who calls. The cell belongs to the caller and outlives the tree. Several trees under one
 * lock may share it. A tree that does not run is left alone. A platform may lack this operation.
 */
L2FIB_EXPORT L2FIB_OPTIONAL void ordtree_watch(ordtree_t *tree, uint64_t *changes);

L2FIB_END_DECLS
