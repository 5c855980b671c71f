// SPDX-License-Identifier: Apache-2.0

// Counts the file descriptors that the process may still open. The daemon refuses to start with too few. Without them,
// a thread of the module would never serve, and the start would wait for it forever; or new clients would get no answer
// later.
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
