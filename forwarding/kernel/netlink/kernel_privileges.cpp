// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/netlink/kernel_privileges.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace forwarding {

namespace {

constexpr const char *named_namespaces = "/run/netns/"; // where `ip netns add` keeps them

// Both are in the first word of a capability set.
constexpr uint32_t opening_capabilities = (1U << CAP_NET_ADMIN) | (1U << CAP_SYS_ADMIN);

base::result enter_namespace(const std::string &netns)
{
    const std::string path = netns.find('/') == netns.npos ? named_namespaces + netns : netns;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return base::system_failure(errno, "cannot open the network namespace " + path);
    }
    const int error = setns(fd, CLONE_NEWNET) == 0 ? 0 : errno;
    close(fd);
    return error == 0 ? base::success() : base::system_failure(error, "cannot enter the network namespace " + path);
}

} // namespace

base::result kernel_run_in(const std::string &netns, const std::function<base::result()> &work)
{
    if (netns.empty()) {
        return work();
    }
    base::result result;
    std::thread([&] {
        result = enter_namespace(netns);
        if (result.ok()) {
            result = work();
        }
    }).join();
    return result;
}

base::result kernel_give_up_capabilities()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return base::system_failure(errno, "cannot read the capabilities");
    }
    data[0].effective &= ~opening_capabilities;
    data[0].permitted &= ~opening_capabilities;
    data[0].inheritable &= ~opening_capabilities;
    if (syscall(SYS_capset, &header, data) != 0) {
        return base::system_failure(errno, "cannot give up the capabilities CAP_NET_ADMIN and CAP_SYS_ADMIN");
    }
    return base::success();
}

} // namespace forwarding
