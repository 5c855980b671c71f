/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Ordered multi-index tree: each container of the cache that has an order.
 *
 * The user allocates the handle of a tree. A tree has one or two indexes over the same records. It does not copy
 * records, and its user allocates nothing for them: each record embeds one link per index, side by side. This group of
 * links is the node that the tree knows:
 *
 *        element ->  +-------------+
 *           node ->  | link 0      |   passed to the comparator of index 0
 *                    | link 1      |   passed to the comparator of index 1 (trees with two indexes only)
 *                    +-------------+
 *                    | record      |   holds the keys, at an offset from the link that only the comparator knows
 *                    +-------------+
 *
 * Rules:
 *  - A link that is in no tree reads as zero, and a zero-filled handle reads as a tree that does not run. A user who
 *    allocates zero-filled memory therefore initialises neither.
 *  - Keys are unique in each index. If any index holds an equal key, the tree refuses the whole insertion.
 *  - A key must not change while its record is in the tree.
 *  - `ordtree_get_next` of a record that is in this tree needs no search in a tree of any size. Any other probe
 *    costs one search. The links of a probe are zero, or those of a record in some tree; they are never uninitialised.
 *
 * Example, a tree of records with one index:
 *
 *      struct item { ordtree_link_t link; uint32_t key; };
 *      ordtree_t tree = {0};
 *      ordtree_init(&tree, 1, NULL, compare_items);
 *      ordtree_insert(&tree, &item->link);
 *      for (ordtree_link_t *at = ordtree_get_first(&tree, 0); at != NULL; at = ordtree_get_next(&tree, at, 0)) {
 *          ...
 *      }
 *
 * Locking: a tree has no lock. A writer excludes all other users of the tree, a reader excludes writers. Different
 * trees are independent of each other, also while they grow.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

#define ORDTREE_MAX_INDEXES 2u

/* Results of a comparator: how its first argument compares with the second. */
#define ORDTREE_LESS 0u
#define ORDTREE_EQUAL 1u
#define ORDTREE_GREATER 2u

/* One record's membership in one index: where the tree keeps it. Null while the record is in no tree. */
typedef struct ordtree_link {
    void *place;
} ordtree_link_t;

static_assert(sizeof(ordtree_link_t) == 8, "element layouts count on links of 8 bytes");

/* Orders two links of one index by the keys of their records. A null link is less than any other. */
typedef uint32_t (*ordtree_compare_fn)(const ordtree_link_t *first, const ordtree_link_t *second);

/* Converts a node that the tree returned into the start of its element. */
typedef void *(*ordtree_node_to_entry_fn)(ordtree_link_t *node);

/* The tree's own view of one index. */
typedef struct ordtree_index {
    ordtree_compare_fn compare;
    void *root;
    void *cursor;        /* where the tree found the last successor; readers write it too, atomically */
    uint32_t key_offset; /* of a described key from its link, in bytes */
    uint16_t key_width;  /* of a described key, in bytes; 0: not described, the tree calls the comparator */
    uint16_t key_kind;   /* ordtree_key_kind_t */
} ordtree_index_t;

/* The handle. Users read `node_to_entry` and `changes`. All other members are the tree's own. */
typedef struct ordtree {
    ordtree_node_to_entry_fn node_to_entry; /* null: a node is its element's start */
    uint32_t index_count;                   /* 0 while the tree does not run */
    uint32_t reserved;
    uint64_t record_count;
    ordtree_index_t index[ORDTREE_MAX_INDEXES];
    uint64_t *changes; /* set by ordtree_watch, cleared by ordtree_finish; null: nobody watches the tree */
} ordtree_t;

/*
 * Starts an empty tree of `index_count` indexes (1 to ORDTREE_MAX_INDEXES). One ordtree_compare_fn per index follows
 * `node_to_entry`, which may be null. The handle is zero-filled or finished.
 * Returns 0, or a nonzero status with the handle unchanged.
 */
L2FIB_EXPORT uint32_t ordtree_init(ordtree_t *tree, uint32_t index_count, ordtree_node_to_entry_fn node_to_entry, ...);

/* Returns nonzero between a successful ordtree_init and ordtree_finish. */
L2FIB_EXPORT uint32_t ordtree_running(const ordtree_t *tree);

/*
 * Inserts a record's node into all indexes, or into none. Returns the node. Returns null if an index holds an equal
 * key, the node is already in a tree, the tree does not run, or memory is short.
 */
L2FIB_EXPORT ordtree_link_t *ordtree_insert(ordtree_t *tree, ordtree_link_t *node);

/*
 * Removes a node from all indexes and zeroes its links. Returns the node. Returns null and changes nothing if the node
 * is not in this tree. Needs no memory.
 */
L2FIB_EXPORT ordtree_link_t *ordtree_delete(ordtree_t *tree, ordtree_link_t *node);

/* Returns the node whose key equals the probe's on `index`, or null. `probe` is a node: the group of all links. */
L2FIB_EXPORT ordtree_link_t *ordtree_search(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index);

/* Returns the node with the smallest key on `index`, or null. */
L2FIB_EXPORT ordtree_link_t *ordtree_get_first(const ordtree_t *tree, uint32_t index);

/* Returns the node with the smallest key that is greater than the probe's on `index`, or null. */
L2FIB_EXPORT ordtree_link_t *ordtree_get_next(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index);

/* Stops the tree and releases its memory. The user has deleted all nodes before. */
L2FIB_EXPORT void ordtree_finish(ordtree_t *tree);

/* How the key that a comparator compares lies in memory. */
typedef enum ordtree_key_kind {
    ORDTREE_KEY_BYTES = 0, /* 1 to 8 bytes, ordered as memcmp orders them */
    ORDTREE_KEY_U32 = 1    /* a uint32_t in host byte order, ordered as a number */
} ordtree_key_kind_t;

/*
 * Declares that `compare` orders links by the `width` bytes at `offset` bytes from the link. The tree may then keep
 * keys beside its pointers instead of calling the comparator. The description holds for trees that start afterwards. A
 * repeated description is harmless; an impossible one is ignored. Any thread. A platform may lack this operation.
 */
L2FIB_EXPORT L2FIB_OPTIONAL void ordtree_describe_key(ordtree_compare_fn compare, uint32_t offset, uint32_t width,
                                                      ordtree_key_kind_t kind);

/*
 * Hints that the caller will soon insert or search a node with the probe's key, or delete the probe if that is a node
 * of the tree. The tree may prefetch memory meanwhile. Changes nothing. Takes the arguments of ordtree_search. A
 * platform may lack this operation.
 */
L2FIB_EXPORT L2FIB_OPTIONAL void ordtree_expect(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index);

/*
 * Stores the nodes behind `node`, which is in the tree, in the order of `index`: at most `count` of them, to `nodes`.
 * Returns how many it stored, 0 behind the last node. A walk that changes nothing saves a call for each node so. The
 * tree also prefetches memory of the nodes behind those. A platform may lack this operation.
 */
L2FIB_EXPORT L2FIB_OPTIONAL uint32_t ordtree_gather(const ordtree_t *tree, const ordtree_link_t *node, uint32_t index,
                                                    ordtree_link_t **nodes, uint32_t count);

/*
 * Deletes the nodes with the smallest keys of a tree with one index, and stores them in order to `nodes`: at most
 * `count` of them, and at least one unless the tree is empty. Zeroes their links, as ordtree_delete does. Returns how
 * many it deleted; 0 if the tree is empty, does not run or has two indexes. Emptying a tree so is cheaper than one
 * deletion for each node. Needs no memory. A platform may lack this operation.
 */
L2FIB_EXPORT L2FIB_OPTIONAL uint32_t ordtree_drain(ordtree_t *tree, ordtree_link_t **nodes, uint32_t count);

/*
 * Makes the tree count its changes in `*changes`. From now on each successful insertion and deletion, and the tree's
 * end, adds one, for every caller. The caller owns the cell and keeps it longer than the tree. Several trees under
 * one lock may share a cell. A tree that does not run stays unwatched. A platform may lack this operation.
 */
L2FIB_EXPORT L2FIB_OPTIONAL void ordtree_watch(ordtree_t *tree, uint64_t *changes);

L2FIB_END_DECLS
