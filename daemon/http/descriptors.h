// SPDX-License-Identifier: Apache-2.0

// The process's file descriptors: how many it may still open. The start is refused if they are too few: a daemon that
// runs out of them later neither accepts clients nor says why.
//
// Threads: the one that starts the daemon.
#pragma once

#include <cstdint>
#include <string>

namespace l2fibd {

// What the socket, the module and a forwarding plane open at their start: 15 with the kernel's plane, and some more for
// files that are read and closed again.
inline constexpr uint32_t start_descriptors = 24;

// Raises the soft limit to the hard one.
void raise_descriptor_limit();

// How many more descriptors the process may open; stops counting at `most`.
uint32_t free_descriptors(uint32_t most);

// Returns nothing if `needed` more descriptors can be opened, otherwise a text for the operator.
std::string check_descriptors(uint32_t needed);

} // namespace l2fibd
