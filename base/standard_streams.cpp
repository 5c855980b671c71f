// SPDX-License-Identifier: Apache-2.0

#include "base/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace base {

void hold_standard_streams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            open("/dev/null", O_RDONLY); // takes the lowest number that is free, which is this one
        }
    }
}

std::string finish_standard_output()
{
    std::cout.flush();
    if (std::cout.good() || errno == EPIPE) {
        return {};
    }
    return std::string("standard output: ") + std::strerror(errno); // NOLINT(concurrency-mt-unsafe)
}

} // namespace base
