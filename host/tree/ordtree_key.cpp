// SPDX-License-Identifier: Apache-2.0

#include "host/tree/ordtree_key.h"

#include <array>

#include "base/mutex.h"

namespace host::btree {
namespace {

struct description {
    ordtree_compare_fn compare; // null: this place and all behind it are unused
    uint32_t offset;
    uint16_t width;
    uint16_t kind;
};

constexpr size_t max_descriptions = 32; // a process has a handful of comparators

// Any thread may describe a key at any time. An index copies its description when its tree starts.
struct description_registry {
    base::mutex mutex;
    std::array<description, max_descriptions> of L2FIB_GUARDED_BY(mutex);
};

constinit description_registry descriptions{};

bool makes_sense(ordtree_compare_fn compare, uint32_t width, ordtree_key_kind_t kind)
{
    switch (kind) {
    case ORDTREE_KEY_BYTES: return compare != nullptr && width >= 1 && width <= sizeof(uint64_t);
    case ORDTREE_KEY_U32: return compare != nullptr && width == sizeof(uint32_t);
    }
    return false;
}

// Returns the description of `compare`, else the first unused place. Null if there is neither.
description *find_description(ordtree_compare_fn compare) L2FIB_REQUIRES(descriptions.mutex)
{
    for (description &each : descriptions.of) {
        if (each.compare == compare || each.compare == nullptr) {
            return &each;
        }
    }
    return nullptr;
}

struct node_position {
    unsigned slot; // the first entry that is not less
    bool equal;
};

// Searches the entries of a node from `first` on.
node_position find_among(const ordtree_index_t &index, const node *in, unsigned first, uint64_t key)
{
    unsigned end = in->count;
    while (first < end) {
        const unsigned middle = (first + end) / 2;
        const uint32_t order = compare_words(index, in->entries[middle].key, key);
        if (order == ORDTREE_EQUAL) {
            return {middle, true};
        }
        (order == ORDTREE_LESS ? first : end) = order == ORDTREE_LESS ? middle + 1 : middle;
    }
    return {first, false};
}

} // namespace

void adopt_key_description(ordtree_index_t &index) noexcept
{
    const base::scoped_lock hold(descriptions.mutex);
    const description *const found = find_description(index.compare);
    if (found != nullptr && found->compare != nullptr) {
        index.key_offset = found->offset;
        index.key_width = found->width;
        index.key_kind = found->kind;
    }
}

key_position find_by_comparator(const ordtree_index_t &index, uint64_t key) noexcept
{
    auto *at = static_cast<node *>(index.root);
    if (at == nullptr) {
        return {nullptr, 0, false};
    }
    while (at->level > 0) {
        const node_position found = find_among(index, at, 1, key);
        at = child_at(at, found.equal ? found.slot : found.slot - 1);
    }
    const node_position found = find_among(index, at, 0, key);
    return {at, found.slot, found.equal};
}

} // namespace host::btree

void ordtree_describe_key(ordtree_compare_fn compare, uint32_t offset, uint32_t width, ordtree_key_kind_t kind)
{
    using namespace host::btree;
    if (!makes_sense(compare, width, kind)) {
        return;
    }
    const base::scoped_lock hold(descriptions.mutex);
    description *const entry = find_description(compare);
    if (entry != nullptr) {
        *entry = {compare, offset, static_cast<uint16_t>(width), static_cast<uint16_t>(kind)};
    }
}
