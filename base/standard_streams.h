// SPDX-License-Identifier: Apache-2.0

// Standard input, output and error, which whoever starts a program may have closed, or connected to a full disk.
//
// Threads: the main one.
#pragma once

#include <string>

namespace base {

// To be called first. Opens what is closed as an empty file that cannot be written: otherwise a socket or a lock file
// would get its number, and what is printed would go there.
void hold_standard_streams();

// Writes what std::cout still holds. Returns nothing when all that was ever printed there has been written or the
// reader of a pipe has gone, otherwise a text for the operator. To be called right after the last of it was printed.
std::string finish_standard_output();

} // namespace base
