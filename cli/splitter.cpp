#include "cli/splitter.h"

#include <algorithm>
#include <iterator>

namespace l2fibctl {

struct splitter::transition {
    place from;
    char byte;
    place to;
};

constexpr splitter::transition splitter::transitions[] = {
    {place::before, '{', place::members}, {place::members, ',', place::members}, {place::members, '}', place::after},
    {place::colon, ':', place::value},    {place::value, '[', place::list},      {place::list, ',', place::list},
    {place::list, ']', place::members},
};

namespace {

bool is_space(char c)
{
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

} // namespace

bool splitter::feed(std::string_view bytes)
{
    while (!bytes.empty() && !stopped_ && state_ != place::broken) {
        if (state_ == place::key || state_ == place::item) {
            collect(bytes);
        } else {
            between(bytes);
        }
    }
    return !stopped_ && state_ != place::broken;
}

// One byte between keys and items. The byte that begins one of these is left for collect.
void splitter::between(std::string_view &bytes)
{
    const char c = bytes.front();
    const auto *found =
        std::ranges::find_if(transitions, [&](const transition &row) { return row.from == state_ && row.byte == c; });
    if (found != std::end(transitions) || is_space(c)) {
        state_ = is_space(c) ? state_ : found->to;
        bytes.remove_prefix(1);
    } else if (state_ == place::members && c == '"') {
        state_ = place::key;
    } else if (state_ == place::value || state_ == place::list) {
        next_after_item_ = state_ == place::list ? place::list : place::members;
        state_ = place::item;
    } else {
        state_ = place::broken;
    }
}

void splitter::collect(std::string_view &bytes)
{
    size_t length = 0;
    bool ended = false;
    while (!ended && length < bytes.size()) {
        bool taken = true;
        ended = ends_text(bytes[length], taken);
        length += taken ? 1 : 0;
    }
    text_ += bytes.substr(0, length);
    bytes.remove_prefix(length);
    if (text_.size() > longest_item || (ended && text_.empty())) {
        state_ = place::broken;
    } else if (ended) {
        text_done();
    }
}

// `taken` becomes false for a byte that ends the text without belonging to it.
bool splitter::ends_text(char c, bool &taken)
{
    if (in_string_) {
        return ends_string(c) && nesting_ == 0;
    }
    if (c == '"') {
        in_string_ = true;
    } else if (c == '{' || c == '[') {
        nesting_++;
    } else if (nesting_ == 0) {
        taken = c != ',' && c != '}' && c != ']' && !is_space(c);
        return !taken;
    } else if (c == '}' || c == ']') {
        return --nesting_ == 0;
    }
    return false;
}

bool splitter::ends_string(char c)
{
    in_string_ = after_backslash_ || c != '"';
    after_backslash_ = !after_backslash_ && c == '\\';
    return !in_string_;
}

void splitter::text_done()
{
    if (state_ == place::key) {
        member_ = text_.substr(1, text_.size() - 2);
        state_ = place::colon;
    } else {
        state_ = next_after_item_;
        stopped_ = !sink_(member_, text_);
    }
    text_.clear();
}

} // namespace l2fibctl
