// SPDX-License-Identifier: Apache-2.0

// Requests to the kernel: dumps, and questions about single entries. kernel_decode.h decodes the replies.
//
// Each function writes one request to the beginning of `buffer`, which is aligned to 4 bytes and has at least
// `kernel_request_size` bytes. It returns the length of the request.
//
// Threads: pure functions, for any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "forwarding/plane.h"

namespace forwarding {

// No request is longer.
inline constexpr size_t kernel_request_size = 64;

enum class kernel_scope : uint8_t {
    links,
    vlan_vnis,  // the VLANs and VLAN-to-VNI maps of all bridge ports
    bridge,     // the bridge's entries, and the own entries of its ports
    device,     // the device's own entries, and its bridge's entries on it
    entries,    // of all bridges and devices
    port_vlans, // as vlan_vnis, for one port and in as many messages as it takes
};

// `sequence` comes back in every message of the reply. `ifindex` is the bridge or device, ignored for other scopes.
size_t kernel_put_dump(std::span<std::byte> buffer, uint32_t sequence, kernel_scope scope, uint32_t ifindex);

// Asks for the entry of a key. If an address has several destinations, the kernel answers with the first one.
size_t kernel_put_get(std::span<std::byte> buffer, uint32_t sequence, const fdb_key &key);

} // namespace forwarding
