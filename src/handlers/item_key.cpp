// SPDX-License-Identifier: Apache-2.0

#include "handlers/item_key.h"

#include <arpa/inet.h>
#include <endian.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>

#include "platform/l2fib.h"

namespace edm {

namespace {

constexpr unsigned mac_words = 3;
constexpr size_t mac_words_size = sizeof("ffff,ffff,ffff");
constexpr unsigned vtep_addr_digits = 8;
constexpr size_t word_digits = 4;
constexpr unsigned bits_of_digit = 4;
constexpr unsigned bits_of_byte = 8;
constexpr unsigned bits_of_word = 16;
constexpr unsigned digit_mask = 0xf;
constexpr char hex_digits[] = "0123456789abcdef";

// Writes lower-case hexadecimal of at least `min_digits` digits. Returns the end of the text.
char *put_hex(char *out, uint32_t value, unsigned min_digits = 1)
{
    const unsigned bits = static_cast<unsigned>(std::bit_width(value));
    const unsigned digits = std::max(min_digits, (bits + bits_of_digit - 1) / bits_of_digit);
    for (unsigned shift = digits * bits_of_digit; shift != 0; shift -= bits_of_digit) {
        *out++ = hex_digits[value >> (shift - bits_of_digit) & digit_mask];
    }
    return out;
}

// The two hexadecimal digits of each byte, the first one in the low bits.
constexpr std::array<uint16_t, UINT8_MAX + 1> digits_of_byte = [] {
    std::array<uint16_t, UINT8_MAX + 1> table{};
    for (size_t byte = 0; byte < table.size(); byte++) {
        table[byte] =
            static_cast<uint16_t>(hex_digits[byte >> bits_of_digit] | hex_digits[byte & digit_mask] << bits_of_byte);
    }
    return table;
}();

// As put_hex, with fewer instructions, because a page of names prints 600 words. Writes word_digits bytes in any case.
char *put_hex_word(char *out, uint16_t word)
{
    const unsigned zeros = (bits_of_word - std::bit_width(word | 1u)) / bits_of_digit;
    const uint32_t digits =
        digits_of_byte[word >> bits_of_byte] | uint32_t{digits_of_byte[word & UINT8_MAX]} << bits_of_word;
    const uint32_t text = htole32(digits >> (zeros * bits_of_byte));
    std::memcpy(out, &text, word_digits);
    return out + word_digits - zeros;
}

// Writes up to word_digits bytes behind the end of the text.
char *put_mac_words(char *out, const uint8_t *mac_addr)
{
    uint16_t words[mac_words];
    l2fib_macaddr_to_swords(mac_addr, words);
    out = put_hex_word(out, words[0]);
    *out++ = ',';
    out = put_hex_word(out, words[1]);
    *out++ = ',';
    return put_hex_word(out, words[2]);
}

char *put_text(char *out, std::string_view text)
{
    return std::copy(text.begin(), text.end(), out);
}

// Removes the next part and its ":" from the front of a name. Returns the part.
std::string_view take_part(std::string_view &name)
{
    name.remove_prefix(std::min(name.find_first_not_of(':'), name.size()));
    const std::string_view part = name.substr(0, name.find(':'));
    name.remove_prefix(std::min(part.size() + 1, name.size()));
    return part;
}

void print_tail(mac_item_names::tail &tail, const l2fm_edm_bd_t *bd, domain_part rule)
{
    static_assert(sizeof(tail.text) >= EDM_BD_NAME_SIZE + 2, "two commas, and the colon may be missing");
    static_assert(item_name_size >= mac_words_size + sizeof(tail.text), "a whole name fits");
    const name_parts parts = split_full_name(bd->bd_name, rule);
    char *out = tail.text;
    *out++ = ',';
    out = put_text(out, parts.group);
    *out++ = ',';
    *put_text(out, parts.domain) = '\0';
    tail.bd = bd;
}

} // namespace

name_parts split_full_name(std::string_view full_name, domain_part domain)
{
    const std::string_view group = take_part(full_name);
    return {group, domain == domain_part::to_end ? full_name : take_part(full_name)};
}

const char *print_mac_item_name(mac_item_names &names, const l2fm_edm_bd_t *bd, const l2fm_edm_mac_t *mac)
{
    mac_item_names::tail &tail = names.tails[bd->bridge_id % mac_item_names::tail_count];
    if (tail.bd != bd) {
        print_tail(tail, bd, names.rule);
    }
    // Copies the whole buffer, because the compiler copies a constant size without a call.
    std::memcpy(put_mac_words(names.text, mac->mac_addr), tail.text, sizeof(tail.text));
    return names.text;
}

bool has_start_key(const edm_list_req_t *request)
{
    return (request->flags & EDM_LIST_KEY_GIVEN) != 0;
}

bool read_mac_item_key(const edm_list_req_t *request, const key_limits &limits, mac_item_key &key)
{
    uint32_t words[mac_words];
    char group[key_text_size];
    char domain[key_text_size];
    static_assert(key_text_size == 101, "the format has the length of the texts without their final zeros");
    // A number that is too large keeps its low bits. The key then names an entry that does not exist.
    if (request->start_key == nullptr
        || std::sscanf(request->start_key, "%x,%x,%x,%100[^,],%100[^,]", // NOLINT(cert-err34-c)
                       &words[0], &words[1], &words[2], group, domain)
               != 5
        || std::strlen(group) > limits.group || std::strlen(domain) > limits.domain) {
        return false;
    }
    macaddr_lwordston(words, key.mac_addr);
    const int length = std::snprintf(key.full_name, sizeof(key.full_name), "%s:%s", group, domain);
    return length > 0;
}

bool read_vtep_item_key(const edm_list_req_t *request, vtep_item_key &key)
{
    uint32_t ignored;
    uint32_t address;
    if (request->start_key == nullptr
        || std::sscanf(request->start_key, "%x,%x,%x", // NOLINT(cert-err34-c)
                       &key.xcid, &ignored, &address)
               != 3) {
        return false;
    }
    address = htonl(address);
    std::memcpy(key.vtep_addr, &address, sizeof(key.vtep_addr));
    return true;
}

void print_vtep_item_name(char (&text)[item_name_size], const l2fm_edm_bp_t *bp, const l2fm_edm_vtep_t *vtep)
{
    uint32_t address;
    std::memcpy(&address, vtep->vtep_addr, sizeof(address));
    char *out = put_hex(text, bp->xcid);
    *out++ = ',';
    out = put_hex(out, bp->seg_info2);
    *out++ = ',';
    *put_hex(out, ntohl(address), vtep_addr_digits) = '\0';
}

} // namespace edm

size_t l2fib_hw_mac_to_item_key(const l2fm_edm_mac_t *mac, char *buffer, size_t size)
{
    if (size == 0) {
        return 0;
    }
    char text[edm::mac_words_size + edm::word_digits];
    const char *end = edm::put_mac_words(text, mac->mac_addr);
    const size_t length = std::min(static_cast<size_t>(end - text), size - 1);
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
    return length;
}
