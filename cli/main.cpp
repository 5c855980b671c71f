// SPDX-License-Identifier: Apache-2.0

// l2fibctl: shows what l2fibd knows. A thin client of its HTTP API (docs/api.md); docs/operations.md tells its use.

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "base/standard_streams.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/options.h"

namespace {

void complain(std::string_view lines)
{
    while (!lines.empty()) {
        const size_t end = lines.find('\n');
        const std::string line(lines.substr(0, end));
        std::fprintf(stderr, "l2fibctl: %s\n", line.c_str());
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
    }
}

} // namespace

int main(int argc, char **argv)
{
    base::hold_standard_streams();
    // A reader that has gone is noticed where its output is written.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        l2fibctl::options how;
        if (const auto status = l2fibctl::parse_options(argc, argv, how)) {
            return *status;
        }
        l2fibctl::run(how);
        return 0;
    } catch (const l2fibctl::failure &error) {
        complain(error.message);
        return static_cast<int>(error.how);
    } catch (const std::exception &error) {
        complain(error.what());
        return static_cast<int>(l2fibctl::ending::cut);
    }
}
