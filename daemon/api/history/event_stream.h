// SPDX-License-Identifier: Apache-2.0

// The stream of events that a client watches: what the table learned, moved, aged, removed and changed. The text is
// that of server-sent events:
//
//      event: learned
//      id: 3735928559-17
//      data: {"id":"3735928559-17","time":"2026-11-23T11:15:06.123Z","event":"learned","domain":"lab:br0",...}
//
// A stream is a position among the events that the feeder keeps (forwarding/feeder/answers/history.h). A client that
// reads slowly costs nothing: its position stays, and an event "missed" counts what was forgotten meanwhile.
//
// Ids. An id is the process's mark and the event's number. It names the last event that the client has seen, so a
// client that sends it as Last-Event-ID continues behind it. An id of another process gives "missed".
//
// Threads: a stream belongs to the thread of its request, which waits in it for the next event.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "daemon/api/answer_stream.h"
#include "daemon/api/database.h"
#include "daemon/api/history/history_filter.h"

namespace l2fibd {

// A stream with nothing to show sends a comment this often. So a client that went away is noticed, and a client can
// tell a quiet daemon from a dead one.
inline constexpr auto keep_alive_interval = std::chrono::seconds(15);

class event_stream final : public answer_stream {
public:
    // Continues behind the event that `last_event_id` names, or begins with the next event if it is null. Throws
    // api_error if the text is no id of an event. The stream ends when `resyncs` is given up, or when `has_client_left`
    // returns true.
    event_stream(const char *last_event_id, filters given, const resync_requester &resyncs,
                 std::function<bool()> has_client_left);

    // Writes the event "begin" first. Later calls wait for an event that passes the filter, at most the keep-alive
    // interval.
    void write_next(std::string &text) override;

    bool finished() const override { return is_finished_; }
    const std::string &failure() const override { return failure_; }

private:
    using clock = std::chrono::steady_clock;

    void write_begin(std::string &text);
    void write_events(std::string &text);
    void write_keep_alive(std::string &text);
    bool await_event(clock::time_point until);
    bool has_left_by_now();

    filters given_;
    const resync_requester &resyncs_;
    std::function<bool()> has_client_left_;
    uint64_t next_;              // number of the first event that was not read yet
    uint64_t shown_ = 0;         // number in the latest id that was sent
    bool was_restarted_ = false; // the client's id is of another process
    bool has_begun_ = false;
    bool is_finished_ = false;
    clock::time_point next_read_ = {};
    clock::time_point next_look_ = {}; // at the client
    std::string failure_ = {};
};

} // namespace l2fibd
