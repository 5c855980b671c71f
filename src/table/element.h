// SPDX-License-Identifier: Apache-2.0

// Element layouts: how each record lies in its pool element, and the conversions between the two.
//
// An element holds the tree links of its record first and the record behind them. The table's functions take and return
// records; trees and pools know elements. A link has 8 bytes. The word beside a link is the key of that link's tree:
//
//       bd_element            bp_element            mac_element           vtep_element
//       +--------------+      +--------------+      +--------------+      +--------------+
//       | bd_links[0]  | name | bd_bp_link   | xcid | mac_link     | addr | vtep_link    | addr
//       | bd_links[1]  | id   | bp_link      | xcid | record       |      | record       |
//       | record       |      | record       |      | [extension]  |      +--------------+
//       +--------------+      +--------------+      +--------------+
//
// Notes: a bridge port is in two trees of one index each. The node that the global tree knows is bp_link, and so not
// the start of the element. Every other node is the start of its element.
//
// Locking: the conversions do not read the records and need no lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "l2fm_edm_table.h"

struct bd_element {
    ordtree_link_t bd_links[2]; // global tree: by name, by bridge id
    l2fm_edm_bd_t record;
};

struct bp_element {
    ordtree_link_t bd_bp_link; // its bridge domain's tree
    ordtree_link_t bp_link;    // the global tree; unused by dummy ports
    l2fm_edm_bp_t record;
};

struct mac_element {
    ordtree_link_t mac_link; // its port's tree
    l2fm_edm_mac_t record;
};

struct mac_pbb_element {
    ordtree_link_t mac_link;
    l2fm_edm_mac_pbb_t record;
};

struct mac_vni_element {
    ordtree_link_t mac_link;
    l2fm_edm_mac_vni_t record;
};

struct vtep_element {
    ordtree_link_t vtep_link; // its port's tree
    l2fm_edm_vtep_t record;
};

static_assert(sizeof(mac_element) == 80, "a base entry uses ten words, as there may be a million");
static_assert(offsetof(mac_pbb_element, record) == offsetof(mac_element, record), "variants begin alike");
static_assert(offsetof(mac_vni_element, record) == offsetof(mac_element, record), "variants begin alike");

namespace edm {

// The element type of each record type.
template <typename Record>
struct element_of_record;
template <>
struct element_of_record<l2fm_edm_bd_t> {
    using type = bd_element;
};
template <>
struct element_of_record<l2fm_edm_bp_t> {
    using type = bp_element;
};
template <>
struct element_of_record<l2fm_edm_mac_t> {
    using type = mac_element;
};
template <>
struct element_of_record<l2fm_edm_vtep_t> {
    using type = vtep_element;
};

template <typename Record>
using element_t = typename element_of_record<Record>::type;

// Returns the element that holds a record, which is not null.
template <typename Record>
element_t<Record> *to_element(Record *record)
{
    return reinterpret_cast<element_t<Record> *>(reinterpret_cast<char *>(record)
                                                 - offsetof(element_t<Record>, record));
}

template <typename Record>
const element_t<Record> *to_element(const Record *record)
{
    return to_element(const_cast<Record *>(record));
}

// Returns the record of an element that a tree returned, and null for null.
template <typename Record>
Record *to_record(void *element)
{
    return element == nullptr ? nullptr : &static_cast<element_t<Record> *>(element)->record;
}

// Returns the entry of a link of the list of all entries. The link is not the root's.
inline l2fm_edm_mac_t *mac_of_list_link(l2fm_edm_ll_link_t *link)
{
    return reinterpret_cast<l2fm_edm_mac_t *>(reinterpret_cast<char *>(link) - offsetof(l2fm_edm_mac_t, list_link));
}

// Return the extension of a variant. The entry's flags say whether it has one: EDM_MAC_PBB, EDM_MAC_VNI.
inline uint8_t *bmac_addr(l2fm_edm_mac_t *mac)
{
    return reinterpret_cast<l2fm_edm_mac_pbb_t *>(mac)->bmac_addr;
}
inline uint8_t *vtep_addr(l2fm_edm_mac_t *mac)
{
    return reinterpret_cast<l2fm_edm_mac_vni_t *>(mac)->vtep_addr;
}
inline const uint8_t *bmac_addr(const l2fm_edm_mac_t *mac)
{
    return bmac_addr(const_cast<l2fm_edm_mac_t *>(mac));
}
inline const uint8_t *vtep_addr(const l2fm_edm_mac_t *mac)
{
    return vtep_addr(const_cast<l2fm_edm_mac_t *>(mac));
}

constexpr uint32_t mac_addr_size = 6;  // in bytes
constexpr uint32_t vtep_addr_size = 4; // in bytes

// Returns two bytes of an address as one value of a trace point. The first byte is the low half.
constexpr uint16_t trace_word(const uint8_t *pair)
{
    return static_cast<uint16_t>(pair[0] | pair[1] << 8);
}

} // namespace edm
