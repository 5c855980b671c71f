// SPDX-License-Identifier: Apache-2.0

#include "cli/failure.h"

#include <cstdio>

namespace l2fibctl {

void print_message(std::string_view message)
{
    while (!message.empty()) {
        const size_t end = message.find('\n');
        const std::string line(message.substr(0, end));
        std::fprintf(stderr, "l2fibctl: %s\n", line.c_str());
        message.remove_prefix(end == std::string_view::npos ? message.size() : end + 1);
    }
}

} // namespace l2fibctl
