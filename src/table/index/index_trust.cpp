// SPDX-License-Identifier: Apache-2.0

#include "table/index/index_trust.h"

namespace {

using edm::tree_changes;

// As `accounted`: the indexes are not trusted, because no number of changes reaches this one.
constexpr uint64_t never = UINT64_MAX;

// Counts changes of the module as accounted. Ends the trust if the tree counts elsewhere or not at all: the hosting
// process started such a tree, and its later changes would not be counted.
void account_for_changes(uint64_t changes_before, uint32_t count) L2FIB_REQUIRES_TABLE_LOCK
{
    if (changes_before == tree_changes.accounted && tree_changes.all == changes_before + count) {
        tree_changes.accounted += count;
    } else {
        edm::distrust_indexes();
    }
}

using node_operation = ordtree_link_t *(*)(ordtree_t *tree, ordtree_link_t *node);

template <node_operation Operation>
ordtree_link_t *change(ordtree_t *tree, ordtree_link_t *node) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint64_t before = tree_changes.all;
    ordtree_link_t *changed = Operation(tree, node);
    if (changed != nullptr) {
        account_for_changes(before, 1);
    }
    return changed;
}

} // namespace

namespace edm {

constinit change_counts tree_changes = {.all = 0, .accounted = never};

void trust_indexes_of_new_table()
{
    if (&ordtree_watch != nullptr && tree_changes.all == 0) {
        tree_changes.accounted = 0;
    }
}

void forget_tree_changes()
{
    tree_changes = {.all = 0, .accounted = never};
}

void watch_tree(ordtree_t *tree)
{
    if (&ordtree_watch != nullptr) {
        ordtree_watch(tree, &tree_changes.all);
    }
}

ordtree_link_t *insert_node(ordtree_t *tree, ordtree_link_t *node)
{
    return change<ordtree_insert>(tree, node);
}

ordtree_link_t *delete_node(ordtree_t *tree, ordtree_link_t *node)
{
    return change<ordtree_delete>(tree, node);
}

uint32_t drain_nodes(ordtree_t *tree, ordtree_link_t **nodes, uint32_t count)
{
    const uint64_t before = tree_changes.all;
    const uint32_t drained = ordtree_drain(tree, nodes, count);
    account_for_changes(before, drained);
    return drained;
}

void finish_tree(ordtree_t *tree)
{
    const uint64_t before = tree_changes.all;
    ordtree_finish(tree);
    account_for_changes(before, 1);
}

} // namespace edm
