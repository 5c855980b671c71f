// SPDX-License-Identifier: Apache-2.0

// Keys of the ordered trees, and the search for one inside a node.
//
// Nodes hold a key word beside each slot. Where it has been told how an index's comparator finds its key, the word is
// the key itself as a number, and a search touches nothing but nodes. Otherwise the word is the address of the record's
// link, and a search calls the comparator. Whatever only moves key words about need not know which of the two they are.
//
// For the files host/ordtree*.cpp only.
#pragma once

#include "host/tree/ordtree_node.h"

#include <bit>
#include <cstring>

namespace host::btree {

// The description that ordtree_describe_key gave for `index.compare`, if any, becomes part of the index.
void adopt_key_description(ordtree_index_t &index) noexcept;

inline bool has_inline_keys(const ordtree_index_t &index)
{
    return index.key_width != 0;
}

template <typename Word>
inline Word load(const char *from)
{
    Word word;
    std::memcpy(&word, from, sizeof(word));
    return word;
}

inline uint64_t load_big_endian_32(const char *from)
{
    const auto word = load<uint32_t>(from);
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

// Bytes as a number that orders like memcmp. Two loads that may overlap read no byte beyond the key.
inline uint64_t number_of_bytes(const char *from, unsigned width)
{
    if (width >= 4) {
        return load_big_endian_32(from) << (8 * (width - 4)) | load_big_endian_32(from + width - 4);
    }
    uint64_t number = 0;
    for (unsigned i = 0; i < width; i++) {
        number = number << 8 | static_cast<unsigned char>(from[i]);
    }
    return number;
}

// The key word of a record or probe, by its link of this index.
inline uint64_t key_word(const ordtree_index_t &index, const ordtree_link_t *link)
{
    if (!has_inline_keys(index)) {
        return reinterpret_cast<uint64_t>(link);
    }
    const char *const key = reinterpret_cast<const char *>(link) + index.key_offset;
    if (index.key_kind == ORDTREE_KEY_U32) {
        return load<uint32_t>(key);
    }
    return number_of_bytes(key, index.key_width);
}

inline uint32_t compare_words(const ordtree_index_t &index, uint64_t first, uint64_t second)
{
    if (has_inline_keys(index)) {
        return first < second ? ORDTREE_LESS : first == second ? ORDTREE_EQUAL : ORDTREE_GREATER;
    }
    return index.compare(reinterpret_cast<const ordtree_link_t *>(first),
                         reinterpret_cast<const ordtree_link_t *>(second));
}

// How many of `count` ascending entries have keys less than `bound`.
inline unsigned count_below(const entry *entries, size_t count, uint64_t bound)
{
    const entry *base = entries;
    size_t left = count;
    while (left > 1) {
        const size_t half = left / 2;
        const size_t is_below = base[half - 1].key < bound ? 1 : 0;
        base += half & (0 - is_below); // by a mask, since a branch would be the toss of a coin
        left -= half;
    }
    const size_t is_last_below = left == 1 && base->key < bound ? 1 : 0;
    return static_cast<unsigned>(static_cast<size_t>(base - entries) + is_last_below);
}

// How many have keys not greater than `bound`.
inline unsigned count_up_to(const entry *entries, size_t count, uint64_t bound)
{
    return bound != UINT64_MAX ? count_below(entries, count, bound + 1) : static_cast<unsigned>(count);
}

// Which child of an inner node leads to a key: the first one takes whatever is less than the key of the second.
inline unsigned slot_below(const node *inner, uint64_t key)
{
    return count_up_to(inner->entries + 1, inner->count - 1, key);
}

// Where a key is, or would be, in an index.
struct key_position {
    node *leaf;    // null: the index is empty
    unsigned slot; // of the first entry in the leaf that is not less; may lie behind the leaf's last one
    bool equal;    // that entry is the same
};

// The same search by calling the comparator.
key_position find_by_comparator(const ordtree_index_t &index, uint64_t key) noexcept;

inline key_position find_inline_key(const ordtree_index_t &index, uint64_t key)
{
    auto *at = static_cast<node *>(index.root);
    if (at == nullptr) {
        return {nullptr, 0, false};
    }
    while (at->level > 0) {
        at = child_at(at, slot_below(at, key));
        prefetch_node(at);
    }
    const unsigned slot = count_below(at->entries, at->count, key);
    return {at, slot, slot < at->count && at->entries[slot].key == key};
}

inline key_position find_key(const ordtree_index_t &index, uint64_t key)
{
    return has_inline_keys(index) ? find_inline_key(index, key) : find_by_comparator(index, key);
}

} // namespace host::btree
