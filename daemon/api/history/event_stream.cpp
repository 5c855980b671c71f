// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/history/event_stream.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "daemon/api/history/event_text.h"
#include "daemon/api/json/api_error.h"
#include "forwarding/feeder/answers/history.h"

namespace l2fibd {

namespace {

// Events of one part. Their text takes at most about 30 KB.
constexpr size_t max_events = 64;

// A stream that has read everything waits at least this long before it reads again. So many changes in a short time
// wake each stream a few times only, and the cache thread does not wake all of them for each change.
constexpr auto read_interval = std::chrono::milliseconds(20);

// How often a stream looks whether its client has left.
constexpr auto look_interval = std::chrono::seconds(1);

constexpr std::string_view slow_reader = "this reader was too slow";
constexpr std::string_view restarted = "the daemon was restarted";

} // namespace

event_stream::event_stream(const char *last_event_id, filters given, const resync_requester &resyncs,
                           std::function<bool()> has_client_left)
    : given_(std::move(given))
    , resyncs_(resyncs)
    , has_client_left_(std::move(has_client_left))
    , next_(forwarding::newest_event() + 1)
{
    if (last_event_id != nullptr) {
        const auto last = number_of_event(last_event_id);
        if (last && *last >= next_) {
            throw unexpected("Last-Event-ID", last_event_id, "an id of an event that has happened");
        }
        was_restarted_ = !last.has_value();
        next_ = last ? *last + 1 : next_;
    }
}

void event_stream::write_next(std::string &text)
{
    text.clear();
    if (!has_begun_) {
        write_begin(text);
    }
    const auto end = clock::now() + keep_alive_interval;
    while (text.empty() && !is_finished_) {
        if (resyncs_.is_given_up()) {
            text = ": the daemon is stopping\n\n";
            is_finished_ = true;
        } else if (clock::now() >= end) {
            write_keep_alive(text);
        } else if (await_event(end)) {
            write_events(text);
        }
        is_finished_ = is_finished_ || has_left_by_now();
    }
}

// Looks at the client, if that is due.
bool event_stream::has_left_by_now()
{
    if (clock::now() < next_look_) {
        return false;
    }
    next_look_ = clock::now() + look_interval;
    return has_client_left_();
}

void event_stream::write_begin(std::string &text)
{
    has_begun_ = true;
    shown_ = next_ - 1;
    append_begin(text, shown_);
    if (was_restarted_) {
        append_missed(text, shown_, 0, restarted);
    }
}

// Waits for the next event, at most until the client is looked at. True if there is one.
bool event_stream::await_event(clock::time_point until)
{
    std::this_thread::sleep_until(next_read_);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now());
    return forwarding::await_event(next_, std::clamp<std::chrono::milliseconds>(left, {}, look_interval));
}

void event_stream::write_events(std::string &text)
{
    const forwarding::event_batch batch = forwarding::read_events(next_, max_events);
    if (batch.missed != 0) {
        shown_ = next_ + batch.missed - 1;
        append_missed(text, shown_, batch.missed, slow_reader);
    }
    for (const forwarding::change_event &event : batch.events) {
        if (passes_event(given_, event)) {
            append_event(text, event);
            shown_ = event.number;
        }
    }
    next_ = batch.next;
    next_read_ = batch.events.size() < max_events ? clock::now() + read_interval : clock::time_point();
}

// If the filter rejected all events since the latest id, the client gets the newest one. Otherwise it would return with
// an id that is no longer kept, and would seem to have missed events that it did not ask for.
void event_stream::write_keep_alive(std::string &text)
{
    text = ": nothing new\n";
    if (shown_ != next_ - 1) {
        shown_ = next_ - 1;
        append_position(text, shown_);
    } else {
        text += '\n';
    }
}

} // namespace l2fibd
