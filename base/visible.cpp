// SPDX-License-Identifier: Apache-2.0

#include "base/visible.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>

#include "base/text.h"

namespace base {

namespace {

struct range {
    uint32_t first;
    uint32_t last;
};

constexpr range harmful[] = {
    {0x00, 0x1f},     {0x7f, 0x9f},     // control characters
    {0x061c, 0x061c}, {0x200e, 0x200f}, // direction marks
    {0x2028, 0x202e}, {0x2066, 0x2069}, // line separators, direction overrides
};

constexpr uint32_t max_byte = 0xff; // the last code that "\xNN" can show

// The code point of one complete UTF-8 character, or the value of one byte. Each later byte carries six bits:
//
//      e2 82 ac    1110'0010 10'000010 10'101100    0010'000010'101100    U+20AC
uint32_t code_of(std::string_view character)
{
    const auto byte = [&](size_t at) { return static_cast<uint32_t>(static_cast<uint8_t>(character[at])); };
    uint32_t code = character.size() == 1 ? byte(0) : byte(0) & (0x7fu >> character.size());
    for (size_t i = 1; i < character.size(); i++) {
        code = code << utf8_continuation_bits | (byte(i) & utf8_continuation_mask);
    }
    return code;
}

bool is_harmful(uint32_t code)
{
    return std::ranges::any_of(harmful, [code](const range &row) { return code >= row.first && code <= row.last; });
}

std::string escaped(uint32_t code)
{
    char text[16];
    std::snprintf(text, sizeof(text), code <= max_byte ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(code));
    return text;
}

} // namespace

std::string visible(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        const std::string_view character = text.substr(0, std::max<size_t>(1, length));
        const uint32_t code = code_of(character);
        if (length == 0 || is_harmful(code)) {
            out += escaped(code);
        } else {
            out += character;
        }
        text.remove_prefix(character.size());
    }
    return out;
}

size_t width_of(std::string_view text)
{
    return static_cast<size_t>(std::ranges::count_if(text, [](char c) { return !is_utf8_continuation(c); }));
}

} // namespace base
