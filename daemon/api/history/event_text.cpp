// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/history/event_text.h"

#include "base/text.h"
#include "daemon/api/history/history_filter.h"
#include "daemon/api/history/history_records.h"
#include "daemon/api/json/api_error.h"
#include "daemon/api/json/json_writer.h"
#include "daemon/api/process_mark.h"

namespace l2fibd {

namespace {

using forwarding::change_event;
using forwarding::change_kind;

std::string id_of(uint64_t number)
{
    return process_mark() + "-" + std::to_string(number);
}

// Appends an event whose data `write` ends.
template <typename Write>
void append(std::string &text, std::string_view name, uint64_t number, int64_t time_ms, Write write)
{
    const std::string id = id_of(number);
    json_writer json;
    json.begin_object();
    json.member("id", id);
    write_time_ms(json, "time", time_ms);
    json.member("event", name);
    write(json);
    json.end_object();
    text.append("event: ").append(name).append("\nid: ").append(id);
    text.append("\ndata: ").append(json.take()).append("\n\n");
}

} // namespace

std::optional<uint64_t> number_of_event(const std::string &id)
{
    const size_t dash = id.find('-');
    const auto mark = base::parse_number(std::string_view(id).substr(0, dash));
    const auto number =
        dash != std::string::npos ? base::parse_number(std::string_view(id).substr(dash + 1)) : std::nullopt;
    if (!mark || !number) {
        throw unexpected("Last-Event-ID", id, "the id of an event of this stream");
    }
    return std::string_view(id).substr(0, dash) == process_mark() ? number : std::nullopt;
}

void append_begin(std::string &text, uint64_t number)
{
    append(text, "begin", number, current_time_ms(), [](json_writer &json) {
        const forwarding::completeness_watch watch;
        json.member("completeness", forwarding::text_of(watch.worst()));
        if (watch.worst() != forwarding::completeness::whole) {
            json.member("completeness-reason", watch.reason());
        }
    });
}

void append_missed(std::string &text, uint64_t number, uint64_t count, std::string_view reason)
{
    append(text, "missed", number, current_time_ms(), [&](json_writer &json) {
        if (count != 0) {
            json.member64("count", count);
        }
        json.member("reason", reason);
    });
}

void append_event(std::string &text, const change_event &event)
{
    if (event.kind == change_kind::lost) {
        append_missed(text, event.number, event.lost, "the forwarding plane lost changes");
        return;
    }
    append(text, forwarding::text_of(event.kind), event.number, event.time_ms,
           [&](json_writer &json) { write_change(json, event); });
}

void append_position(std::string &text, uint64_t number)
{
    text.append("id: ").append(id_of(number)).append("\n\n");
}

} // namespace l2fibd
