#include "daemon/list.h"

#include <algorithm>
#include <utility>

#include "daemon/text.h"

namespace l2fibd {

list_stream::list_stream(std::string_view name, std::unique_ptr<list_source> source, uint64_t limit)
    : list_name(name)
    , items(std::move(source))
    , left(limit)
{}

void list_stream::write_next(std::string &text)
{
    json_writer json(text, has_items);
    if (!has_begun) {
        json.begin_object();
        json.begin_array(std::string("l2fib-mac:").append(list_name));
        has_begun = true;
    }
    const auto most = static_cast<uint32_t>(std::min<uint64_t>(left, page_items));
    const list_source::position at = items->fetch(most, json);
    has_items = has_items || at.count != 0;
    left -= at.count;
    if (!at.more || left == 0) {
        write_end(json, at);
        is_finished = true;
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
