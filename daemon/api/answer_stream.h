// SPDX-License-Identifier: Apache-2.0

// The part of an answer that the daemon makes while it sends it: the later pages of a list (lists/list.h), or the
// events of an event stream (history/event_stream.h). Only one part is in memory.
//
// Threads: a stream belongs to the thread of its request.
#pragma once

#include <string>

namespace l2fibd {

class answer_stream {
public:
    answer_stream() = default;
    answer_stream(const answer_stream &) = delete;
    answer_stream &operator=(const answer_stream &) = delete;
    virtual ~answer_stream() = default;

    // Replaces `text` by the next part, which may be empty. May wait.
    virtual void write_next(std::string &text) = 0;

    // True when no part follows.
    virtual bool finished() const = 0;

    // Why a finished answer was cut, for the log. Empty if it was not cut.
    virtual const std::string &failure() const = 0;
};

} // namespace l2fibd
