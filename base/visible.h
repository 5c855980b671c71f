// SPDX-License-Identifier: Apache-2.0

// Texts that come from elsewhere, made harmless for a terminal and for a log.
//
// Threads: pure functions, for any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace base {

// Control characters, characters that turn the writing direction or break a line, and bytes that are no UTF-8 become
// "\x1b" or "\u202e".
std::string visible(std::string_view text);

// In characters, each taken to be one column wide.
size_t width_of(std::string_view text);

} // namespace base
