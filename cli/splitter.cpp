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
    while (!bytes.empty() && !stopped && state != place::broken) {
        if (state == place::key || state == place::item) {
            collect(bytes);
        } else {
            between(bytes);
        }
    }
    return !stopped && state != place::broken;
}

// One byte between keys and items. The byte that begins one of these is left for collect.
void splitter::between(std::string_view &bytes)
{
    const char c = bytes.front();
    const auto *found =
        std::ranges::find_if(transitions, [&](const transition &row) { return row.from == state && row.byte == c; });
    if (found != std::end(transitions) || is_space(c)) {
        state = is_space(c) ? state : found->to;
        bytes.remove_prefix(1);
    } else if (state == place::members && c == '"') {
        state = place::key;
    } else if (state == place::value || state == place::list) {
        next_after_item = state == place::list ? place::list : place::members;
        state = place::item;
    } else {
        state = place::broken;
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
    text += bytes.substr(0, length);
    bytes.remove_prefix(length);
    if (text.size() > longest_item || (ended && text.empty())) {
        state = place::broken;
    } else if (ended) {
        text_done();
    }
}

// `taken` becomes false for a byte that ends the text without belonging to it.
bool splitter::ends_text(char c, bool &taken)
{
    if (in_string) {
        return ends_string(c) && nesting == 0;
    }
    if (c == '"') {
        in_string = true;
    } else if (c == '{' || c == '[') {
        nesting++;
    } else if (nesting == 0) {
        taken = c != ',' && c != '}' && c != ']' && !is_space(c);
        return !taken;
    } else if (c == '}' || c == ']') {
        return --nesting == 0;
    }
    return false;
}

bool splitter::ends_string(char c)
{
    in_string = after_backslash || c != '"';
    after_backslash = !after_backslash && c == '\\';
    return !in_string;
}

void splitter::text_done()
{
    if (state == place::key) {
        member = text.substr(1, text.size() - 2);
        state = place::colon;
    } else {
        state = next_after_item;
        stopped = !sink(member, text);
    }
    text.clear();
}

} // namespace l2fibctl
