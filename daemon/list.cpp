#include "daemon/list.h"

#include <algorithm>
#include <utility>

#include "daemon/text.h"

namespace l2fibd {

list_stream::list_stream(std::string_view name, std::unique_ptr<list_source> source, uint64_t limit)
    : list_name_(name)
    , items_(std::move(source))
    , left_(limit)
{}

void list_stream::write_next(std::string &text)
{
    json_writer json(text, has_items_);
    if (!has_begun_) {
        json.begin_object();
        json.begin_array(std::string("l2fib-mac:").append(list_name_));
        has_begun_ = true;
    }
    const auto most = static_cast<uint32_t>(std::min<uint64_t>(left_, page_items));
    const list_source::position at = items_->fetch(most, json);
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
        json.member("l2fib-mac:next-cursor", base64url_encode(at.key));
    }
    json.end_object();
}

} // namespace l2fibd
