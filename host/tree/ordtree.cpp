// SPDX-License-Identifier: Apache-2.0

#include "platform/ordtree.h"

#include "host/tree/ordtree_key.h"
#include "host/tree/ordtree_shape.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>

namespace {

using namespace host::btree;

// A walk prefetches the record this many steps ahead of the one that it returns.
constexpr unsigned prefetch_distance = 8;

constexpr unsigned entries_per_line = cache_line_size / sizeof(entry);

// Up to this many entries, a search is faster than a prefetch of the whole node.
constexpr unsigned small_count = 2 * entries_per_line;

bool runs(const ordtree_t *tree)
{
    return tree != nullptr && tree->index_count != 0;
}

// Counts changes of the tree for ordtree_watch.
void note_change(const ordtree_t *tree, unsigned count = 1)
{
    if (tree->changes != nullptr) {
        *tree->changes += count;
    }
}

bool has_index(const ordtree_t *tree, unsigned number)
{
    return tree != nullptr && number < tree->index_count;
}

bool holds(leaf_place at, const ordtree_link_t *record)
{
    return at.slot < at.leaf->count && at.leaf->entries[at.slot].target == record;
}

constexpr unsigned not_in_leaf = node_capacity;

unsigned scan_for(const node *leaf, const ordtree_link_t *record)
{
    for (unsigned slot = 0; slot < leaf->count; slot++) {
        if (leaf->entries[slot].target == record) {
            return slot;
        }
    }
    return not_in_leaf;
}

// Returns the slot of `record` in a leaf of this index, or not_in_leaf. Finds a record even if its key was changed
// while it was in the tree.
unsigned slot_in(const ordtree_index_t &index, const node *leaf, const ordtree_link_t *record)
{
    if (has_inline_keys(index)) {
        const uint64_t key = key_word(index, record + leaf->index);
        const unsigned slot = count_below(leaf->entries, leaf->count, key);
        if (slot < leaf->count && leaf->entries[slot].target == record) {
            return slot;
        }
    }
    return scan_for(leaf, record);
}

// Returns where `record` is in an index of this tree. No leaf if it is not there, whatever its link holds.
[[gnu::noinline]] leaf_place locate(const ordtree_t *tree, unsigned number, const ordtree_link_t *record)
{
    node *const leaf = node_at(record[number].place);
    if (leaf == nullptr || tree_of(leaf) != tree || leaf->index != number || leaf->level != 0) {
        return {nullptr, 0};
    }
    if (leaf->count > small_count) {
        prefetch_node(leaf);
    }
    const unsigned slot = slot_in(tree->index[number], leaf, record);
    return {slot != not_in_leaf ? leaf : nullptr, slot};
}

// The same for a record that is about to be removed. A sweep has asked for its successor just before, so the record
// usually stands one slot before the cursor.
[[gnu::always_inline]] inline leaf_place locate_behind_walk(const ordtree_t *tree, unsigned number,
                                                            const ordtree_link_t *record)
{
    const leaf_place cursor = cursor_of(tree->index[number]);
    if (cursor.leaf != nullptr && record[number].place == cursor.leaf && cursor.slot > 0) {
        const leaf_place before = {cursor.leaf, cursor.slot - 1};
        if (holds(before, record)) {
            return before;
        }
    }
    return locate(tree, number, record);
}

// Whether a place, which may be any value, is a leaf of some tree that holds the record.
[[gnu::noinline]] bool is_leaf_of(const void *place, const ordtree_link_t *record)
{
    const node *const leaf = node_at(place);
    return leaf != nullptr && tree_of(leaf) != nullptr && scan_for(leaf, record) != not_in_leaf;
}

// Whether one of the record's links leads to a leaf, of any tree, that holds the record.
[[gnu::always_inline]] inline bool is_in_a_tree(const ordtree_link_t *record, unsigned link_count)
{
    for (unsigned number = 0; number < link_count; number++) {
        if (record[number].place != nullptr && is_leaf_of(record[number].place, record)) {
            return true;
        }
    }
    return false;
}

// Prefetches for a walk the record that is due in a few steps, and parts of the next leaf. Records of neighbouring keys
// lie anywhere in memory. Always inlined, like prefetch_node.
[[gnu::always_inline]] inline void prefetch_ahead(leaf_place at)
{
    const node *leaf = at.leaf;
    const node *const next = leaf->next;
    if (at.slot % entries_per_line == 0 && next != nullptr) {
        __builtin_prefetch(next);
        __builtin_prefetch(next->entries + at.slot);
    }
    unsigned slot = at.slot + prefetch_distance;
    if (slot >= leaf->count) {
        slot -= leaf->count;
        leaf = next;
    }
    if (leaf != nullptr) {
        const auto *const record = static_cast<const char *>(leaf->entries[slot].target);
        __builtin_prefetch(record);
        __builtin_prefetch(record + cache_line_size);
    }
}

// Turns a place behind the last entry of a leaf into the first place of the next leaf.
inline leaf_place in_range(leaf_place at)
{
    return at.slot < at.leaf->count ? at : leaf_place{at.leaf->next, 0};
}

// Returns the record at a place and sets the cursor. Null behind the last record.
inline ordtree_link_t *visit(const ordtree_index_t &index, leaf_place at)
{
    if (at.leaf == nullptr) {
        return nullptr;
    }
    set_cursor(index, at);
    return record_at(at.leaf, at.slot);
}

// The same for a step of a walk, which also prefetches.
inline ordtree_link_t *visit_on_walk(const ordtree_index_t &index, leaf_place at)
{
    if (at.leaf != nullptr) {
        prefetch_ahead(at);
    }
    return visit(index, at);
}

[[gnu::noinline]] ordtree_link_t *next_of_any(const ordtree_t *tree, const ordtree_link_t *probe, unsigned number)
{
    const ordtree_index_t &index = tree->index[number];
    const leaf_place at = probe[number].place != nullptr ? locate(tree, number, probe) : leaf_place{nullptr, 0};
    if (at.leaf != nullptr) {
        return visit_on_walk(index, in_range({at.leaf, at.slot + 1}));
    }
    const key_position found = find_key(index, key_word(index, probe + number));
    if (found.leaf == nullptr) {
        return nullptr;
    }
    return visit(index, in_range({found.leaf, found.slot + (found.equal ? 1 : 0)}));
}

// Prefetches the records from a place on, at most `count`. Always inlined, like prefetch_node.
[[gnu::always_inline]] inline void prefetch_records(leaf_place from, unsigned count)
{
    for (; from.leaf != nullptr && count > 0; from = {from.leaf->next, 0}) {
        const unsigned end = std::min(from.leaf->count, from.slot + count);
        count -= end - from.slot;
        for (unsigned slot = from.slot; slot < end; slot++) {
            const auto *const record = static_cast<const char *>(from.leaf->entries[slot].target);
            __builtin_prefetch(record);
            __builtin_prefetch(record + cache_line_size);
        }
    }
}

// Copies the records of a leaf from a place on, up to slot `end`. Returns how many.
inline uint32_t copy_records(leaf_place from, unsigned end, ordtree_link_t **records)
{
    const unsigned count = end > from.slot ? end - from.slot : 0;
    const entry *const entries = from.leaf->entries + from.slot;
#pragma GCC unroll 4
    for (unsigned number = 0; number < count; number++) {
        records[number] = static_cast<ordtree_link_t *>(entries[number].target);
    }
    return count;
}

// Returns the first leaf of an index that is not empty.
node *first_leaf(const ordtree_index_t &index)
{
    auto *leaf = static_cast<node *>(index.root);
    while (leaf->level > 0) {
        leaf = child_at(leaf, 0);
    }
    return leaf;
}

const node *leaf_below(const node *at, uint64_t key)
{
    for (unsigned level = at->level; level > 0; level--) {
        at = child_at(at, slot_below(at, key));
    }
    return at;
}

// Where an insertion puts the record in one index. It finds all places before it changes an index.
struct insertion {
    leaf_place at;
    uint64_t key;
};

using insertions = std::array<insertion, ORDTREE_MAX_INDEXES>;

// Finds where a record goes in each index, and how many new nodes that needs. False if an index holds an equal key.
[[gnu::always_inline]] inline bool find_room(const ordtree_t *tree, const ordtree_link_t *record, unsigned index_count,
                                             insertions &into, unsigned &needed)
{
    for (unsigned number = 0; number < index_count; number++) {
        const ordtree_index_t &index = tree->index[number];
        const uint64_t key = key_word(index, record + number);
        const key_position found = find_key(index, key);
        if (found.equal) {
            return false;
        }
        into[number] = {{found.leaf, found.slot}, key};
        needed += needs_nodes(found.leaf) ? nodes_needed(found.leaf) : 0;
    }
    return true;
}

// The operations below take the number of indexes apart from the tree and are always inlined. Nearly all trees have one
// index, and with a constant the compiler drops the loops. The variants for any number are functions of their own.

[[gnu::always_inline]] inline ordtree_link_t *insert_into(ordtree_t *tree, ordtree_link_t *record, unsigned index_count)
{
    if (is_in_a_tree(record, index_count)) {
        return nullptr;
    }
    insertions into;
    unsigned needed = 0;
    host::btree::node *spare = nullptr;
    if (!find_room(tree, record, index_count, into, needed) || (needed > 0 && !nodes_take(needed, spare))) {
        return nullptr;
    }
    for (unsigned number = 0; number < index_count; number++) {
        put_record(tree, number, into[number].at, {into[number].key, record}, spare);
    }
    tree->record_count++;
    note_change(tree);
    return record;
}

[[gnu::always_inline]] inline ordtree_link_t *delete_from(ordtree_t *tree, ordtree_link_t *record, unsigned index_count)
{
    std::array<leaf_place, ORDTREE_MAX_INDEXES> at;
    for (unsigned number = 0; number < index_count; number++) {
        at[number] = locate_behind_walk(tree, number, record);
        if (at[number].leaf == nullptr) {
            return nullptr;
        }
    }
    for (unsigned number = 0; number < index_count; number++) {
        take_record(tree, number, at[number]);
    }
    tree->record_count--;
    note_change(tree);
    return record;
}

[[gnu::noinline]] ordtree_link_t *insert_into_all(ordtree_t *tree, ordtree_link_t *record)
{
    return insert_into(tree, record, tree->index_count);
}

[[gnu::noinline]] ordtree_link_t *delete_from_all(ordtree_t *tree, ordtree_link_t *record)
{
    return delete_from(tree, record, tree->index_count);
}

} // namespace

uint32_t ordtree_init(ordtree_t *tree, uint32_t index_count, ordtree_node_to_entry_fn node_to_entry, ...)
{
    if (tree == nullptr || tree->index_count != 0 || index_count == 0 || index_count > ORDTREE_MAX_INDEXES) {
        return EINVAL;
    }
    ordtree_t started{};
    started.node_to_entry = node_to_entry;
    started.index_count = index_count;
    va_list comparators;
    va_start(comparators, node_to_entry);
    bool complete = true;
    for (unsigned number = 0; number < index_count; number++) {
        ordtree_index_t &index = started.index[number];
        index.compare = va_arg(comparators, ordtree_compare_fn);
        complete = complete && index.compare != nullptr;
        adopt_key_description(index);
    }
    va_end(comparators);
    if (!complete) {
        return EINVAL;
    }
    *tree = started;
    return 0;
}

uint32_t ordtree_running(const ordtree_t *tree)
{
    return runs(tree) ? 1 : 0;
}

ordtree_link_t *ordtree_insert(ordtree_t *tree, ordtree_link_t *node)
{
    if (!runs(tree) || node == nullptr) {
        return nullptr;
    }
    return tree->index_count == 1 ? insert_into(tree, node, 1) : insert_into_all(tree, node);
}

ordtree_link_t *ordtree_delete(ordtree_t *tree, ordtree_link_t *node)
{
    if (!runs(tree) || node == nullptr) {
        return nullptr;
    }
    return tree->index_count == 1 ? delete_from(tree, node, 1) : delete_from_all(tree, node);
}

ordtree_link_t *ordtree_search(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index)
{
    if (!has_index(tree, index) || probe == nullptr) {
        return nullptr;
    }
    const key_position found = find_key(tree->index[index], key_word(tree->index[index], probe + index));
    return found.equal ? record_at(found.leaf, found.slot) : nullptr;
}

// Prefetches the leaf of a record, or searches down to that of a probe and prefetches it. Does nothing if the search
// would call a comparator, because that would wait for the memory of records.
void ordtree_expect(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index)
{
    if (!has_index(tree, index) || probe == nullptr || !has_inline_keys(tree->index[index])) {
        return;
    }
    const auto *at = static_cast<const host::btree::node *>(probe[index].place);
    if (at == nullptr) {
        at = static_cast<const host::btree::node *>(tree->index[index].root);
        if (at != nullptr && at->level > 0) {
            at = leaf_below(at, key_word(tree->index[index], probe + index));
        }
    }
    if (at != nullptr) {
        prefetch_node(at);
    }
}

ordtree_link_t *ordtree_get_first(const ordtree_t *tree, uint32_t index)
{
    if (!has_index(tree, index) || tree->index[index].root == nullptr) {
        return nullptr;
    }
    node *const leaf = first_leaf(tree->index[index]);
    for (unsigned slot = 1; slot < leaf->count && slot < prefetch_distance; slot++) {
        __builtin_prefetch(leaf->entries[slot].target);
    }
    return visit_on_walk(tree->index[index], {leaf, 0});
}

ordtree_link_t *ordtree_get_next(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index)
{
    if (!has_index(tree, index) || probe == nullptr) {
        return nullptr;
    }
    const leaf_place cursor = cursor_of(tree->index[index]);
    if (cursor.leaf != nullptr && probe[index].place == cursor.leaf && holds(cursor, probe)) {
        return visit_on_walk(tree->index[index], in_range({cursor.leaf, cursor.slot + 1}));
    }
    return next_of_any(tree, probe, index);
}

uint32_t ordtree_gather(const ordtree_t *tree, const ordtree_link_t *node, uint32_t index, ordtree_link_t **nodes,
                        uint32_t count)
{
    if (!has_index(tree, index) || node == nullptr || count == 0) {
        return 0;
    }
    const leaf_place cursor = cursor_of(tree->index[index]);
    const bool is_at_cursor = cursor.leaf != nullptr && node[index].place == cursor.leaf && holds(cursor, node);
    leaf_place at = is_at_cursor ? cursor : locate(tree, index, node);
    uint32_t stored = 0;
    for (at.slot++; at.leaf != nullptr && stored < count; at = {at.leaf->next, 0}) {
        const unsigned end = std::min(at.leaf->count, at.slot + (count - stored));
        stored += copy_records(at, end, nodes + stored);
        at.slot = std::max(at.slot, end);
        if (stored == count) {
            set_cursor(tree->index[index], {at.leaf, at.slot - 1});
            prefetch_records(at, count);
            break;
        }
    }
    return stored;
}

// Drains the first leaf. If `nodes` has room for all its records, the leaf goes as a whole, and no entry moves.
uint32_t ordtree_drain(ordtree_t *tree, ordtree_link_t **nodes, uint32_t count)
{
    if (!has_index(tree, 0) || tree->index_count != 1 || tree->index[0].root == nullptr || count == 0) {
        return 0;
    }
    node *const leaf = first_leaf(tree->index[0]);
    const unsigned taken = std::min(leaf->count, count);
    prefetch_records({leaf, 0}, taken);
    copy_records({leaf, 0}, taken, nodes);
    for (unsigned number = 0; number < taken; number++) {
        nodes[number]->place = nullptr;
    }
    take_first_records(tree->index[0], leaf, taken);
    tree->record_count -= taken;
    note_change(tree, taken);
    return taken;
}

void ordtree_finish(ordtree_t *tree)
{
    if (tree == nullptr) {
        return;
    }
    for (unsigned number = 0; number < tree->index_count; number++) {
        free_nodes(tree->index[number]);
    }
    note_change(tree);
    *tree = ordtree_t{};
}

void ordtree_watch(ordtree_t *tree, uint64_t *changes)
{
    if (runs(tree)) {
        tree->changes = changes;
    }
}
