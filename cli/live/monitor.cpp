// SPDX-License-Identifier: Apache-2.0

#include "cli/live/monitor.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "base/visible.h"
#include "cli/live/signals.h"
#include "cli/output/output.h"
#include "cli/output/printer.h"
#include "cli/query/event_stream.h"
#include "cli/query/places.h"
#include "cli/query/resources.h"

namespace l2fibctl {

namespace {

using std::chrono::milliseconds;

// The daemon sends a comment every 15 seconds. A stream that is silent for three times as long has lost its daemon.
constexpr auto max_silence = std::chrono::seconds(45);
constexpr unsigned success_status = 200;
constexpr auto first_pause = milliseconds(100);
constexpr auto max_pause = milliseconds(5000);

class event_monitor {
public:
    event_monitor(query_session &session, std::string path)
        : options_(session.options)
        , path_(std::move(path))
        , last_id_(options_.since)
        , line_(session.progress_line)
        , daemon_(options_.socket, std::max(std::chrono::seconds(options_.timeout_seconds), max_silence))
        , out_(line_, false, "")
        , printer_(options_.shown_as, events, look_of(options_), out_)
    {
        line_.stop();
        line_.at_each_tick(stop_signals::check);
    }
    ~event_monitor() { line_.at_each_tick({}); }
    event_monitor(const event_monitor &) = delete;
    event_monitor &operator=(const event_monitor &) = delete;

    // Returns once --limit is reached.
    void run()
    {
        while (!is_full()) {
            const std::optional<failure> problem = follow();
            if (problem && !has_begun_) {
                throw failure(*problem);
            }
            if (problem) {
                report_pause(problem->what());
            }
        }
    }

    bool has_missed() const { return has_missed_; }

private:
    bool is_full() const { return printer_.count() == options_.limit; }

    // Returns nothing once --limit is reached, and otherwise why the stream has ended. Another connection may succeed.
    std::optional<failure> follow()
    {
        event_stream stream;
        answer reply;
        try {
            daemon_.follow(
                {.path = path_, .after_event = last_id_}, reply, [this] { line_.tick(); },
                [&](std::string_view piece) { return take(stream, piece); });
        } catch (const failure &error) {
            if (error.status != exit_status::unreachable) {
                throw;
            }
            return error;
        }
        if (is_full()) {
            return std::nullopt;
        }
        return reply.status == success_status ? failure(exit_status::cut, "l2fibd ended the stream of events")
                                              : failure_in(reply);
    }

    // Returns false to end the stream.
    bool take(event_stream &stream, std::string_view piece)
    {
        const bool is_stream = stream.feed(piece, [this](const stream_event &event) {
            if (!is_full()) {
                print(event);
                last_id_ = event.id;
            }
        });
        if (!is_stream) {
            fail_damaged();
        }
        last_id_ = is_full() || stream.last_id().empty() ? last_id_ : stream.last_id();
        out_.flush();
        return !is_full();
    }

    void print(const stream_event &event)
    {
        const json_value item = document_.parse(event.data);
        if (!item || !item.is_object()) {
            fail_damaged();
        }
        if (event.type == "begin") {
            begin(item);
        } else if (event.type == "missed") {
            print_missed(item);
        } else if (options_.shown_as == form::text || !options_.columns.empty()) {
            const std::string placed = with_places(item);
            printer_.item(document_.parse(placed));
        } else {
            printer_.ready_item(json_text(item));
        }
    }

    void begin(json_value item)
    {
        if (has_failed_) {
            print_message("connected to l2fibd again");
        }
        has_begun_ = true;
        has_failed_ = false;
        pause_ = first_pause;
        if (options_.shown_as != form::text) {
            put_line(json_text(item));
            return;
        }
        const completeness_mark mark = {completeness_of(text_of(item, "completeness")),
                                        std::string(text_of(item, "completeness-reason"))};
        if (mark.state != completeness::whole) {
            print_message(mark.text());
        }
    }

    void print_missed(json_value item)
    {
        has_missed_ = true;
        const std::string count(text_of(item, "count"));
        const std::string text = "missed " + (count.empty() ? "" : count + " ") + (count == "1" ? "event" : "events")
                                 + ": " + base::visible(text_of(item, "reason"));
        put_line(options_.shown_as == form::text ? text : json_text(item));
    }

    // A line that --limit does not count.
    void put_line(std::string_view text)
    {
        out_.pending().put(text);
        out_.pending().put('\n');
    }

    void report_pause(const std::string &problem)
    {
        if (!std::exchange(has_failed_, true)) {
            print_message(problem + "; trying again");
        }
        stop_signals::pause(pause_);
        pause_ = std::min(2 * pause_, max_pause);
    }

    const client_options &options_;
    const std::string path_;
    std::string last_id_;
    progress &line_;
    connection daemon_;
    output out_;
    item_printer printer_;
    json_document document_;
    bool has_begun_ = false;  // the first connection succeeded
    bool has_failed_ = false; // the latest connection
    bool has_missed_ = false;
    milliseconds pause_ = first_pause;
};

} // namespace

void monitor(query_session &session, const std::string &path)
{
    const stop_signals signals;
    event_monitor events_to_print(session, path);
    try {
        events_to_print.run();
    } catch (const stopped &) {
        // The operator ended it.
    }
    if (events_to_print.has_missed()) {
        throw failure(exit_status::incomplete, "events are missing: a line \"missed\" stands in the place of them");
    }
}

} // namespace l2fibctl
