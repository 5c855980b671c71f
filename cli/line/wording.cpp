// SPDX-License-Identifier: Apache-2.0

#include "cli/line/wording.h"

#include "base/visible.h"
#include "cli/failure.h"

namespace l2fibctl {

void fail_usage(const std::string &message)
{
    throw failure(exit_status::wrong_usage, message + "\n--help lists the commands and options");
}

std::string in_quotes(std::string_view text)
{
    return '"' + base::visible(text) + '"';
}

std::string listed(std::span<const std::string_view> words, std::string_view last_separator, std::string_view prefix)
{
    std::string text;
    for (size_t i = 0; i < words.size(); i++) {
        const bool is_last = i + 1 == words.size();
        text.append(i == 0 ? "" : is_last ? last_separator : ", ").append(prefix).append(words[i]);
    }
    return text;
}

} // namespace l2fibctl
