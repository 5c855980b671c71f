// SPDX-License-Identifier: Apache-2.0

// The keys of cursors: numbers behind a word that names the kind of list, such as "t 1 3 2199023255553 1". Only the
// list that made a key can read it.
//
// Threads: pure functions; any thread may call them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/text.h"
#include "daemon/api/lists/list.h"

namespace l2fibd {

[[noreturn]] inline void refuse_cursor(const std::string &start)
{
    throw wrong_cursor(cursor_of(start));
}

// Throws api_error unless `start` is a key of this kind with this many numbers.
template <size_t Count>
std::array<uint64_t, Count> numbers_of(const std::string &start, std::string_view kind)
{
    const auto fields = base::split(start, ' ');
    std::array<uint64_t, Count> numbers{};
    if (fields.size() != Count + 1 || fields.front() != kind) {
        refuse_cursor(start);
    }
    for (size_t at = 0; at < Count; at++) {
        const auto number = base::parse_number(fields[at + 1]);
        if (!number) {
            refuse_cursor(start);
        }
        numbers[at] = *number;
    }
    return numbers;
}

template <typename... Numbers>
std::string key_of(std::string_view kind, Numbers... numbers)
{
    return (std::string(kind) + ... + (" " + std::to_string(numbers)));
}

} // namespace l2fibd
