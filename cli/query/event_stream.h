// SPDX-License-Identifier: Apache-2.0

// Reads a stream of server-sent events (text/event-stream), piece by piece as it arrives:
//
//      id: 1732380000-17
//      event: moved
//      data: {"id":"1732380000-17","event":"moved",...}
//                                                          an empty line ends the event
//      : a line that begins with a colon is a comment
//
// Threads: plain values.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace l2fibctl {

struct stream_event {
    std::string id = {}; // the latest one in the stream, so an event without an id has that of the one before
    std::string type = {};
    std::string data = {}; // its lines, joined by '\n'
};

class event_stream {
public:
    // Takes the bytes that arrived and passes each event that they end to `take`. Returns false if a line or an event
    // is longer than any event of the daemon: then the bytes are not such a stream.
    bool feed(std::string_view bytes, const std::function<void(const stream_event &event)> &take);

    // The id behind which a later request continues. An event without data, which is not passed on, may change it.
    const std::string &last_id() const { return last_id_; }

private:
    void end_line(const std::function<void(const stream_event &event)> &take);
    void take_field(std::string_view name, std::string_view value);

    std::string line_;
    stream_event event_;
    std::string last_id_;
    bool has_data_ = false;
    bool is_after_return_ = false; // the next byte may be the '\n' of a "\r\n"
};

} // namespace l2fibctl
