// SPDX-License-Identifier: Apache-2.0

#include "host/tree/ordtree_shape.h"

namespace host::btree {
namespace {

constexpr unsigned max_merged_count =
    node_capacity * 3 / 4; // a merged node has room, so the next insertion does not split it

unsigned slot_of(const node *parent, const node *child)
{
    unsigned slot = 0;
    while (parent->entries[slot].target != child) {
        slot++;
    }
    return slot;
}

// Makes the targets of `count` slots of `in`, from `first` on, point back at it.
void adopt(node *in, unsigned first, unsigned count)
{
    for (unsigned slot = first; slot < first + count; slot++) {
        if (in->level == 0) {
            record_at(in, slot)[in->index].place = in;
        } else {
            child_at(in, slot)->parent = in;
        }
    }
}

void insert_and_adopt(node *into, unsigned slot, entry added)
{
    insert_entry(into, slot, added);
    adopt(into, slot, 1);
}

void link_behind(node *before, node *added)
{
    added->prev = before;
    added->next = before->next;
    if (added->next != nullptr) {
        added->next->prev = added;
    }
    before->next = added;
}

void unlink(node *member)
{
    if (member->prev != nullptr) {
        member->prev->next = member->next;
    }
    if (member->next != nullptr) {
        member->next->prev = member->prev;
    }
}

node *take_spare(node *&spare, const ordtree_t *tree, unsigned number, unsigned level)
{
    node *const taken = spare;
    spare = taken->next;
    __atomic_store_n(&taken->tree, tree, __ATOMIC_RELAXED);
    taken->next = nullptr;
    taken->level = static_cast<uint16_t>(level);
    taken->index = static_cast<uint16_t>(number);
    return taken;
}

void release(ordtree_index_t &index, node *unused)
{
    if (cursor_of(index).leaf == unused) {
        set_cursor(index, {nullptr, 0});
    }
    node_give(unused);
}

// Returns how many entries a full node keeps when it is split to insert at `slot`. Usually half. An insertion behind
// the last entry of the index, or before the first, moves nothing: ascending or descending keys so leave full nodes
// behind. A run of ascending keys may end below keys that came before it. It shows because each insertion follows the
// latest one, and the node keeps what is below the run's end. In the lower half of a node, that may be chance, and
// would leave the node nearly empty.
unsigned kept_by_split(const node *full, unsigned slot)
{
    const bool is_run = slot == full->newest + 1 && slot > node_capacity / 2;
    if (is_run || (slot == node_capacity && full->next == nullptr)) {
        return slot;
    }
    return slot == 0 && full->prev == nullptr ? 0 : node_capacity / 2;
}

// Splits a full node and inserts at `slot`, counted before the split. Returns the new neighbour to the right.
node *split_and_insert(node *full, unsigned slot, entry added, node *&spare)
{
    const unsigned kept = kept_by_split(full, slot);
    node *const right = take_spare(spare, full->tree, full->index, full->level);
    right->count = node_capacity - kept;
    move_entries(right, 0, full, kept, right->count);
    full->count = kept;
    adopt(right, 0, right->count);
    link_behind(full, right);
    if (slot > kept || kept == node_capacity) {
        insert_and_adopt(right, slot - kept, added);
    } else {
        insert_and_adopt(full, slot, added);
    }
    return right;
}

// Puts a new root above the present one.
node *grow(ordtree_index_t &index, node *root, node *&spare)
{
    node *const above = take_spare(spare, root->tree, root->index, root->level + 1U);
    insert_and_adopt(above, 0, {root->entries[0].key, root});
    index.root = above;
    return above;
}

// Updates the separator of `at` after the least link below it has changed. Needed only where key words are links.
void renew_separator(const ordtree_index_t &index, const node *at)
{
    if (has_inline_keys(index)) {
        return;
    }
    const uint64_t least = at->entries[0].key;
    for (node *parent = at->parent; parent != nullptr; parent = at->parent) {
        const unsigned slot = slot_of(parent, at);
        if (slot > 0) {
            parent->entries[slot].key = least;
            return;
        }
        at = parent;
    }
}

bool can_merge(const node *left, const node *right)
{
    return left != nullptr && right != nullptr && left->parent == right->parent
           && left->count + right->count <= max_merged_count;
}

// Merges two neighbours under one parent into the larger one, because that updates the links of fewer records.
void merge(ordtree_index_t &index, node *left, node *right)
{
    node *const parent = left->parent;
    const unsigned slot = slot_of(parent, left);
    if (left->level > 0) {
        right->entries[0].key = parent->entries[slot + 1].key;
    }
    const bool to_right = left->count < right->count;
    node *const larger = to_right ? right : left;
    node *const smaller = to_right ? left : right;
    const unsigned at = to_right ? 0 : left->count;
    if (to_right) {
        move_entries(right, left->count, right, 0, right->count);
    }
    move_entries(larger, at, smaller, 0, smaller->count);
    larger->count += smaller->count;
    adopt(larger, at, smaller->count);
    parent->entries[slot].target = larger;
    remove_entry(parent, slot + 1);
    unlink(smaller);
    release(index, smaller);
}

// Replaces a root that has one child by that child.
void lower(ordtree_index_t &index)
{
    auto *root = static_cast<node *>(index.root);
    while (root->level > 0 && root->count == 1) {
        node *const child = child_at(root, 0);
        child->parent = nullptr;
        index.root = child;
        release(index, root);
        root = child;
    }
}

void merge_if_sparse(ordtree_index_t &index, node *at)
{
    while (at->parent != nullptr && at->count < sparse_count) {
        node *const parent = at->parent;
        if (can_merge(at, at->next)) {
            merge(index, at, at->next);
        } else if (can_merge(at->prev, at)) {
            merge(index, at->prev, at);
        } else {
            return;
        }
        at = parent;
    }
    lower(index);
}

// Removes an empty node from its index, and each parent that becomes empty by that.
void drop_empty(ordtree_index_t &index, node *at)
{
    while (at->count == 0) {
        node *const parent = at->parent;
        unlink(at);
        if (parent == nullptr) {
            index.root = nullptr;
            release(index, at);
            return;
        }
        const unsigned slot = slot_of(parent, at);
        release(index, at);
        remove_entry(parent, slot);
        if (slot == 0 && parent->count > 0) {
            renew_separator(index, parent);
        }
        at = parent;
    }
    merge_if_sparse(index, at);
}

} // namespace

unsigned nodes_needed(const node *leaf) noexcept
{
    unsigned needed = 0;
    const node *at = leaf;
    while (at != nullptr && at->count == node_capacity) {
        needed++;
        at = at->parent;
    }
    return at == nullptr ? needed + 1 : needed;
}

void put_with_nodes(ordtree_t *tree, unsigned number, leaf_place at, entry added, node *&spare) noexcept
{
    ordtree_index_t &index = tree->index[number];
    if (at.leaf == nullptr) {
        at = {take_spare(spare, tree, number, 0), 0};
        index.root = at.leaf;
    }
    while (at.leaf->count == node_capacity) {
        node *const left = at.leaf;
        node *const right = split_and_insert(left, at.slot, added, spare);
        node *const parent = left->parent != nullptr ? left->parent : grow(index, left, spare);
        added = {right->entries[0].key, right};
        at = {parent, slot_of(parent, left) + 1};
    }
    insert_and_adopt(at.leaf, at.slot, added);
}

void reshape_after_removal(ordtree_index_t &index, node *leaf, unsigned slot) noexcept
{
    if (leaf->count == 0) {
        drop_empty(index, leaf);
        return;
    }
    if (slot == 0) {
        renew_separator(index, leaf);
    }
    merge_if_sparse(index, leaf);
}

void take_first_records(ordtree_index_t &index, node *leaf, unsigned count) noexcept
{
    leaf->count -= count;
    move_entries(leaf, 0, leaf, count, leaf->count);
    set_cursor(index, {leaf, 0});
    reshape_after_removal(index, leaf, 0);
}

void free_nodes(ordtree_index_t &index) noexcept
{
    auto *level = static_cast<node *>(index.root);
    while (level != nullptr) {
        node *const below = level->level > 0 ? child_at(level, 0) : nullptr;
        while (level != nullptr) {
            node *const unused = level;
            level = level->next;
            node_give(unused);
        }
        level = below;
    }
    index.root = nullptr;
}

} // namespace host::btree
