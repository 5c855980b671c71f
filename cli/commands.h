// SPDX-License-Identifier: Apache-2.0

// The commands: which resources each asks for, and how the items that come pass to the printer.
#pragma once

#include "cli/options.h"

namespace l2fibctl {

// Throws a failure when the command does not succeed.
void run(const options &how);

} // namespace l2fibctl
