// SPDX-License-Identifier: Apache-2.0

// Makes text from other programs harmless for a terminal and for a log.
//
//      base::visible("eth\x1b[31m")    "eth\\x1b[31m"
//      base::visible("a\xff")          "a\\xff"
//
// Threads: pure functions; any thread may call them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace base {

// Replaces each control character, each character that changes the writing direction or breaks a line, and each byte
// that is not valid UTF-8 by its number, such as "\x1b" or "\u202e".
std::string visible(std::string_view text);

// The width of a text in characters. Counts one column for each character.
size_t width_of(std::string_view text);

} // namespace base
