// SPDX-License-Identifier: Apache-2.0

// l2fibctl prints the tables of a running l2fibd. It is a thin client of the daemon's HTTP API (docs/api.md);
// docs/client.md describes its use.

#include <csignal>
#include <exception>

#include "base/standard_streams.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/line/parser.h"

int main(int argc, char **argv)
{
    using l2fibctl::exit_status;

    base::hold_standard_streams();
    std::signal(SIGPIPE, SIG_IGN); // class output handles EPIPE
    exit_status status = exit_status::done;
    try {
        if (const auto options = l2fibctl::parse_options(argc, argv)) {
            l2fibctl::run(*options);
        }
    } catch (const l2fibctl::failure &error) {
        l2fibctl::print_message(error.what());
        status = error.status;
    } catch (const std::exception &error) {
        l2fibctl::print_message(error.what());
        status = exit_status::cut;
    }
    return static_cast<int>(status);
}
