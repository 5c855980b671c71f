// SPDX-License-Identifier: Apache-2.0

// The process's file descriptors: how many it may still open. The daemon refuses to start if they are too few, because
// a daemon that runs out of them later neither accepts clients nor reports why.
//
// Threads: the one that starts the daemon.
#pragma once

#include <cstdint>

#include "base/result.h"

namespace l2fibd {

// Descriptors that the socket, the module and a forwarding plane open at their start. The kernel plane needs 15; the
// rest is for files that are read and closed again.
inline constexpr uint32_t start_descriptors = 24;

// Raises the soft limit of open files to the hard one.
void raise_descriptor_limit();

// The number of descriptors that the process may still open, counted up to `max`.
uint32_t free_descriptors(uint32_t max);

// Fails with EMFILE unless the process may open `needed` more descriptors.
base::result check_descriptors(uint32_t needed);

} // namespace l2fibd
