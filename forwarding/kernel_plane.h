// The forwarding tables of this machine's kernel: bridges and VXLAN devices.
#pragma once

#include <cstdint>
#include <memory>

#include "forwarding/plane.h"

namespace forwarding {

struct kernel_options {
    // Wanted size of the buffer that holds notifications, in bytes; more than the system's limit takes CAP_NET_ADMIN,
    // without which it gets what it can. 0: a size for 50,000 notifications.
    uint32_t receive_buffer = 0;
};

std::unique_ptr<plane> make_kernel_plane(const kernel_options &options);

} // namespace forwarding
