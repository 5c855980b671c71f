// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/netlink/kernel_request.h"

#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace forwarding {

namespace {

// RTEXT_FILTER_SKIP_STATS: the headers of the oldest supported systems do not have it.
constexpr uint32_t skip_statistics = 1U << 3;

// libmnl zeroes what it adds, so that equal requests are equal byte by byte.
nlmsghdr *put_header(std::span<std::byte> buffer, uint16_t type, uint16_t flags, uint32_t sequence)
{
    nlmsghdr *const head = mnl_nlmsg_put_header(buffer.data());
    head->nlmsg_type = type;
    head->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    head->nlmsg_seq = sequence;
    return head;
}

template <typename Header>
Header &put_extra_header(nlmsghdr *head)
{
    return *static_cast<Header *>(mnl_nlmsg_put_extra_header(head, sizeof(Header)));
}

size_t put_link_dump(std::span<std::byte> buffer, uint32_t sequence, unsigned char family, uint32_t filter)
{
    nlmsghdr *const head = put_header(buffer, RTM_GETLINK, NLM_F_DUMP, sequence);
    put_extra_header<ifinfomsg>(head).ifi_family = family;
    mnl_attr_put_u32(head, IFLA_EXT_MASK, filter);
    return head->nlmsg_len;
}

// A filter of NDA_UNSPEC lets all entries pass.
size_t put_entry_dump(std::span<std::byte> buffer, uint32_t sequence, uint16_t filter, uint32_t ifindex)
{
    nlmsghdr *const head = put_header(buffer, RTM_GETNEIGH, NLM_F_DUMP, sequence);
    put_extra_header<ndmsg>(head).ndm_family = AF_BRIDGE;
    if (filter != NDA_UNSPEC) {
        mnl_attr_put_u32(head, filter, ifindex);
    }
    return head->nlmsg_len;
}

size_t put_vlan_dump(std::span<std::byte> buffer, uint32_t sequence, uint32_t ifindex)
{
    nlmsghdr *const head = put_header(buffer, RTM_GETVLAN, NLM_F_DUMP, sequence);
    auto &question = put_extra_header<br_vlan_msg>(head);
    question.family = AF_BRIDGE;
    question.ifindex = ifindex;
    return head->nlmsg_len;
}

} // namespace

size_t kernel_put_dump(std::span<std::byte> buffer, uint32_t sequence, kernel_scope scope, uint32_t ifindex)
{
    switch (scope) {
    case kernel_scope::links: return put_link_dump(buffer, sequence, AF_UNSPEC, skip_statistics);
    case kernel_scope::vlan_vnis: return put_link_dump(buffer, sequence, AF_BRIDGE, RTEXT_FILTER_BRVLAN_COMPRESSED);
    case kernel_scope::bridge: return put_entry_dump(buffer, sequence, NDA_MASTER, ifindex);
    case kernel_scope::entries: return put_entry_dump(buffer, sequence, NDA_UNSPEC, 0);
    case kernel_scope::port_vlans: return put_vlan_dump(buffer, sequence, ifindex);
    default: return put_entry_dump(buffer, sequence, NDA_IFINDEX, ifindex);
    }
}

size_t kernel_put_get(std::span<std::byte> buffer, uint32_t sequence, const fdb_key &key)
{
    nlmsghdr *const head = put_header(buffer, RTM_GETNEIGH, 0, sequence);
    ndmsg &question = put_extra_header<ndmsg>(head);
    question.ndm_family = AF_BRIDGE;
    if (key.self) {
        question.ndm_ifindex = static_cast<int>(key.holder);
        question.ndm_flags = NTF_SELF;
    } else {
        mnl_attr_put_u32(head, NDA_MASTER, key.holder);
    }
    mnl_attr_put(head, NDA_LLADDR, key.mac.size(), key.mac.data());
    if (key.vlan != 0) {
        mnl_attr_put_u16(head, NDA_VLAN, key.vlan);
    }
    if (key.source_vni != 0) { // a question carries the source VNI as NDA_VNI, an answer as NDA_SRC_VNI
        mnl_attr_put_u32(head, NDA_VNI, key.source_vni);
    }
    return head->nlmsg_len;
}

} // namespace forwarding
