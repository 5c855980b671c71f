// SPDX-License-Identifier: Apache-2.0

#include "tests/support/host/tree_audit.h"

#include <vector>

#include "host/pool/arena.h"
#include "host/tree/ordtree_key.h"

namespace {

using namespace host::btree;

// One index under audit. Each check returns the first fault as text, or null.
struct audit {
    const ordtree_t *tree;
    const ordtree_index_t &index;
    unsigned number;
    std::vector<const node *> leaves = {}; // from left to right, as found from the root
};

// Whether the address is a node of index `number` of the tree.
bool is_node(const ordtree_t *tree, unsigned number, const void *address)
{
    const auto *const at = static_cast<const node *>(address);
    return reinterpret_cast<uintptr_t>(address) % node_size == 0 && host::arena_owner(address) != nullptr
           && at->tree == tree && at->index == number;
}

// A separator is greater than all keys before it, not greater than the keys below it, and a live link if it is a link.
const char *check_separator(const audit &of, uint64_t separator, size_t first_leaf_below)
{
    const uint64_t least = of.leaves[first_leaf_below]->entries[0].key;
    if (has_inline_keys(of.index) ? separator > least : separator != least) {
        return "a separator is greater than a key below it";
    }
    const node *const before = of.leaves[first_leaf_below - 1];
    const bool is_greater = compare_words(of.index, before->entries[before->count - 1].key, separator) == ORDTREE_LESS;
    return is_greater ? nullptr : "separators overlap";
}

// Depth first, in order; the recursion is as deep as the tree is high.
const char *check_node(audit &of, const node *at)
{
    if (!is_node(of.tree, of.number, at) || at->count == 0 || at->count > node_capacity
        || (at->parent == nullptr && at->level > 0 && at->count < 2)) {
        return "a node is empty, overfull or of another index";
    }
    if (at->level == 0) {
        of.leaves.push_back(at);
        return nullptr;
    }
    const char *fault = nullptr;
    for (unsigned slot = 0; slot < at->count && fault == nullptr; slot++) {
        const node *const child = child_at(at, slot);
        const size_t first_leaf = of.leaves.size();
        if (child->parent != at || child->level + 1 != at->level) {
            return "a child does not point at its parent";
        }
        fault = check_node(of, child);
        if (fault == nullptr && slot > 0) {
            fault = check_separator(of, at->entries[slot].key, first_leaf);
        }
    }
    return fault;
}

const char *check_record(const audit &of, const node *leaf, unsigned slot, const ordtree_link_t *last)
{
    const ordtree_link_t *const record = record_at(leaf, slot);
    const ordtree_link_t *const link = record + of.number;
    if (leaf->entries[slot].key != key_word(of.index, link)) {
        return "a key word is not that of its record";
    }
    for (unsigned number = 0; number < of.tree->index_count; number++) {
        if (!is_node(of.tree, number, record[number].place)) {
            return "a record's link leads out of its tree";
        }
    }
    const bool is_in_order = last == nullptr
                             || (of.index.compare(last + of.number, link) == ORDTREE_LESS
                                 && of.index.compare(link, last + of.number) == ORDTREE_GREATER);
    return link->place != leaf ? "a record's link leads to another leaf"
           : is_in_order       ? nullptr
                               : "records are out of order";
}

const char *check_leaves(const audit &of)
{
    const ordtree_link_t *last = nullptr;
    uint64_t records = 0;
    for (size_t i = 0; i < of.leaves.size(); i++) {
        const node *const leaf = of.leaves[i];
        if (leaf->prev != (i == 0 ? nullptr : of.leaves[i - 1])
            || leaf->next != (i + 1 == of.leaves.size() ? nullptr : of.leaves[i + 1])) {
            return "the leaves are not linked in order";
        }
        for (unsigned slot = 0; slot < leaf->count; slot++) {
            if (const char *const fault = check_record(of, leaf, slot, last); fault != nullptr) {
                return fault;
            }
            last = record_at(leaf, slot);
            records++;
        }
    }
    return records == of.tree->record_count ? nullptr : "an index does not hold as many records as the tree counts";
}

const char *check_index(const ordtree_t *tree, unsigned number)
{
    audit of = {tree, tree->index[number], number};
    const auto cursor = reinterpret_cast<uintptr_t>(of.index.cursor) & ~(node_size - 1);
    const auto *const leaf = reinterpret_cast<const node *>(cursor);
    if (leaf != nullptr && (!is_node(tree, number, leaf) || leaf->level != 0)) {
        return "the cursor is stale";
    }
    const auto *const root = static_cast<const node *>(of.index.root);
    const char *const fault = root == nullptr ? nullptr : check_node(of, root);
    return fault != nullptr ? fault : check_leaves(of);
}

} // namespace

namespace test {

const char *tree_fault(const ordtree_t *tree)
{
    const char *fault = nullptr;
    for (unsigned number = 0; fault == nullptr && tree != nullptr && number < tree->index_count; number++) {
        fault = check_index(tree, number);
    }
    return fault;
}

} // namespace test
