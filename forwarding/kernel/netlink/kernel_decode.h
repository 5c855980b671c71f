// SPDX-License-Identifier: Apache-2.0

// Decoder of the kernel's routing messages: bytes to the plain records of a forwarding plane.
//
// kernel_decode reads its arguments and nothing else: no socket, no clock, no table. For any bytes it ends, and never
// reads past their end. A message with an attribute that is cut off, of the wrong length, or missing although every
// kernel sends it, is malformed as a whole: the caller never gets half a record. Unknown attributes are skipped,
// because newer kernels send more.
//
// The same socket also delivers messages of other address families, such as IPv4 neighbours. Their kind is `unrelated`.
//
// Example:
//
//      kernel_message message;
//      for (const kernel_clock clock = kernel_clock_now(); kernel_decode(datagram, clock, message);) {
//          take(message);
//      }
//
// Threads: pure functions, for any thread.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "forwarding/plane.h"

namespace forwarding {

inline constexpr uint16_t max_vlans = 4096; // VLAN ids have 12 bits

// Each kind names the members of kernel_message that are set.
enum class kernel_message_kind : uint8_t {
    unrelated,
    malformed,
    link_changed,  // `link`
    link_gone,     // `link`, of which only the interface index is reliable
    fdb_changed,   // `fdb`
    fdb_gone,      // `fdb`
    next_hop_gone, // `next_hop` and `for_entries`
    vlan_vnis,     // the state of a bridge port: `vnis`, `vlans`, and the interface index in `link`
    vlan_rows,     // likewise, but a part of the state only. A dump of one port's VLANs has several parts.
    vlans_cut,     // the interface index of a bridge port in `link`; its state is too long for such a message
    done,          // the end of a dump; `error` if the dump failed
    error,         // the end of a request; `error` is 0 if it succeeded
};

struct kernel_message {
    kernel_message_kind kind = kernel_message_kind::unrelated;
    uint32_t sequence = 0;    // of the request that this answers; 0: a notification
    bool interrupted = false; // the kernel reports that this message's dump is inconsistent
    int error = 0;            // a positive error number
    link_record link = {};
    fdb_record fdb = {};
    uint32_t next_hop = 0;    // id
    bool for_entries = false; // the next hop was made for forwarding entries, not for routes
    vni_by_vlan vnis = {};
    std::bitset<max_vlans> vlans = {}; // VLANs of which the port is a member
};

// Converts the ages of entries to times.
struct kernel_clock {
    int64_t now_ms = 0; // std::chrono::steady_clock when the bytes were read
    int64_t ticks_per_second = 100;
};

// The clock for bytes that are read now.
kernel_clock kernel_clock_now();

// Decodes the first message of `datagram`, whose start is aligned to 4 bytes, and removes it from there. Returns false
// if `datagram` is empty. Bytes that form no whole message give one malformed message. `message` may be used again.
bool kernel_decode(std::span<const std::byte> &datagram, const kernel_clock &clock, kernel_message &message);

// The kind of a device, from the kernel's name for it ("bridge", "vxlan", "gretap" ...).
link_kind link_kind_named(std::string_view name);

// Converts a bridge's ageing time to milliseconds. The kernel and its tools give it in hundredths of a second. Times
// over 49 days do not fit and give the longest that does.
uint32_t ageing_ms_of(uint32_t ticks);

} // namespace forwarding
