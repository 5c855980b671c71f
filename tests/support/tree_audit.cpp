// SPDX-License-Identifier: Apache-2.0

#include "tests/support/tree_audit.h"

#include "host/pool/arena.h"
#include "host/tree/ordtree_key.h"

namespace {

using namespace host::btree;

// One index under audit. Each check returns the first fault as text, or null.
struct audit {
    const ordtree_t *tree;
    const ordtree_index_t &index;
    unsigned number;
    uint64_t records;
    const ordtree_link_t *last; // record visited, with the leaf that it is in
    const node *last_leaf;
};

bool is_node_memory(const void *address)
{
    return reinterpret_cast<uintptr_t>(address) % node_size == 0 && host::arena_owner(address) != nullptr;
}

const char *check_fill(const node *at)
{
    if (at->count == 0) {
        return "a node is empty";
    }
    if (at->count > node_capacity) {
        return "a node holds more than it has room for";
    }
    return at->parent == nullptr && at->level > 0 && at->count < 2 ? "the root has a single child" : nullptr;
}

const char *check_header(const audit &of, const node *at)
{
    if (!is_node_memory(at) || at->tree != of.tree || at->index != of.number) {
        return "a node belongs to another index";
    }
    const bool beside = at->next == nullptr || at->next->prev == at;
    if (!beside || (at->prev == nullptr ? false : at->prev->next != at)) {
        return "neighbours do not point at each other";
    }
    return check_fill(at);
}

const char *check_record(audit &of, const node *leaf, unsigned slot)
{
    const ordtree_link_t *const record = record_at(leaf, slot);
    const ordtree_link_t *const link = record + of.number;
    if (leaf->entries[slot].key != key_word(of.index, link)) {
        return "a key word is not that of its record";
    }
    for (unsigned number = 0; number < of.tree->index_count; number++) {
        const auto *const place = static_cast<const node *>(record[number].place);
        if (!is_node_memory(place) || place->tree != of.tree || place->index != number) {
            return "a record's link leads out of its tree";
        }
    }
    if (link->place != leaf) {
        return "a record's link leads to another leaf";
    }
    if (of.last != nullptr
        && (of.index.compare(of.last + of.number, link) != ORDTREE_LESS
            || of.index.compare(link, of.last + of.number) != ORDTREE_GREATER)) {
        return "records are out of order";
    }
    of.last = record;
    of.last_leaf = leaf;
    of.records++;
    return nullptr;
}

const char *check_leaf(audit &of, const node *leaf)
{
    if (leaf->prev != of.last_leaf) {
        return "the leaves are not linked in order";
    }
    const char *fault = nullptr;
    for (unsigned slot = 0; slot < leaf->count && fault == nullptr; slot++) {
        fault = check_record(of, leaf, slot);
        if (fault == nullptr && slot > 0
            && compare_words(of.index, leaf->entries[slot - 1].key, leaf->entries[slot].key) != ORDTREE_LESS) {
            fault = "key words are out of order";
        }
    }
    return fault;
}

const node *leftmost_leaf(const node *at)
{
    while (at->level > 0) {
        at = child_at(at, 0);
    }
    return at;
}

// A separator is greater than all before it, not greater than what is below it, and a live link if it is a link.
const char *check_separator(const audit &of, const node *inner, unsigned slot)
{
    const uint64_t least = leftmost_leaf(child_at(inner, slot))->entries[0].key;
    const uint64_t separator = inner->entries[slot].key;
    if (has_inline_keys(of.index) ? separator > least : separator != least) {
        return "a separator is not the least of what it stands for";
    }
    if (of.last_leaf == nullptr) {
        return "a subtree holds no record";
    }
    const uint64_t before = of.last_leaf->entries[of.last_leaf->count - 1].key;
    return compare_words(of.index, before, separator) == ORDTREE_LESS ? nullptr : "separators overlap";
}

// Depth first, in order; as deep as the tree is high.
const char *check_node(audit &of, const node *at)
{
    const char *fault = check_header(of, at);
    if (fault != nullptr || at->level == 0) {
        return fault != nullptr ? fault : check_leaf(of, at);
    }
    for (unsigned slot = 0; slot < at->count && fault == nullptr; slot++) {
        const node *const child = child_at(at, slot);
        if (child->parent != at || child->level + 1 != at->level) {
            return "a child does not point at its parent";
        }
        fault = slot > 0 ? check_separator(of, at, slot) : nullptr;
        if (fault == nullptr) {
            fault = check_node(of, child);
        }
    }
    return fault;
}

const char *check_cursor(const audit &of)
{
    const auto cursor = reinterpret_cast<uintptr_t>(of.index.cursor);
    const auto *const leaf = reinterpret_cast<const node *>(cursor & ~(node_size - 1));
    if (leaf == nullptr) {
        return nullptr;
    }
    return leaf->tree == of.tree && leaf->index == of.number && leaf->level == 0 ? nullptr : "the cursor is stale";
}

const char *check_index(const ordtree_t *tree, unsigned number)
{
    audit of = {tree, tree->index[number], number, 0, nullptr, nullptr};
    const char *fault = check_cursor(of);
    const auto *const root = static_cast<const node *>(of.index.root);
    if (fault == nullptr && root != nullptr) {
        fault = root->parent == nullptr ? check_node(of, root) : "the root has a parent";
    }
    if (fault == nullptr && of.last_leaf != nullptr && of.last_leaf->next != nullptr) {
        fault = "the leaves do not end with the last one";
    }
    if (fault == nullptr && of.records != tree->record_count) {
        fault = "the records of an index are not as many as the tree counts";
    }
    return fault;
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
