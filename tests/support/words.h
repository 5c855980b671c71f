// SPDX-License-Identifier: Apache-2.0

// Values as text, for tests that compare texts.
#pragma once

#include <cstdint>
#include <iomanip>
#include <sstream>
#include <string>

namespace test {

// Separated by blanks.
template <typename... Values>
std::string words(const Values &...values)
{
    std::ostringstream out;
    const char *gap = "";
    ((out << gap << values, gap = " "), ...);
    return out.str();
}

inline std::string hex(const void *bytes, uint64_t length)
{
    std::ostringstream out;
    for (uint64_t at = 0; at < length; at++) {
        out << std::hex << std::setw(2) << std::setfill('0') << +static_cast<const uint8_t *>(bytes)[at];
    }
    return out.str();
}

} // namespace test
