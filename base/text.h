// SPDX-License-Identifier: Apache-2.0

// Converts the texts of URIs, JSON and command lines: percent-encoding, base64url, MAC and IP addresses, numbers,
// durations, UTF-8.
//
//      base::percent_encode("lab:br 0")            "lab:br%200"
//      base::parse_mac("0200.00ab.cdef")           {0x02, 0x00, 0x00, 0xab, 0xcd, 0xef}
//      base::parse_number("4095", 4094)            std::nullopt
//
// A function that parses returns nothing if the text has another form. The caller words the error, because only the
// caller knows what the text is for.
//
// Threads: pure functions; any thread may call them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace base {

inline constexpr size_t mac_bytes = 6;
inline constexpr size_t ipv4_bytes = 4;
inline constexpr size_t ipv6_bytes = 16;
inline constexpr size_t max_ipv4_text = sizeof("255.255.255.255") - 1;
inline constexpr size_t utc_text_size = sizeof("2025-01-31T12:00:00Z") - 1;

inline constexpr int decimal = 10;
inline constexpr int hexadecimal = 16;

// Decodes each "%" with its two hexadecimal digits. Rejects a "%" without them and "%00".
std::optional<std::string> percent_decode(std::string_view text);

// Leaves letters, digits, "-", ".", "_", "~", ":" and "," as they are.
std::string percent_encode(std::string_view text);

// The base64 variant for URIs, with "-" and "_" as digits and without padding.
std::string base64url_encode(std::string_view text);
std::optional<std::string> base64url_decode(std::string_view text);

// The parts between the separators. There is one part more than there are separators.
std::vector<std::string_view> split(std::string_view text, char separator);

// Whether a text comes first in a list for readers, in which numbers count by their value: "p2", "p10", "q1".
bool comes_first(std::string_view left, std::string_view right);

// Parses the whole text as a number without a sign. Rejects a number above `max`.
std::optional<uint64_t> parse_number(std::string_view text, uint64_t max = UINT64_MAX, int base = decimal);

// Formats bytes as "aa:bb:cc:dd:ee:ff".
std::string mac_text(std::span<const uint8_t> address);

// The same into a buffer, without a memory allocation. `text` has room for three characters for each byte, and for the
// zero byte that ends the text. The text ends with the last whole byte of the address. Returns its end.
char *write_mac_text(char *text, std::span<const uint8_t> address);

// Parses "aa:bb:cc:dd:ee:ff" or "aabb.ccdd.eeff", in upper or lower case.
std::optional<std::array<uint8_t, mac_bytes>> parse_mac(std::string_view text);

// A MAC address as a number: 02:00:00:00:00:01 is 0x020000000001.
uint64_t number_of_mac(const std::array<uint8_t, mac_bytes> &address);
std::array<uint8_t, mac_bytes> mac_of_number(uint64_t number);

// The MAC addresses from `first` to `last`, as numbers. A default-constructed range has all of them.
struct mac_range {
    uint64_t first = 0;
    uint64_t last = (uint64_t{1} << 48) - 1;

    bool holds(uint64_t number) const { return first <= number && number <= last; }
    bool operator==(const mac_range &) const = default;
};

// Parses the first 1 to 12 digits of a MAC address, in upper or lower case:
//
//      02005e0, 0200.5e0      each digit counts, so the last octet may be half
//      02:00:5e, 2-0-5e       octets of one or two digits
std::optional<mac_range> parse_mac_prefix(std::string_view text);

// Formats an IPv4 or IPv6 address, 4 or 16 bytes in network byte order.
std::string ip_text(std::span<const uint8_t> address);

// An IPv4 address into a buffer, without a memory allocation and without a final zero byte. `text` has room for
// max_ipv4_text characters. Returns the end of the text.
char *write_ipv4_text(char *text, std::span<const uint8_t, ipv4_bytes> address);

// The result is in network byte order.
std::optional<std::array<uint8_t, ipv4_bytes>> parse_ipv4(const std::string &text);

// An IPv4 or IPv6 address, so that both can be compared. An IPv4 address has the form of an IPv4-mapped IPv6 address,
// ::ffff:192.0.2.1. All bytes are 0 if there is none.
using ip_address = std::array<uint8_t, ipv6_bytes>;

ip_address ip_of(std::span<const uint8_t, ipv4_bytes> ipv4);
bool is_ipv4(const ip_address &address);
std::optional<ip_address> parse_ip(const std::string &text);

// Parses a duration in seconds: "90", "90s", "15m", "2h" or "1d". Rejects more than 2^32 - 1 seconds.
std::optional<uint32_t> parse_duration(std::string_view text);

// Formats seconds since the epoch as "2025-01-31T12:00:00Z". The year is from 0 to 9999.
std::string utc_text(int64_t seconds);

// The same into a buffer of utc_text_size characters, without a memory allocation and without a final zero byte.
// Returns the end of the text.
char *write_utc_text(char *text, int64_t seconds);

// Writes milliseconds since the epoch as "2025-01-31T12:00:00.123Z" into a buffer, likewise.
inline constexpr size_t utc_ms_text_size = utc_text_size + sizeof(".123") - 1;
char *write_utc_ms_text(char *text, int64_t milliseconds);

// The UTF-8 character of more than one byte: every byte but the first carries six bits of the code point.
inline constexpr uint32_t utf8_continuation_bits = 6;
inline constexpr uint8_t utf8_continuation_mask = 0x3f;
inline constexpr uint8_t utf8_continuation_min = 0x80;
inline constexpr uint8_t utf8_continuation_max = 0xbf;

constexpr bool is_utf8_continuation(char c)
{
    const auto byte = static_cast<uint8_t>(c);
    return byte >= utf8_continuation_min && byte <= utf8_continuation_max;
}

// The length in bytes of the UTF-8 character at the start of a text that is not empty. 0 if no valid character starts
// there.
size_t utf8_length(std::string_view text);

} // namespace base
