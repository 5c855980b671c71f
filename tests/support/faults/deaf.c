/* SPDX-License-Identifier: Apache-2.0 */

/* Preloaded by system tests: a kernel whose notifications of one deletion never arrive. Drops every datagram of a
 * netlink socket that reports the deletion of the neighbour 02:de:af:00:00:01. */
#include <dlfcn.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string.h>
#include <sys/socket.h>

static const unsigned char unheard[] = {0x02, 0xde, 0xaf, 0x00, 0x00, 0x01};

static int is_unheard(const struct msghdr *message, size_t length)
{
    const struct sockaddr_nl *from = message->msg_name;
    const struct nlmsghdr *head = message->msg_iov->iov_base;
    return from != NULL && from->nl_family == AF_NETLINK && length >= sizeof(*head) && head->nlmsg_type == RTM_DELNEIGH
           && memmem(head, length, unheard, sizeof(unheard)) != NULL;
}

ssize_t recvmsg(int socket, struct msghdr *message, int flags)
{
    ssize_t (*real)(int, struct msghdr *, int) = (ssize_t(*)(int, struct msghdr *, int))dlsym(RTLD_NEXT, "recvmsg");
    ssize_t length;
    do {
        length = real(socket, message, flags);
    } while (length > 0 && is_unheard(message, (size_t)length));
    return length;
}
