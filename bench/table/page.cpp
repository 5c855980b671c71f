// SPDX-License-Identifier: Apache-2.0

#include "bench/table/page.h"

#include <charconv>

#include "bench/table/contestant.h"

namespace bench {

std::string name_tail(uint32_t domain)
{
    std::string tail = "," + name_of(domain);
    tail[tail.find(':')] = ',';
    return tail;
}

void append_item(name_page &page, uint64_t address, std::string_view tail)
{
    constexpr uint32_t word_bits = 16;
    constexpr int hexadecimal = 16;
    char text[sizeof("ffff,ffff,ffff")];
    char *at = text;
    char *const end = text + sizeof(text);
    for (uint32_t shift = 2 * word_bits;; shift -= word_bits) {
        at = std::to_chars(at, end, static_cast<uint16_t>(address >> shift), hexadecimal).ptr;
        if (shift == 0) {
            break;
        }
        *at++ = ',';
    }
    append_name(page, {text, static_cast<size_t>(at - text)});
    page.text.append(tail);
}

uint64_t add_page(uint64_t sum, const name_page &page)
{
    // The length and the last name: the names between them follow from the walk.
    uint64_t number = 0;
    for (const char each : last_name(page)) {
        number = number * 31 + static_cast<unsigned char>(each);
    }
    return add_in_order(sum, number, static_cast<uint32_t>(page.text.size()));
}

} // namespace bench
