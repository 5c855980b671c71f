// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/kernel_socket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/capability.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace forwarding {

namespace {

// Newer than the headers of the systems that this is built on.
constexpr uint32_t skip_statistics = 1U << 3;

std::string failure(const std::string &what)
{
    return what + ": " + std::strerror(errno); // NOLINT(concurrency-mt-unsafe): glibc's is safe
}

std::string enter_namespace(const std::string &netns)
{
    const std::string path = netns.find('/') == netns.npos ? "/run/netns/" + netns : netns;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return failure("cannot open the network namespace " + path);
    }
    const int result = setns(fd, CLONE_NEWNET);
    std::string text = result == 0 ? "" : failure("cannot enter the network namespace " + path);
    close(fd);
    return text;
}

// Exactly what was asked for is filled, so that a request differs from an equal one in nothing.
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

} // namespace

kernel_socket::~kernel_socket()
{
    if (handle != nullptr) {
        mnl_socket_close(handle);
    }
}

std::string kernel_socket_open(kernel_socket &socket)
{
    socket.handle = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket.handle == nullptr || mnl_socket_bind(socket.handle, 0, MNL_SOCKET_AUTOPID) != 0) {
        return failure("cannot open a netlink socket");
    }
    int on = 1; // without it the kernel would ignore which bridge a dump is asked of
    if (mnl_socket_setsockopt(socket.handle, NETLINK_GET_STRICT_CHK, &on, sizeof(on)) != 0) {
        return failure("this kernel does not filter dumps (Linux 4.20 and later do)");
    }
    mnl_socket_setsockopt(socket.handle, NETLINK_CAP_ACK, &on, sizeof(on));
    return {};
}

bool kernel_socket_subscribe(const kernel_socket &socket, bool &has_next_hops)
{
    for (int group : {RTNLGRP_LINK, RTNLGRP_NEIGH}) {
        if (mnl_socket_setsockopt(socket.handle, NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) != 0) {
            return false;
        }
    }
    int next_hops = RTNLGRP_NEXTHOP; // a kernel without them has no entries that deliver to one
    has_next_hops = mnl_socket_setsockopt(socket.handle, NETLINK_ADD_MEMBERSHIP, &next_hops, sizeof(next_hops)) == 0;
    return true;
}

size_t kernel_socket_resize(const kernel_socket &socket, uint32_t wanted)
{
    const int fd = kernel_socket_fd(socket);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof(wanted)) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof(wanted));
    }
    int size = 0;
    socklen_t length = sizeof(size);
    getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length);
    return static_cast<size_t>(size);
}

int kernel_socket_fd(const kernel_socket &socket)
{
    return mnl_socket_get_fd(socket.handle);
}

kernel_read kernel_socket_read(const kernel_socket &socket, std::span<std::byte> buffer,
                               std::span<const std::byte> &datagram)
{
    sockaddr_nl sender{};
    iovec into{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof(sender);
    message.msg_iov = &into;
    message.msg_iovlen = 1;
    ssize_t length = 0;
    do {
        length = recvmsg(kernel_socket_fd(socket), &message, 0);
    } while (length < 0 && errno == EINTR);
    if (length < 0) { // no memory for a copy is a loss, too
        return errno == EAGAIN ? kernel_read::empty : kernel_read::overrun;
    }
    if (message.msg_namelen != sizeof(sender) || sender.nl_pid != 0) {
        return kernel_read::refused;
    }
    if ((message.msg_flags & MSG_TRUNC) != 0) {
        return kernel_read::truncated;
    }
    datagram = buffer.first(static_cast<size_t>(length));
    return kernel_read::datagram;
}

kernel_socket_memory kernel_socket_account(const kernel_socket &socket)
{
    uint32_t counts[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof(counts);
    if (getsockopt(kernel_socket_fd(socket), SOL_SOCKET, SO_MEMINFO, counts, &length) != 0) {
        return {UINT32_MAX, 0}; // every kernel that filters dumps can; a caller may read on until nothing is left
    }
    return {counts[SK_MEMINFO_RMEM_ALLOC], counts[SK_MEMINFO_DROPS]};
}

bool kernel_socket_send(const kernel_socket &socket, std::span<const std::byte> requests)
{
    ssize_t sent = 0;
    do {
        sent = mnl_socket_sendto(socket.handle, requests.data(), requests.size());
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(requests.size());
}

size_t kernel_put_dump(std::span<std::byte> buffer, uint32_t sequence, kernel_scope scope, uint32_t ifindex)
{
    if (scope == kernel_scope::links) {
        nlmsghdr *const head = put_header(buffer, RTM_GETLINK, NLM_F_DUMP, sequence);
        put_extra_header<ifinfomsg>(head).ifi_family = AF_UNSPEC;
        mnl_attr_put_u32(head, IFLA_EXT_MASK, skip_statistics);
        return head->nlmsg_len;
    }
    if (scope == kernel_scope::vlan_vnis) {
        nlmsghdr *const head = put_header(buffer, RTM_GETLINK, NLM_F_DUMP, sequence);
        put_extra_header<ifinfomsg>(head).ifi_family = AF_BRIDGE;
        mnl_attr_put_u32(head, IFLA_EXT_MASK, RTEXT_FILTER_BRVLAN_COMPRESSED);
        return head->nlmsg_len;
    }
    nlmsghdr *const head = put_header(buffer, RTM_GETNEIGH, NLM_F_DUMP, sequence);
    put_extra_header<ndmsg>(head).ndm_family = AF_BRIDGE;
    mnl_attr_put_u32(head, scope == kernel_scope::bridge ? NDA_MASTER : NDA_IFINDEX, ifindex);
    return head->nlmsg_len;
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
    if (key.source_vni != 0) { // a question names by this what an answer calls the source
        mnl_attr_put_u32(head, NDA_VNI, key.source_vni);
    }
    return head->nlmsg_len;
}

std::string kernel_run_in(const std::string &netns, const std::function<std::string()> &work)
{
    if (netns.empty()) {
        return work();
    }
    std::string result;
    std::thread([&] {
        result = enter_namespace(netns);
        if (result.empty()) {
            result = work();
        }
    }).join();
    return result;
}

std::string kernel_give_up_capabilities()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return failure("cannot read the capabilities");
    }
    const uint32_t rest = ~((1U << CAP_NET_ADMIN) | (1U << CAP_SYS_ADMIN)); // both are in the first word
    data[0].effective &= rest;
    data[0].permitted &= rest;
    data[0].inheritable &= rest;
    return syscall(SYS_capset, &header, data) == 0 ? "" : failure("cannot give up capabilities");
}

} // namespace forwarding
