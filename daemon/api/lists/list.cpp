// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/lists/list.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "daemon/api/process_mark.h"

namespace l2fibd {

std::string cursor_of(const std::string &key)
{
    return base::base64url_encode(process_mark() + " " + key);
}

std::string key_of_cursor(const std::string &text)
{
    const auto whole = base::base64url_decode(text);
    const size_t space = whole ? whole->find(' ') : std::string::npos;
    if (space == std::string::npos || whole->find('\0') != std::string::npos) {
        throw wrong_cursor(text);
    }
    if (whole->substr(0, space) != process_mark()) {
        throw api_error{
            http_status::gone, error_tag::data_missing,
            "cursor \"" + text
                + "\": the daemon was restarted after this list began; begin the list again without a cursor"};
    }
    return whole->substr(space + 1);
}

api_error wrong_cursor(const std::string &text)
{
    return unexpected("cursor", text, "a next-cursor of this list");
}

list_stream::list_stream(std::string_view name, std::unique_ptr<list_source> source, uint64_t limit,
                         const resync_requester &resyncs)
    : list_name_(name)
    , source_(std::move(source))
    , resyncs_(resyncs)
    , left_(limit)
{}

void list_stream::write_next(std::string &text)
{
    json_writer json(std::move(text), has_items_);
    if (has_begun_) {
        write_page_or_failure(json);
    } else {
        json.begin_object();
        json.begin_array(std::string("l2fib-mac:").append(list_name_));
        has_begun_ = true;
        write_page(json);
    }
    text = json.take();
}

void list_stream::write_page_or_failure(json_writer &json)
{
    try {
        write_page(json);
    } catch (const api_error &error) {
        write_failure(json, error);
    }
}

void list_stream::write_page(json_writer &json)
{
    if (resyncs_.is_given_up()) {
        throw daemon_ends("list " + std::string(list_name_));
    }
    const auto max_items = static_cast<uint32_t>(std::min<uint64_t>(left_, max_page_items));
    const list_source::position at = source_->fetch(max_items, json);
    has_items_ = has_items_ || at.count != 0;
    left_ -= at.count;
    if (!at.more || left_ == 0) {
        write_end(json, at);
        is_finished_ = true;
    }
}

void list_stream::write_end(json_writer &json, const list_source::position &at) const
{
    json.end_array();
    if (at.more) {
        json.member("l2fib-mac:next-cursor", cursor_of(at.key));
    }
    source_->write_members(json);
    write_completeness(json, watch_);
    json.end_object();
}

void list_stream::write_failure(json_writer &json, const api_error &error)
{
    json.end_array();
    write_errors(json, error);
    failure_ = error.message;
    is_finished_ = true;
}

void write_completeness(json_writer &json, const forwarding::completeness_watch &watch)
{
    const forwarding::completeness worst = watch.worst();
    json.member("l2fib-mac:completeness", forwarding::text_of(worst));
    if (worst != forwarding::completeness::whole) {
        json.member("l2fib-mac:completeness-reason", watch.reason());
    }
}

} // namespace l2fibd
