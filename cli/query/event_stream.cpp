// SPDX-License-Identifier: Apache-2.0

#include "cli/query/event_stream.h"

#include <utility>

namespace l2fibctl {

namespace {

constexpr size_t max_event_bytes = size_t(1024) * 1024; // a thousand times an event with the longest names

} // namespace

void event_stream::take_field(std::string_view name, std::string_view value)
{
    if (name == "id") {
        event_.id = value;
    } else if (name == "event") {
        event_.type = value;
    } else if (name == "data") {
        event_.data.append(has_data_ ? "\n" : "").append(value);
        has_data_ = true;
    }
}

void event_stream::end_line(const std::function<void(const stream_event &event)> &take)
{
    const std::string line = std::exchange(line_, {});
    const size_t colon = line.find(':');
    if (line.empty()) {
        last_id_ = event_.id;
        if (std::exchange(has_data_, false)) {
            take(event_);
        }
        event_ = {.id = event_.id};
    } else if (colon != 0) {
        std::string_view value = colon == std::string::npos ? "" : std::string_view(line).substr(colon + 1);
        value.remove_prefix(value.starts_with(' ') ? 1 : 0);
        take_field(std::string_view(line).substr(0, colon), value);
    }
}

bool event_stream::feed(std::string_view bytes, const std::function<void(const stream_event &event)> &take)
{
    while (!bytes.empty()) {
        if (std::exchange(is_after_return_, false) && bytes.front() == '\n') {
            bytes.remove_prefix(1);
            continue;
        }
        const size_t end = bytes.find_first_of("\r\n");
        line_.append(bytes.substr(0, end));
        if (line_.size() + event_.data.size() > max_event_bytes) {
            return false;
        }
        if (end == std::string_view::npos) {
            return true;
        }
        is_after_return_ = bytes[end] == '\r';
        bytes.remove_prefix(end + 1);
        end_line(take);
    }
    return true;
}

} // namespace l2fibctl
