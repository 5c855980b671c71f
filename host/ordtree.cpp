#include "platform/ordtree.h"

#include "host/ordtree_key.h"
#include "host/ordtree_shape.h"

#include <array>
#include <cerrno>
#include <cstdarg>

namespace {

using namespace host::btree;

/* How many records ahead of the one returned a walk asks memory for. */
constexpr unsigned prefetch_distance = 8;

bool has_index(const ordtree_t *tree, unsigned number)
{
    return tree != nullptr && number < tree->index_count;
}

constexpr unsigned not_in_leaf = node_capacity;

unsigned scan_for(const node *leaf, const ordtree_link_t *record)
{
    for (unsigned slot = 0; slot < leaf->count; ++slot) {
        if (leaf->slot[slot] == record) {
            return slot;
        }
    }
    return not_in_leaf;
}

bool holds(leaf_place at, const ordtree_link_t *record)
{
    return at.slot < at.leaf->count && at.leaf->slot[at.slot] == record;
}

/* The slot of `record` in a leaf of this index. A record whose key was changed under the tree is found all the same. */
unsigned slot_in(const ordtree_index_t &index, const node *leaf, const ordtree_link_t *record)
{
    if (has_inline_keys(index)) {
        const std::uint64_t key = key_word(index, record + leaf->index);
        const unsigned slot = count_below(leaf->key, leaf->count, key);
        if (slot < leaf->count && leaf->slot[slot] == record) {
            return slot;
        }
    }
    return scan_for(leaf, record);
}

/* Where `record` is in an index of this very tree; no leaf when it is not, whatever its link holds. */
leaf_place locate(const ordtree_t *tree, unsigned number, const ordtree_link_t *record)
{
    const void *const place = record[number].place;
    if (place == nullptr) {
        return {nullptr, 0};
    }
    const ordtree_index_t &index = tree->index[number];
    const leaf_place cursor = cursor_of(index);
    if (cursor.leaf == place) {
        if (holds(cursor, record)) {
            return cursor;
        }
        if (cursor.slot > 0 && holds({cursor.leaf, cursor.slot - 1}, record)) {
            return {cursor.leaf, cursor.slot - 1};
        }
    }
    node *const leaf = node_at(place);
    if (leaf == nullptr || tree_of(leaf) != tree || leaf->index != number || leaf->level != 0) {
        return {nullptr, 0};
    }
    const unsigned slot = slot_in(index, leaf, record);
    return {slot != not_in_leaf ? leaf : nullptr, slot};
}

/* Whether one of the node's links leads to a leaf, of any tree, that holds it. */
bool is_in_a_tree(const ordtree_link_t *record, unsigned link_count)
{
    for (unsigned number = 0; number < link_count; ++number) {
        const node *const leaf = record[number].place != nullptr ? node_at(record[number].place) : nullptr;
        if (leaf != nullptr && tree_of(leaf) != nullptr && scan_for(leaf, record) != not_in_leaf) {
            return true;
        }
    }
    return false;
}

/* A walk touches one record after the other, wherever they lie: ask for the one that is due in a few steps. */
void prefetch_ahead(leaf_place at)
{
    const node *leaf = at.leaf;
    const node *const next = leaf->next;
    if (at.slot % 8 == 0 && next != nullptr) {
        __builtin_prefetch(next);
        __builtin_prefetch(next->slot + at.slot);
    }
    unsigned slot = at.slot + prefetch_distance;
    if (slot >= leaf->count) {
        slot -= leaf->count;
        leaf = next;
    }
    if (leaf != nullptr && slot < leaf->count) {
        const auto *const record = static_cast<const char *>(leaf->slot[slot]);
        __builtin_prefetch(record);
        __builtin_prefetch(record + 64);
    }
}

/* The record at a place that may lie behind a leaf's last slot. */
ordtree_link_t *visit(const ordtree_index_t &index, leaf_place at)
{
    if (at.slot >= at.leaf->count) {
        at = {at.leaf->next, 0};
        if (at.leaf == nullptr) {
            return nullptr;
        }
    }
    set_cursor(index, at);
    prefetch_ahead(at);
    return record_at(at.leaf, at.slot);
}

struct search_result {
    leaf_place at;
    bool equal;
};

search_result search(const ordtree_index_t &index, std::uint64_t key)
{
    if (index.root == nullptr) {
        return {{nullptr, 0}, false};
    }
    node *const leaf = leaf_for(index, key);
    const node_position found = find_key(index, leaf, 0, key);
    return {{leaf, found.slot}, found.equal};
}

using places = std::array<leaf_place, ORDTREE_MAX_INDEXES>;

/* Where a record would go in each index; false when one of them holds an equal key. */
bool find_room(const ordtree_t *tree, const ordtree_link_t *record, places &at)
{
    for (unsigned number = 0; number < tree->index_count; ++number) {
        const ordtree_index_t &index = tree->index[number];
        const search_result found = search(index, key_word(index, record + number));
        if (found.equal) {
            return false;
        }
        at[number] = found.at;
    }
    return true;
}

/* The nodes that an insertion takes in all indexes together, before anything is changed. */
bool take_spare_nodes(const ordtree_t *tree, const places &at, node *&spare)
{
    unsigned needed = 0;
    for (unsigned number = 0; number < tree->index_count; ++number) {
        needed += nodes_needed(at[number].leaf);
    }
    return needed == 0 || nodes_take(needed, spare);
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
    for (unsigned number = 0; number < index_count; ++number) {
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
    return tree != nullptr && tree->index_count != 0 ? 1 : 0;
}

ordtree_link_t *ordtree_insert(ordtree_t *tree, ordtree_link_t *node)
{
    if (ordtree_running(tree) == 0 || node == nullptr || is_in_a_tree(node, tree->index_count)) {
        return nullptr;
    }
    places at{};
    host::btree::node *spare = nullptr;
    if (!find_room(tree, node, at) || !take_spare_nodes(tree, at, spare)) {
        return nullptr;
    }
    for (unsigned number = 0; number < tree->index_count; ++number) {
        put_record(tree, number, at[number], node, spare);
    }
    ++tree->record_count;
    return node;
}

ordtree_link_t *ordtree_delete(ordtree_t *tree, ordtree_link_t *node)
{
    if (ordtree_running(tree) == 0 || node == nullptr) {
        return nullptr;
    }
    places at{};
    for (unsigned number = 0; number < tree->index_count; ++number) {
        at[number] = locate(tree, number, node);
        if (at[number].leaf == nullptr) {
            return nullptr;
        }
    }
    for (unsigned number = 0; number < tree->index_count; ++number) {
        take_record(tree, at[number]);
        node[number].place = nullptr;
    }
    --tree->record_count;
    return node;
}

ordtree_link_t *ordtree_search(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index)
{
    if (!has_index(tree, index) || probe == nullptr) {
        return nullptr;
    }
    const search_result found = search(tree->index[index], key_word(tree->index[index], probe + index));
    return found.equal ? record_at(found.at.leaf, found.at.slot) : nullptr;
}

ordtree_link_t *ordtree_get_first(const ordtree_t *tree, uint32_t index)
{
    if (!has_index(tree, index) || tree->index[index].root == nullptr) {
        return nullptr;
    }
    auto *leaf = static_cast<node *>(tree->index[index].root);
    while (leaf->level > 0) {
        leaf = child_at(leaf, 0);
    }
    for (unsigned slot = 1; slot < leaf->count && slot < prefetch_distance; ++slot) {
        __builtin_prefetch(leaf->slot[slot]);
    }
    return visit(tree->index[index], {leaf, 0});
}

ordtree_link_t *ordtree_get_next(const ordtree_t *tree, const ordtree_link_t *probe, uint32_t index)
{
    if (!has_index(tree, index) || probe == nullptr) {
        return nullptr;
    }
    leaf_place at = locate(tree, index, probe);
    if (at.leaf != nullptr) {
        return visit(tree->index[index], {at.leaf, at.slot + 1});
    }
    const search_result found = search(tree->index[index], key_word(tree->index[index], probe + index));
    if (found.at.leaf == nullptr) {
        return nullptr;
    }
    return visit(tree->index[index], {found.at.leaf, found.at.slot + (found.equal ? 1 : 0)});
}

void ordtree_finish(ordtree_t *tree)
{
    if (tree == nullptr) {
        return;
    }
    for (unsigned number = 0; number < tree->index_count; ++number) {
        free_nodes(tree->index[number]);
    }
    *tree = ordtree_t{};
}
