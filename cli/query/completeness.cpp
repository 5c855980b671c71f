// SPDX-License-Identifier: Apache-2.0

#include "cli/query/completeness.h"

#include <algorithm>
#include <iterator>

#include "base/visible.h"

namespace l2fibctl {

namespace {

constexpr std::string_view words[] = {"whole", "limited", "degraded"}; // in the order of the enumeration

} // namespace

void completeness_mark::add(const completeness_mark &other)
{
    if (other.state > state || (other.state == state && reason.empty())) {
        *this = other;
    }
}

std::string completeness_mark::text() const
{
    const std::string word(words[static_cast<size_t>(state)]);
    return "the answer may be incomplete (" + word + ")" + (reason.empty() ? "" : ": " + base::visible(reason));
}

completeness completeness_of(std::string_view word)
{
    const auto *found = std::ranges::find(words, word);
    if (word.empty()) {
        return completeness::whole;
    }
    return found != std::end(words) ? static_cast<completeness>(found - std::begin(words)) : completeness::degraded;
}

} // namespace l2fibctl
