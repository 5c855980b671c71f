// SPDX-License-Identifier: Apache-2.0

#include "base/text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>

namespace base {

namespace {

constexpr std::string_view unreserved = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~:,";
constexpr std::string_view base64_digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr size_t base64_group = 3;  // bytes that make four digits
constexpr unsigned base64_bits = 6; // of a digit
constexpr uint32_t base64_mask = 0x3f;
constexpr unsigned byte_bits = 8;
constexpr size_t byte_digits = 2; // hexadecimal digits of a byte
constexpr size_t word_digits = 4; // hexadecimal digits between the dots of aabb.ccdd.eeff
constexpr unsigned year_digits = 4;
constexpr unsigned field_digits = 2; // of the other parts of a time
constexpr unsigned millisecond_digits = 3;

uint8_t byte_at(std::string_view text, size_t at)
{
    return static_cast<uint8_t>(text[at]);
}

// How the first byte of a character determines the bytes after it. The bounds of the second byte reject a long form of
// a short character ("/" as c0 af), surrogates (ed a0 80), and everything above U+10FFFF (f4 90 80 80).
struct utf8_form {
    uint8_t first_min;
    uint8_t first_max;
    uint8_t length; // bytes
    uint8_t second_min;
    uint8_t second_max;
};

constexpr utf8_form utf8_forms[] = {
    {0x00, 0x7f, 1, 0, 0},       {0xc2, 0xdf, 2, 0x80, 0xbf}, {0xe0, 0xe0, 3, 0xa0, 0xbf},
    {0xe1, 0xec, 3, 0x80, 0xbf}, {0xed, 0xed, 3, 0x80, 0x9f}, {0xee, 0xef, 3, 0x80, 0xbf},
    {0xf0, 0xf0, 4, 0x90, 0xbf}, {0xf1, 0xf3, 4, 0x80, 0xbf}, {0xf4, 0xf4, 4, 0x80, 0x8f},
};

// Writes the last `digits` decimal digits of a number.
char *write_digits(char *text, unsigned number, unsigned digits)
{
    for (unsigned at = digits; at-- > 0; number /= decimal) {
        text[at] = static_cast<char>('0' + number % decimal);
    }
    return text + digits;
}

// Writes a part of a time with the character before it, such as "-01".
char *write_field(char *text, char separator, unsigned number)
{
    *text++ = separator;
    return write_digits(text, number, field_digits);
}

bool has_continuation(const utf8_form &form, std::string_view text)
{
    if (text.size() < form.length) {
        return false;
    }
    const bool is_second_valid =
        form.length == 1 || (byte_at(text, 1) >= form.second_min && byte_at(text, 1) <= form.second_max);
    return is_second_valid && std::ranges::all_of(text.substr(1, form.length - 1u), is_utf8_continuation);
}

} // namespace

std::optional<std::string> percent_decode(std::string_view text)
{
    std::string decoded;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const std::string_view digits = text.substr(i + 1, byte_digits);
        const auto code = parse_number(digits, UINT8_MAX, hexadecimal);
        if (digits.size() < byte_digits || !code || *code == 0) {
            return std::nullopt;
        }
        decoded += static_cast<char>(*code);
        i += byte_digits;
    }
    return decoded;
}

std::string percent_encode(std::string_view text)
{
    std::string encoded;
    for (const char c : text) {
        if (unreserved.find(c) != std::string_view::npos) {
            encoded += c;
        } else {
            char code[4];
            std::snprintf(code, sizeof(code), "%%%02X", static_cast<unsigned>(static_cast<uint8_t>(c)));
            encoded += code;
        }
    }
    return encoded;
}

// Three bytes make four digits. A last group of one or two bytes makes two or three:
//
//      "ab"    01100001 01100010 (00000000)    011000'010110'0010'00    "YWI"
std::string base64url_encode(std::string_view text)
{
    std::string encoded;
    for (size_t i = 0; i < text.size(); i += base64_group) {
        const size_t count = std::min(base64_group, text.size() - i);
        uint32_t bits = 0;
        for (size_t k = 0; k < base64_group; k++) {
            bits = bits << byte_bits | (k < count ? byte_at(text, i + k) : 0u);
        }
        for (size_t k = 0; k <= count; k++) {
            encoded += base64_digits[bits >> (base64_bits * (base64_group - k)) & base64_mask];
        }
    }
    return encoded;
}

std::optional<std::string> base64url_decode(std::string_view text)
{
    std::string decoded;
    uint32_t bits = 0;
    unsigned bit_count = 0;
    for (const char c : text) {
        const size_t digit = base64_digits.find(c);
        if (digit == std::string_view::npos) {
            return std::nullopt;
        }
        bits = bits << base64_bits | static_cast<uint32_t>(digit);
        bit_count += base64_bits;
        if (bit_count >= byte_bits) {
            bit_count -= byte_bits;
            decoded += static_cast<char>(bits >> bit_count & UINT8_MAX);
        }
    }
    return decoded;
}

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (size_t end; (end = text.find(separator)) != std::string_view::npos; text.remove_prefix(end + 1)) {
        parts.push_back(text.substr(0, end));
    }
    parts.push_back(text);
    return parts;
}

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Takes the number at the start of a text, without its leading zeros.
std::string_view take_number(std::string_view &text)
{
    text.remove_prefix(std::min(text.find_first_not_of('0'), text.size()));
    const auto end = std::ranges::find_if_not(text, is_digit);
    const std::string_view number = text.substr(0, static_cast<size_t>(end - text.begin()));
    text.remove_prefix(number.size());
    return number;
}

} // namespace

bool comes_first(std::string_view left, std::string_view right)
{
    std::string_view a = left;
    std::string_view b = right;
    while (!a.empty() && !b.empty()) {
        if (is_digit(a.front()) && is_digit(b.front())) {
            const std::string_view in_a = take_number(a);
            const std::string_view in_b = take_number(b);
            if (in_a != in_b) {
                return std::pair(in_a.size(), in_a) < std::pair(in_b.size(), in_b);
            }
        } else if (a.front() != b.front()) {
            return a.front() < b.front();
        } else {
            a.remove_prefix(1);
            b.remove_prefix(1);
        }
    }
    return a.empty() != b.empty() ? a.empty() : left < right; // "p01" and "p1" differ in zeros only
}

std::optional<uint64_t> parse_number(std::string_view text, uint64_t max, int base)
{
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size() || number > max) {
        return std::nullopt;
    }
    return number;
}

char *write_mac_text(char *text, std::span<const uint8_t> address)
{
    constexpr char digits[] = "0123456789abcdef";
    char *end = text;
    for (const uint8_t byte : address) {
        if (end != text) {
            *end++ = ':';
        }
        *end++ = digits[byte >> 4];
        *end++ = digits[byte & 0xf];
    }
    *end = '\0';
    return end;
}

std::string mac_text(std::span<const uint8_t> address)
{
    std::string text(3 * address.size() + 1, '\0');
    write_mac_text(text.data(), address);
    text.resize(address.empty() ? 0 : 3 * address.size() - 1);
    return text;
}

std::optional<std::array<uint8_t, mac_bytes>> parse_mac(std::string_view text)
{
    const char separator = text.find('.') != std::string_view::npos ? '.' : ':';
    const size_t digits = separator == '.' ? word_digits : byte_digits;
    constexpr size_t all_digits = mac_bytes * byte_digits;
    if (text.size() != all_digits + all_digits / digits - 1) {
        return std::nullopt;
    }
    std::array<uint8_t, mac_bytes> address{};
    size_t at = 0;
    for (size_t from = 0; from < text.size(); from += digits + 1) {
        const auto number = parse_number(text.substr(from, digits), UINT16_MAX, hexadecimal);
        if (!number || (from != 0 && text[from - 1] != separator)) {
            return std::nullopt;
        }
        for (size_t left = digits / byte_digits; left-- > 0;) {
            address[at++] = static_cast<uint8_t>(*number >> (byte_bits * left));
        }
    }
    return address;
}

uint64_t number_of_mac(const std::array<uint8_t, mac_bytes> &address)
{
    uint64_t number = 0;
    for (const uint8_t byte : address) {
        number = number << byte_bits | byte;
    }
    return number;
}

std::array<uint8_t, mac_bytes> mac_of_number(uint64_t number)
{
    std::array<uint8_t, mac_bytes> address;
    for (size_t at = mac_bytes; at-- > 0; number >>= byte_bits) {
        address[at] = static_cast<uint8_t>(number);
    }
    return address;
}

namespace {

// The digits of a prefix whose groups have `group_digits` digits each; the last group may have fewer.
std::optional<std::string> digits_of_groups(std::string_view text, char separator, size_t group_digits)
{
    std::string digits;
    const auto groups = split(text, separator);
    for (size_t at = 0; at < groups.size(); at++) {
        const bool is_whole = groups[at].size() == group_digits;
        const bool may_be_part = at + 1 == groups.size() && !groups[at].empty() && groups[at].size() < group_digits;
        if (!is_whole && !may_be_part) {
            return std::nullopt;
        }
        digits += groups[at];
    }
    return digits;
}

// The digits of a prefix of octets with one or two digits each.
std::optional<std::string> digits_of_octets(std::string_view text, char separator)
{
    std::string digits;
    for (const std::string_view octet : split(text, separator)) {
        if (octet.empty() || octet.size() > byte_digits) {
            return std::nullopt;
        }
        digits.append(byte_digits - octet.size(), '0').append(octet);
    }
    return digits;
}

} // namespace

std::optional<mac_range> parse_mac_prefix(std::string_view text)
{
    constexpr size_t digit_bits = 4, all_digits = mac_bytes * byte_digits;
    const size_t separator = text.find_first_of(":-.");
    const auto digits = separator == std::string_view::npos ? digits_of_groups(text, '.', all_digits)
                        : text[separator] == '.'            ? digits_of_groups(text, '.', word_digits)
                                                            : digits_of_octets(text, text[separator]);
    const auto number =
        digits && digits->size() <= all_digits ? parse_number(*digits, UINT64_MAX, hexadecimal) : std::nullopt;
    if (!number) {
        return std::nullopt;
    }
    const size_t free_bits = digit_bits * (all_digits - digits->size());
    const uint64_t first = *number << free_bits;
    return mac_range{first, first | ((uint64_t{1} << free_bits) - 1)};
}

char *write_ipv4_text(char *text, std::span<const uint8_t, ipv4_bytes> address)
{
    char *const limit = text + max_ipv4_text;
    char *end = text;
    for (const uint8_t byte : address) {
        if (end != text) {
            *end++ = '.';
        }
        end = std::to_chars(end, limit, byte).ptr;
    }
    return end;
}

std::string ip_text(std::span<const uint8_t> address)
{
    char text[INET6_ADDRSTRLEN] = {};
    if (address.size() == ipv4_bytes) {
        return {text, write_ipv4_text(text, address.first<ipv4_bytes>())};
    }
    inet_ntop(AF_INET6, address.data(), text, sizeof(text));
    return text;
}

std::optional<std::array<uint8_t, ipv4_bytes>> parse_ipv4(const std::string &text)
{
    std::array<uint8_t, ipv4_bytes> address{};
    return inet_pton(AF_INET, text.c_str(), address.data()) == 1 ? std::optional(address) : std::nullopt;
}

namespace {

struct duration_unit {
    char letter;
    uint32_t seconds;
};

constexpr duration_unit duration_units[] = {{'s', 1}, {'m', 60}, {'h', 3'600}, {'d', 86'400}};

constexpr std::array<uint8_t, ipv6_bytes - ipv4_bytes> mapped_prefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

} // namespace

ip_address ip_of(std::span<const uint8_t, ipv4_bytes> ipv4)
{
    ip_address address;
    std::ranges::copy(ipv4, std::ranges::copy(mapped_prefix, address.begin()).out);
    return address;
}

bool is_ipv4(const ip_address &address)
{
    return std::ranges::equal(std::span(address).first(mapped_prefix.size()), mapped_prefix);
}

std::optional<ip_address> parse_ip(const std::string &text)
{
    if (const auto ipv4 = parse_ipv4(text)) {
        return ip_of(*ipv4);
    }
    ip_address address{};
    return inet_pton(AF_INET6, text.c_str(), address.data()) == 1 ? std::optional(address) : std::nullopt;
}

std::optional<uint32_t> parse_duration(std::string_view text)
{
    uint32_t seconds = 1;
    for (const duration_unit &unit : duration_units) {
        if (text.ends_with(unit.letter)) {
            seconds = unit.seconds;
            text.remove_suffix(1);
            break;
        }
    }
    const auto number = parse_number(text, UINT32_MAX / seconds);
    return number ? std::optional(static_cast<uint32_t>(*number * seconds)) : std::nullopt;
}

// A million rows show a time each, and the C library's formatter takes twenty times as long.
char *write_utc_text(char *text, int64_t seconds)
{
    using namespace std::chrono;
    const sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    char *end = write_digits(text, static_cast<unsigned>(static_cast<int>(date.year())), year_digits);
    end = write_field(end, '-', static_cast<unsigned>(date.month()));
    end = write_field(end, '-', static_cast<unsigned>(date.day()));
    end = write_field(end, 'T', static_cast<unsigned>(clock.hours().count()));
    end = write_field(end, ':', static_cast<unsigned>(clock.minutes().count()));
    end = write_field(end, ':', static_cast<unsigned>(clock.seconds().count()));
    *end++ = 'Z';
    return end;
}

char *write_utc_ms_text(char *text, int64_t milliseconds)
{
    using namespace std::chrono;
    const auto whole = floor<seconds>(std::chrono::milliseconds(milliseconds));
    char *end = write_utc_text(text, whole.count());
    end[-1] = '.'; // in the place of the Z
    end =
        write_digits(end, static_cast<unsigned>(milliseconds - duration_cast<std::chrono::milliseconds>(whole).count()),
                     millisecond_digits);
    *end++ = 'Z';
    return end;
}

std::string utc_text(int64_t seconds)
{
    char text[utc_text_size];
    return {text, write_utc_text(text, seconds)};
}

size_t utf8_length(std::string_view text)
{
    const uint8_t first = byte_at(text, 0);
    const auto *form = std::ranges::find_if(
        utf8_forms, [first](const utf8_form &row) { return first >= row.first_min && first <= row.first_max; });
    return form != std::end(utf8_forms) && has_continuation(*form, text) ? form->length : 0;
}

} // namespace base
