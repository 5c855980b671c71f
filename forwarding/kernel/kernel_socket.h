// SPDX-License-Identifier: Apache-2.0

// Sockets of the kernel's routing messages, and the requests that are sent on them.
//
// All are non-blocking and belong to the network namespace in which they were opened, whatever the namespace of the
// thread that uses them. What comes from anybody but the kernel is dropped here.
//
// Threads: one at a time per socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "forwarding/plane.h"

struct mnl_socket;

namespace forwarding {

// The kernel fills 32 KiB at a time, and no more than this.
inline constexpr size_t kernel_buffer_size = size_t{64} << 10;

struct kernel_socket {
    mnl_socket *handle = nullptr;

    kernel_socket() = default;
    kernel_socket(const kernel_socket &) = delete;
    kernel_socket &operator=(const kernel_socket &) = delete;
    ~kernel_socket();
};

// Closed when the result is a text: what the kernel refused.
std::string kernel_socket_open(kernel_socket &socket);

// Subscribes the socket to every change of links and neighbours, and of next hops if the kernel has them (Linux 5.3 and
// later). Returns false and sets errno when the kernel refuses links or neighbours.
bool kernel_socket_subscribe(const kernel_socket &socket, bool &has_next_hops);

// Asks for a receive buffer of `wanted` bytes. Granted in full with CAP_NET_ADMIN; otherwise capped at
// net.core.rmem_max. Returns the size that the kernel accounts against: twice the granted one, and never less than 2304
// bytes. A notification takes about 832 bytes of it.
size_t kernel_socket_resize(const kernel_socket &socket, uint32_t wanted);

int kernel_socket_fd(const kernel_socket &socket);

enum class kernel_read : uint8_t {
    datagram,
    empty,     // nothing more for now
    overrun,   // the socket's buffer was full. The kernel reports it before what is still queued, and drops everything
               // new until the socket has been read empty.
    truncated, // `buffer` was too short; the datagram is gone
    refused,   // a datagram of another sender; it is gone
};

// `datagram` becomes the part of `buffer` that was filled.
kernel_read kernel_socket_read(const kernel_socket &socket, std::span<std::byte> buffer,
                               std::span<const std::byte> &datagram);

// What the kernel accounts for a socket.
struct kernel_socket_memory {
    uint32_t queued = 0; // bytes of the receive buffer that wait to be read
    uint32_t drops = 0;  // datagrams dropped since the socket was opened, because its buffer was full; the count wraps
};

kernel_socket_memory kernel_socket_account(const kernel_socket &socket);

bool kernel_socket_send(const kernel_socket &socket, std::span<const std::byte> requests);

// ---- Requests, each written to the beginning of `buffer`, aligned to 4 bytes; the result is its length.

inline constexpr size_t kernel_request_size = 64;

enum class kernel_scope : uint8_t {
    links,
    vlan_vnis, // of all bridge ports
    bridge,    // its entries, and the own ones of the devices among its ports
    device,    // its own entries, and those that its bridge holds on it
};

size_t kernel_put_dump(std::span<std::byte> buffer, uint32_t sequence, kernel_scope scope, uint32_t ifindex);

// Asks for the entry of a key. Of the destinations of a zero or multicast address the kernel answers with the first.
size_t kernel_put_get(std::span<std::byte> buffer, uint32_t sequence, const fdb_key &key);

// ---- Where and with what right

// Runs `work` on a thread of its own in the network namespace `netns`: a path, or a name as "ip netns" lists them.
// Empty: in the caller's, on its thread. Returns what `work` returned, or why the namespace cannot be entered.
std::string kernel_run_in(const std::string &netns, const std::function<std::string()> &work);

// Gives up for ever what opening sockets may need and reading does not: CAP_NET_ADMIN and CAP_SYS_ADMIN. It holds for
// the calling thread and those that it starts afterwards. Returns nothing on success, otherwise the reason.
std::string kernel_give_up_capabilities();

} // namespace forwarding
