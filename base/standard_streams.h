// SPDX-License-Identifier: Apache-2.0

// Standard input, output and error of a program whose starter may have closed them or connected them to a full disk.
//
//      int main()
//      {
//          base::hold_standard_streams();
//          std::cout << "help text\n";
//          const base::result written = base::finish_standard_output();
//          ...
//
// Threads: the main thread only.
#pragma once

#include "base/result.h"

namespace base {

// Opens each closed standard stream as an empty file that cannot be written. Otherwise the next socket or lock file
// would get its number, and the program's output would go there. Call this before anything opens a file.
void hold_standard_streams();

// Writes what std::cout still buffers. Succeeds if everything that the program printed there has been written, or if
// the reader of a pipe has closed it. Call this right after the last output: errno has to be that of the last write.
result finish_standard_output();

} // namespace base
