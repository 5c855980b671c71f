// SPDX-License-Identifier: Apache-2.0

// Decoder of the kernel's routing messages: bytes to the plain records of a forwarding plane.
//
// kernel_decode reads what it is given and nothing else: no socket, no clock, no table. Whatever the bytes are, it
// reads none behind the end and always comes to an end. A message that breaks the rules of its form (an attribute that
// is cut off, of the wrong length, or missing where every kernel sends it) is malformed as a whole: half a record is
// never told. Attributes that are not known here are skipped, for newer kernels send more.
//
// Messages of other address families than those of links and bridge entries come on the same socket, such as neighbours
// of IPv4 and IPv6. A forwarding plane does not use them: their kind is `unrelated`.
//
// Threads: any.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "forwarding/plane.h"

namespace forwarding {

inline constexpr uint16_t most_vlans = 4096; // a number of 12 bits

enum class kernel_message_kind : uint8_t {
    unrelated,
    malformed,
    link_changed,  // `link`
    link_gone,     // `link`, of which only the interface index is sure
    fdb_changed,   // `fdb`
    fdb_gone,      // `fdb`
    next_hop_gone, // `next_hop` and `for_entries`
    vlan_vnis,     // `link`, of which only the interface index is set, `vnis` and `vlans`: all of a bridge port
    done,          // the end of a dump; `error` when it failed
    error,         // a request failed, or was acknowledged when `error` is 0
};

struct kernel_message {
    kernel_message_kind kind = kernel_message_kind::unrelated;
    uint32_t sequence = 0;    // of the request that this answers; 0: none
    bool interrupted = false; // the kernel says that the dump this belongs to is inconsistent
    int error = 0;            // a positive error number
    link_record link = {};
    fdb_record fdb = {};
    uint32_t next_hop = 0;    // id
    bool for_entries = false; // the next hop was made for forwarding entries, not for routes
    vni_by_vlan vnis = {};
    std::bitset<most_vlans> vlans = {}; // of which the port is a member
};

// What turns the ages of entries into times.
struct kernel_clock {
    int64_t now_ms = 0; // std::chrono::steady_clock when the bytes were read
    int64_t ticks_per_second = 100;
};

// For bytes that are read now.
kernel_clock kernel_clock_now();

// Takes the first message off `datagram`, whose start is aligned to 4 bytes. False at its end; what is behind the last
// whole message of it is one malformed message. `message` may be used again for the next one.
bool kernel_decode(std::span<const std::byte> &datagram, const kernel_clock &clock, kernel_message &message);

// What a device is, by the name that the kernel has for its kind ("bridge", "vxlan", "gretap" ...).
link_kind link_kind_named(std::string_view name);

// link_record::ageing_ms of a bridge whose ageing time is `ticks` hundredths of a second, the unit in which the kernel
// and its tools give it. Times that do not fit (over 49 days) give the longest that does.
uint32_t ageing_ms_of(uint32_t ticks);

} // namespace forwarding
