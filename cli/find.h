// SPDX-License-Identifier: Apache-2.0

// The command `find`: where an address is, since when, and where it was before.
//
// Threads: the main thread only.
#pragma once

#include "cli/query/pages.h"

namespace l2fibctl {

// Prints the places of the command's address. Throws a failure with the status nothing_found if neither the table nor
// the history has the address, and with the status incomplete if the answer may be incomplete.
void find_address(query_session &session);

} // namespace l2fibctl
