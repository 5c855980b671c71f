// SPDX-License-Identifier: Apache-2.0

// Netlink sockets to the kernel's routing family: open, subscribe, send, read.
//
// Sockets are non-blocking. A socket belongs to the network namespace in which it was opened, on whichever thread it is
// used later. Datagrams that another process sent are dropped here.
//
// Threads: one at a time for each socket.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/result.h"

struct mnl_socket;

namespace forwarding {

// Room for one datagram. The kernel fills up to 32 KiB of a dump into one; twice that leaves room for later kernels.
inline constexpr size_t kernel_buffer_size = size_t{64} << 10;

// Room for the longest message, which is the state of a bridge port: 4,094 VLANs of 8 bytes and as many rows of 28
// bytes that map them to VNIs.
inline constexpr size_t kernel_message_room = size_t{160} << 10;

struct kernel_socket {
    mnl_socket *handle = nullptr;

    kernel_socket() = default;
    kernel_socket(const kernel_socket &) = delete;
    kernel_socket &operator=(const kernel_socket &) = delete;
    ~kernel_socket();
};

// On error the socket is unusable.
base::result kernel_socket_open(kernel_socket &socket);

// Subscribes the socket to every change of links and neighbours, and of next hops if the kernel has them (Linux 5.3 and
// later). It fails if the kernel refuses links or neighbours.
base::result kernel_socket_subscribe(const kernel_socket &socket, bool &has_next_hops);

// Asks for a receive buffer of `wanted` bytes. Granted in full with CAP_NET_ADMIN; otherwise capped at
// net.core.rmem_max. Returns the size that the kernel accounts against: twice the granted one, and never less than 2304
// bytes. A notification takes about 832 bytes of it.
size_t kernel_socket_resize(const kernel_socket &socket, uint32_t wanted);

int kernel_socket_fd(const kernel_socket &socket);

enum class kernel_read : uint8_t {
    datagram,
    empty,   // nothing is waiting
    overrun, // the receive buffer was full. The kernel reports it ahead of the datagrams still queued, and drops every
             // new one until the socket has been read empty.
    truncated, // `buffer` was too short; the datagram is lost
    refused,   // another process sent the datagram; it is dropped
};

// `datagram` becomes the part of `buffer` that was filled.
kernel_read kernel_socket_read(const kernel_socket &socket, std::span<std::byte> buffer,
                               std::span<const std::byte> &datagram);

// Short datagrams that one system call reads. The kernel answers each question with one of them.
struct kernel_datagrams {
    static constexpr size_t max_count = 64;
    static constexpr size_t room = kernel_buffer_size / max_count; // bytes of a datagram; longer ones are lost

    std::array<std::span<const std::byte>, max_count> found = {};
    size_t count = 0;
    uint64_t refused = 0; // datagrams that another process sent
};

// Reads as many datagrams as wait and fit into `buffer`, which has kernel_buffer_size bytes. The spans in `datagrams`
// become parts of `buffer`. Returns `datagram`, `empty` or `overrun`.
kernel_read kernel_socket_read_many(const kernel_socket &socket, std::span<std::byte> buffer,
                                    kernel_datagrams &datagrams);

// The kernel's account of a socket.
struct kernel_socket_memory {
    uint32_t queued = 0; // bytes of the receive buffer that wait to be read
    uint32_t drops = 0;  // datagrams dropped since the socket was opened, because its buffer was full; the count wraps
};

kernel_socket_memory kernel_socket_account(const kernel_socket &socket);

// Sends all `requests` in one datagram. Returns false if the kernel did not take the whole of it.
bool kernel_socket_send(const kernel_socket &socket, std::span<const std::byte> requests);

} // namespace forwarding
