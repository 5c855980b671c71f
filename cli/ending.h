// SPDX-License-Identifier: Apache-2.0

// How a command that shows something ends, once everything is printed.
//
// Threads: the main thread only.
#pragma once

#include "base/result.h"
#include "cli/output/output.h"
#include "cli/query/pages.h"

namespace l2fibctl {

// Writes what --strict held back, unless the answer may be incomplete. Throws a failure with the status `incomplete` if
// it may, and otherwise one with the status nothing_found if `found` is a failure, which says what was not found.
// `heeds_mark` is false if the daemon's mark changes neither output nor exit status.
void end_answer(const query_session &session, output &out, const base::result &found, bool heeds_mark = true);

// The failure of an incomplete answer, with the reason and with what was not found.
[[noreturn]] void fail_incomplete(const completeness_mark &worst, const base::result &found);

} // namespace l2fibctl
