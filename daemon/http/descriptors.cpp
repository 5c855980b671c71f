// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/descriptors.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <cerrno>
#include <string>

namespace l2fibd {

namespace {

rlim_t descriptor_limit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

} // namespace

void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Asks the kernel about each number: that needs neither a descriptor nor a mounted /proc. If the limit was lowered,
// descriptors above it take no number below it.
uint32_t free_descriptors(uint32_t max)
{
    const rlim_t limit = descriptor_limit();
    uint32_t count = 0;
    for (int number = 0; static_cast<rlim_t>(number) < limit && count < max; number++) {
        count += fcntl(number, F_GETFD) < 0 ? 1u : 0u;
    }
    return count;
}

base::result check_descriptors(uint32_t needed)
{
    const uint32_t found = free_descriptors(needed);
    if (found >= needed) {
        return base::success();
    }
    const rlim_t limit = descriptor_limit();
    return base::failure(EMFILE, "the limit of open files is " + std::to_string(limit) + ", expected at least "
                                     + std::to_string(limit + needed - found)
                                     + ": raise it (ulimit -n, or the service's LimitNOFILE)");
}

} // namespace l2fibd
