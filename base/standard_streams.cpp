// SPDX-License-Identifier: Apache-2.0

#include "base/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>

namespace base {

void hold_standard_streams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            open("/dev/null", O_RDONLY); // takes the lowest free number, which is `descriptor`
        }
    }
}

result finish_standard_output()
{
    std::cout.flush();
    if (std::cout.good() || errno == EPIPE) {
        return success();
    }
    return system_failure(errno != 0 ? errno : EIO, "standard output");
}

} // namespace base
