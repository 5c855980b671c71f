// SPDX-License-Identifier: Apache-2.0

// The network namespace in which sockets are opened, and the capabilities that only their opening needs.
#pragma once

#include <functional>
#include <string>

#include "base/result.h"

namespace forwarding {

// Runs `work` in the network namespace `netns`: a path, or a name as `ip netns` lists it. `work` runs on a thread of
// its own, so that the caller stays in its namespace; the call waits for it. If `netns` is empty, `work` runs in the
// caller's namespace and on its thread. Returns the result of `work`, or the failure to enter the namespace.
base::result kernel_run_in(const std::string &netns, const std::function<base::result()> &work);

// Gives up CAP_NET_ADMIN and CAP_SYS_ADMIN for ever. Opening sockets may need them, reading does not. It holds for the
// calling thread and for threads that it starts later.
base::result kernel_give_up_capabilities();

} // namespace forwarding
