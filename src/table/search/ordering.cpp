// SPDX-License-Identifier: Apache-2.0

#include "table/search/ordering.h"

#include <cstring>

#include "table/element.h"

namespace {

constexpr uint32_t order_of(int difference)
{
    return difference < 0 ? ORDTREE_LESS : difference == 0 ? ORDTREE_EQUAL : ORDTREE_GREATER;
}

constexpr int difference_of(uint32_t first, uint32_t second)
{
    return first < second ? -1 : first > second;
}

// Returns the record of a link that is `LinkOffset` bytes behind the start of its element.
template <typename Element, size_t LinkOffset>
const auto &record_of(const ordtree_link_t *link)
{
    const char *element = reinterpret_cast<const char *>(link) - LinkOffset;
    return reinterpret_cast<const Element *>(element)->record;
}

// The frame of every comparator: null is less than any link; then the difference of the two records' keys decides.
template <typename Element, size_t LinkOffset, typename Difference>
uint32_t compare(const ordtree_link_t *first, const ordtree_link_t *second, Difference difference)
{
    if (first == nullptr || second == nullptr) {
        return order_of((first != nullptr) - (second != nullptr));
    }
    return order_of(difference(record_of<Element, LinkOffset>(first), record_of<Element, LinkOffset>(second)));
}

int xcid_difference(const l2fm_edm_bp_t &first, const l2fm_edm_bp_t &second)
{
    return difference_of(first.xcid, second.xcid);
}

constexpr size_t second_bd_link = offsetof(bd_element, bd_links) + sizeof(ordtree_link_t);

// Where the key of each comparator is. The comparator of names is not here: it compares texts.
struct key_place {
    ordtree_compare_fn compare;
    uint32_t offset; // from the link that the comparator gets, in bytes
    uint32_t width;  // in bytes
    ordtree_key_kind_t kind;
};

constexpr key_place key_places[] = {
    {l2fm_edm_table_bd_bridgeid_cmp, offsetof(bd_element, record.bridge_id) - second_bd_link, sizeof(uint32_t),
     ORDTREE_KEY_U32},
    {l2fm_edm_table_bp_xcid_cmp, offsetof(bp_element, record.xcid) - offsetof(bp_element, bp_link), sizeof(uint32_t),
     ORDTREE_KEY_U32},
    {l2fm_edm_table_bd_bp_xcid_cmp, offsetof(bp_element, record.xcid), sizeof(uint32_t), ORDTREE_KEY_U32},
    {l2fm_edm_table_mac_addr_cmp, offsetof(mac_element, record.mac_addr), edm::mac_addr_size, ORDTREE_KEY_BYTES},
    {l2fm_edm_table_vtep_addr_cmp, offsetof(vtep_element, record.vtep_addr), edm::vtep_addr_size, ORDTREE_KEY_BYTES},
};

} // namespace

uint32_t l2fm_edm_table_bd_name_cmp(const ordtree_link_t *first, const ordtree_link_t *second)
{
    return compare<bd_element, 0>(first, second, [](const l2fm_edm_bd_t &a, const l2fm_edm_bd_t &b) {
        return std::strncmp(a.bd_name, b.bd_name, EDM_BD_NAME_SIZE);
    });
}

uint32_t l2fm_edm_table_bd_bridgeid_cmp(const ordtree_link_t *first, const ordtree_link_t *second)
{
    return compare<bd_element, second_bd_link>(first, second, [](const l2fm_edm_bd_t &a, const l2fm_edm_bd_t &b) {
        return difference_of(a.bridge_id, b.bridge_id);
    });
}

uint32_t l2fm_edm_table_bp_xcid_cmp(const ordtree_link_t *first, const ordtree_link_t *second)
{
    return compare<bp_element, offsetof(bp_element, bp_link)>(first, second, xcid_difference);
}

uint32_t l2fm_edm_table_bd_bp_xcid_cmp(const ordtree_link_t *first, const ordtree_link_t *second)
{
    return compare<bp_element, offsetof(bp_element, bd_bp_link)>(first, second, xcid_difference);
}

uint32_t l2fm_edm_table_mac_addr_cmp(const ordtree_link_t *first, const ordtree_link_t *second)
{
    return compare<mac_element, 0>(first, second, [](const l2fm_edm_mac_t &a, const l2fm_edm_mac_t &b) {
        return std::memcmp(a.mac_addr, b.mac_addr, edm::mac_addr_size);
    });
}

uint32_t l2fm_edm_table_vtep_addr_cmp(const ordtree_link_t *first, const ordtree_link_t *second)
{
    return compare<vtep_element, 0>(first, second, [](const l2fm_edm_vtep_t &a, const l2fm_edm_vtep_t &b) {
        return std::memcmp(a.vtep_addr, b.vtep_addr, edm::vtep_addr_size);
    });
}

void *l2fm_edm_table_bp_node_to_entry(ordtree_link_t *node)
{
    return reinterpret_cast<char *>(node) - offsetof(bp_element, bp_link);
}

void *l2fm_edm_table_node_identity(ordtree_link_t *node)
{
    return node;
}

namespace edm {

void describe_keys()
{
    if (&ordtree_describe_key == nullptr) {
        return;
    }
    for (const key_place &key : key_places) {
        ordtree_describe_key(key.compare, key.offset, key.width, key.kind);
    }
}

} // namespace edm
