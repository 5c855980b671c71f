// SPDX-License-Identifier: Apache-2.0

// Starts the module on a plane that the caller made. Tests and programs with a plane of their own use it; the daemon
// uses start (forwarding.h). The threads are those of forwarding.h: only one thread calls start_on and stop.
#pragma once

#include <memory>

#include "forwarding/forwarding.h"

namespace forwarding {

// As start (forwarding.h), but takes over `source` and ignores the plane that `options` names. If it fails, `source` is
// destroyed, too.
base::result start_on(std::unique_ptr<plane> source, const options &options);

} // namespace forwarding
