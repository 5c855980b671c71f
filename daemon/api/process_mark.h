// SPDX-License-Identifier: Apache-2.0

// Marks what means nothing in another process: cursors of lists, because they hold numbers of objects, and ids of
// events.
//
// Threads: any.
#pragma once

#include <string>

namespace l2fibd {

// A random number as a text. A process that starts later has another one.
const std::string &process_mark();

} // namespace l2fibd
