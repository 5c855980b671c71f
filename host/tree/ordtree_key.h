// SPDX-License-Identifier: Apache-2.0

// Keys of the ordered trees, and the search for one inside a node.
//
// A node holds a key word beside each slot. There are two kinds of key words:
//
//      described     ordtree_describe_key has described the keys of the comparator. The key word is the key itself as a
//                    number, and a search reads nothing but nodes. The address 02:00:00:00:00:07 has the key word
//                    0x020000000007.
//      otherwise     The key word is the address of the record's link, and a search calls the comparator.
//
// Code that only moves key words does not need to know their kind.
//
// Only the files host/tree/ordtree*.cpp use this header. The caller of the tree's operation holds the lock of the tree.
#pragma once

#include "host/tree/ordtree_node.h"

#include <bit>
#include <cstring>

namespace host::btree {

// Copies the description of `index.compare` into the index, if there is one. Any thread.
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

// Converts bytes to a number that orders as memcmp orders the bytes. From four bytes on, two loads of four bytes cover
// the key; they may overlap, and read nothing beyond the key. Example with the six bytes 02 00 00 00 00 07:
//
//      first load 02000000, shifted by 16 bits   0x020000000000
//      last load  00000007                       0x000000000007      together 0x020000000007
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

// Returns the key word of a record or probe, from its link of this index.
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

// One step of count_below: skips `step` entries if all their keys are less than `bound`. A mask, because the processor
// would mispredict every second branch; of bytes, because the compiler would multiply one of entries.
inline const entry *skip_below(const entry *base, size_t step, uint64_t bound)
{
    const size_t is_below = base[step - 1].key < bound ? 1 : 0;
    const size_t bytes = step * sizeof(entry) & (0 - is_below);
    return reinterpret_cast<const entry *>(reinterpret_cast<const char *>(base) + bytes);
}

// Returns how many of `count` ascending entries, at most node_capacity, have keys less than `bound`. A binary search in
// steps of constant sizes, so it has no loop. Example with the keys 10 20 30 40 50 60 and the bound 35:
//
//      6 has three bits, so the first step is 4; entry 3 is 40, so base = 0 (else base = 2, and the last 4 entries
//      remain) step 2    entry 1 is 20 < 35, so base = 2 step 1    entry 2 is 30 < 35, so base = 3 the entry at the
//      base is 40, not less than 35: the result is 3
inline unsigned count_below(const entry *entries, size_t count, uint64_t bound)
{
    static_assert(node_capacity < 64, "the steps below suffice");
    if (count == 0) {
        return 0;
    }
    const auto exponent = static_cast<unsigned>(std::bit_width(count)) - 1;
    const size_t first_step = size_t{1} << exponent;
    const entry *base = entries[first_step - 1].key < bound ? entries + (count - first_step) : entries;
    switch (exponent) {
    case 5: base = skip_below(base, 16, bound); [[fallthrough]];
    case 4: base = skip_below(base, 8, bound); [[fallthrough]];
    case 3: base = skip_below(base, 4, bound); [[fallthrough]];
    case 2: base = skip_below(base, 2, bound); [[fallthrough]];
    case 1: base = skip_below(base, 1, bound); break;
    default: break;
    }
    return static_cast<unsigned>(base - entries) + (base->key < bound ? 1 : 0);
}

// Returns how many have keys not greater than `bound`.
inline unsigned count_up_to(const entry *entries, size_t count, uint64_t bound)
{
    return bound != UINT64_MAX ? count_below(entries, count, bound + 1) : static_cast<unsigned>(count);
}

// Returns which child of an inner node leads to a key. The first child holds all keys less than that of the second.
inline unsigned slot_below(const node *inner, uint64_t key)
{
    return count_up_to(inner->entries + 1, inner->count - 1, key);
}

// Where a key is, or would be, in an index.
struct key_position {
    node *leaf;    // null if the index is empty
    unsigned slot; // the first entry of the leaf that is not less; may lie behind the last entry
    bool equal;    // that entry has the key
};

// The search that calls the comparator.
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
