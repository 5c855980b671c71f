// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/netlink/kernel_socket.h"

#include <array>
#include <cerrno>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>

namespace forwarding {

namespace {

constexpr unsigned kernel_port_id = 0; // the address of the kernel's own messages

bool set_option(const kernel_socket &socket, int option, int value)
{
    return mnl_socket_setsockopt(socket.handle, option, &value, sizeof(value)) == 0;
}

// A system call that a signal interrupted is repeated.
template <typename Call>
auto uninterrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

bool is_from_kernel(const msghdr &message, const sockaddr_nl &sender)
{
    return message.msg_namelen == sizeof(sender) && sender.nl_pid == kernel_port_id;
}

// Any other error than an empty queue, such as no memory, loses datagrams like an overrun.
kernel_read failed_read()
{
    return errno == EAGAIN ? kernel_read::empty : kernel_read::overrun;
}

// One system call's places for datagrams and their senders.
struct read_slots {
    std::array<sockaddr_nl, kernel_datagrams::max_count> senders;
    std::array<iovec, kernel_datagrams::max_count> into;
    std::array<mmsghdr, kernel_datagrams::max_count> messages;
};

void aim_slots(read_slots &slots, std::span<std::byte> buffer)
{
    for (size_t at = 0; at < kernel_datagrams::max_count; at++) {
        slots.into[at] = {buffer.data() + at * kernel_datagrams::room, kernel_datagrams::room};
        slots.messages[at] = {};
        msghdr &head = slots.messages[at].msg_hdr;
        head.msg_name = &slots.senders[at];
        head.msg_namelen = sizeof(slots.senders[at]);
        head.msg_iov = &slots.into[at];
        head.msg_iovlen = 1;
    }
}

} // namespace

kernel_socket::~kernel_socket()
{
    if (handle != nullptr) {
        mnl_socket_close(handle);
    }
}

base::result kernel_socket_open(kernel_socket &socket)
{
    socket.handle = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket.handle == nullptr || mnl_socket_bind(socket.handle, 0, MNL_SOCKET_AUTOPID) != 0) {
        return base::system_failure(errno, "cannot open a netlink socket");
    }
    // Without strict checking the kernel would ignore the bridge in a request and dump all bridges.
    if (!set_option(socket, NETLINK_GET_STRICT_CHK, 1)) {
        return base::system_failure(errno, "cannot make this kernel filter dumps (Linux 4.20 and later do)");
    }
    set_option(socket, NETLINK_CAP_ACK, 1); // shorter error replies; harmless if refused
    return base::success();
}

base::result kernel_socket_subscribe(const kernel_socket &socket, bool &has_next_hops)
{
    for (const int group : {RTNLGRP_LINK, RTNLGRP_NEIGH}) {
        if (!set_option(socket, NETLINK_ADD_MEMBERSHIP, group)) {
            return base::system_failure(errno, "cannot subscribe to the kernel's changes of links and neighbours");
        }
    }
    // A kernel without next hops has no entries that deliver to one.
    has_next_hops = set_option(socket, NETLINK_ADD_MEMBERSHIP, RTNLGRP_NEXTHOP);
    return base::success();
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
    const ssize_t length = uninterrupted([&] { return recvmsg(kernel_socket_fd(socket), &message, 0); });
    if (length < 0) {
        return failed_read();
    }
    if (!is_from_kernel(message, sender)) {
        return kernel_read::refused;
    }
    if ((message.msg_flags & MSG_TRUNC) != 0) {
        return kernel_read::truncated;
    }
    datagram = buffer.first(static_cast<size_t>(length));
    return kernel_read::datagram;
}

kernel_read kernel_socket_read_many(const kernel_socket &socket, std::span<std::byte> buffer,
                                    kernel_datagrams &datagrams)
{
    read_slots slots;
    aim_slots(slots, buffer);
    datagrams.count = 0;
    datagrams.refused = 0;
    const int count = uninterrupted(
        [&] { return recvmmsg(kernel_socket_fd(socket), slots.messages.data(), slots.messages.size(), 0, nullptr); });
    if (count < 0) {
        return failed_read();
    }
    for (size_t at = 0; at < static_cast<size_t>(count); at++) {
        const msghdr &head = slots.messages[at].msg_hdr;
        const bool is_ours = is_from_kernel(head, slots.senders[at]);
        datagrams.refused += is_ours ? 0 : 1;
        if (is_ours && (head.msg_flags & MSG_TRUNC) == 0) {
            datagrams.found[datagrams.count++] =
                buffer.subspan(at * kernel_datagrams::room, slots.messages[at].msg_len);
        }
    }
    return kernel_read::datagram;
}

kernel_socket_memory kernel_socket_account(const kernel_socket &socket)
{
    uint32_t counts[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof(counts);
    if (getsockopt(kernel_socket_fd(socket), SOL_SOCKET, SO_MEMINFO, counts, &length) != 0) {
        // Every kernel that filters dumps has this option. If it fails, callers read until nothing is left.
        return {UINT32_MAX, 0};
    }
    return {counts[SK_MEMINFO_RMEM_ALLOC], counts[SK_MEMINFO_DROPS]};
}

bool kernel_socket_send(const kernel_socket &socket, std::span<const std::byte> requests)
{
    const ssize_t sent =
        uninterrupted([&] { return mnl_socket_sendto(socket.handle, requests.data(), requests.size()); });
    return sent == static_cast<ssize_t>(requests.size());
}

} // namespace forwarding
