// SPDX-License-Identifier: Apache-2.0

// How the client fails: a function throws a failure, and main prints its message and exits with its status.
//
//      throw failure(exit_status::nothing_found, "no port \"eth9\"; \"l2fibctl show port\" lists the ports");
//
// A function that has to go on after a failure returns a base::result or keeps the failure instead.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace l2fibctl {

// Scripts rely on these numbers, and --help lists them. A number never changes its meaning.
enum class exit_status : int {
    done = 0,
    nothing_found = 1,
    wrong_usage = 2,
    unreachable = 3,
    refused = 4,    // the daemon answered with an error
    cut = 5,        // the answer arrived incomplete or damaged, or standard output rejected it
    incomplete = 6, // the daemon marked its answer as limited or degraded
};

struct failure : std::runtime_error {
    // `message` is for the operator: one or more lines, safe on a terminal. If it is empty, main prints nothing.
    failure(exit_status exits_with, const std::string &message)
        : std::runtime_error(message)
        , status(exits_with)
    {}

    exit_status status;
};

// Standard output cannot be written, so no later attempt can succeed. With the status done and no message: the reader
// of the pipe has gone.
struct output_failure : failure {
    using failure::failure;
};

// Prints each line of the message to standard error, behind the program's name. Prints nothing for an empty message.
void print_message(std::string_view message);

} // namespace l2fibctl
