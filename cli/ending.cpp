// SPDX-License-Identifier: Apache-2.0

#include "cli/ending.h"

#include "cli/failure.h"

namespace l2fibctl {

void fail_incomplete(const completeness_mark &worst, const base::result &found)
{
    throw failure(exit_status::incomplete, (found.ok() ? "" : found.text + "; ") + worst.text());
}

void end_answer(const query_session &session, output &out, const base::result &found, bool heeds_mark)
{
    const bool is_whole = session.worst.state == completeness::whole || !heeds_mark;
    if (is_whole || !session.options.strict) {
        out.release();
    }
    out.finish();
    if (!is_whole) {
        fail_incomplete(session.worst, found);
    }
    if (!found.ok()) {
        throw failure(exit_status::nothing_found, found.text);
    }
}

} // namespace l2fibctl
