// SPDX-License-Identifier: Apache-2.0

// Texts as they come in by a URI and go out in JSON: percent-encoding, base64url, addresses, numbers, UTF-8.
//
// Threads: pure functions, for any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace base {

// Nothing for a '%' that two hexadecimal digits do not follow, and for the character with the code 0.
std::optional<std::string> percent_decode(std::string_view text);

// Leaves letters, digits, "-", ".", "_", "~", ":" and "," as they are.
std::string percent_encode(std::string_view text);

// Without padding, so that a text of it can stand anywhere in a URI.
std::string base64url_encode(std::string_view text);
std::optional<std::string> base64url_decode(std::string_view text);

// The parts between the separators; one more than there are separators.
std::vector<std::string_view> split(std::string_view text, char separator);

// A decimal number without sign, or in another base, of the whole text; nothing when it is above `most`.
std::optional<uint64_t> parse_number(std::string_view text, uint64_t most = UINT64_MAX, int base = 10);

// aa:bb:cc:dd:ee:ff
std::string mac_text(std::span<const uint8_t> address);

// The same into a buffer, without a memory allocation. `text` has room for three characters for each byte, and for the
// zero byte that ends the text. The text ends with the last whole byte of the address.
void write_mac_text(char *text, std::span<const uint8_t> address);

// From aa:bb:cc:dd:ee:ff or aabb.ccdd.eeff, in either case.
std::optional<std::array<uint8_t, 6>> parse_mac(std::string_view text);

// Of 4 or 16 bytes in network byte order.
std::string ip_text(std::span<const uint8_t> address);
std::optional<std::array<uint8_t, 4>> parse_ipv4(const std::string &text); // in network byte order

// 2025-01-31T12:00:00Z
std::string utc_text(int64_t seconds);

// The length of the UTF-8 character that a text that is not empty begins with; 0 when it begins with none.
size_t utf8_length(std::string_view text);

} // namespace base
