// SPDX-License-Identifier: Apache-2.0

// How the client ends. Scripts rely on these numbers, and --help lists them.
#pragma once

#include <string>

namespace l2fibctl {

enum class ending : int {
    done = 0,
    nothing_found = 1,
    wrong_usage = 2,
    unreachable = 3,
    refused = 4,    // the daemon answered with an error
    cut = 5,        // the answer did not arrive whole, or could not be written
    incomplete = 6, // the daemon marked its answer as limited or degraded
};

// Thrown to end the client. The message is for the operator and safe on a terminal; an empty one is not shown.
struct failure {
    ending how;
    std::string message;
};

} // namespace l2fibctl
