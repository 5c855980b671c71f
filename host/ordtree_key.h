/*
 * Keys of the ordered trees, and the search for one inside a node.
 *
 * Nodes hold a key word beside each slot. Where it has been told how an index's comparator finds its key, the word is
 * the key itself as a number, and a search touches nothing but nodes. Otherwise the word is the address of the record's
 * link, and a search calls the comparator. Whatever only moves key words about need not know which of the two they are.
 *
 * For the files host/ordtree*.cpp only.
 */
#ifndef L2FIB_HOST_ORDTREE_KEY_H
#define L2FIB_HOST_ORDTREE_KEY_H

#include "host/ordtree_node.h"

#include <bit>
#include <cstring>

namespace host::btree {

/* The description that ordtree_describe_key gave for `index.compare`, if any, becomes part of the index. */
void adopt_key_description(ordtree_index_t &index) noexcept;

inline bool has_inline_keys(const ordtree_index_t &index)
{
    return index.key_width != 0;
}

template <typename Word>
inline Word load(const char *from)
{
    Word word;
    std::memcpy(&word, from, sizeof word);
    return word;
}

inline std::uint64_t load_big_endian_32(const char *from)
{
    const auto word = load<std::uint32_t>(from);
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

/* Bytes as a number that orders like memcmp. Two loads that may overlap read no byte beyond the key. */
inline std::uint64_t number_of_bytes(const char *from, unsigned width)
{
    if (width >= 4) {
        return load_big_endian_32(from) << (8 * (width - 4)) | load_big_endian_32(from + width - 4);
    }
    std::uint64_t number = 0;
    for (unsigned i = 0; i < width; ++i) {
        number = number << 8 | static_cast<unsigned char>(from[i]);
    }
    return number;
}

/* The key word of a record or probe, by its link of this index. */
inline std::uint64_t key_word(const ordtree_index_t &index, const ordtree_link_t *link)
{
    if (!has_inline_keys(index)) {
        return reinterpret_cast<std::uint64_t>(link);
    }
    const char *const key = reinterpret_cast<const char *>(link) + index.key_offset;
    if (index.key_kind == ORDTREE_KEY_U32) {
        return load<std::uint32_t>(key);
    }
    return number_of_bytes(key, index.key_width);
}

inline std::uint32_t compare_words(const ordtree_index_t &index, std::uint64_t first, std::uint64_t second)
{
    if (has_inline_keys(index)) {
        return first < second ? ORDTREE_LESS : first == second ? ORDTREE_EQUAL : ORDTREE_GREATER;
    }
    return index.compare(reinterpret_cast<const ordtree_link_t *>(first),
                         reinterpret_cast<const ordtree_link_t *>(second));
}

/* How many of `count` ascending numbers are less than `bound`. Without branches: each would be a coin toss. */
inline unsigned count_below(const std::uint64_t *numbers, unsigned count, std::uint64_t bound)
{
    const std::uint64_t *base = numbers;
    while (count > 1) {
        const unsigned half = count / 2;
        base += base[half - 1] < bound ? half : 0;
        count -= half;
    }
    return static_cast<unsigned>(base - numbers) + (count == 1 && *base < bound ? 1 : 0);
}

struct node_position {
    unsigned slot; /* the first one whose key is not less than the key looked for */
    bool equal;    /* it is the same */
};

/* The same by calling the comparator. */
node_position find_by_comparator(const ordtree_index_t &index, const node *in, unsigned first,
                                 std::uint64_t key) noexcept;

/* Where `key` stands among the keys of `in` from slot `first` on. */
inline node_position find_key(const ordtree_index_t &index, const node *in, unsigned first, std::uint64_t key)
{
    if (!has_inline_keys(index)) {
        return find_by_comparator(index, in, first, key);
    }
    const unsigned slot = first + count_below(in->key + first, in->count - first, key);
    return {slot, slot < in->count && in->key[slot] == key};
}

/* The child of `inner` whose subtree has room for `key`. The first child takes whatever is less than the second. */
inline node *child_for(const ordtree_index_t &index, const node *inner, std::uint64_t key)
{
    const node_position at = find_key(index, inner, 1, key);
    return child_at(inner, at.equal ? at.slot : at.slot - 1);
}

/* The leaf that holds `key` if any leaf does. The tree is not empty. */
inline node *leaf_for(const ordtree_index_t &index, std::uint64_t key)
{
    auto *at = static_cast<node *>(index.root);
    while (at->level > 0) {
        at = child_for(index, at, key);
    }
    return at;
}

} // namespace host::btree

#endif
