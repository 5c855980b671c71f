// Cuts a JSON answer into its items while it arrives, so that a table of any length passes through without being held.
//
// An answer is one object. Each of its members is an array, whose elements are handed over one at a time, or any other
// value, which is handed over whole:
//
//     {"l2fib-mac:mac-entry": [{...}, {...}], "l2fib-mac:next-cursor": "MTIz"}
//                              item 1 item 2                           item 3
//
// Only what separates items is looked at here; whether an item is JSON is for whoever parses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace l2fibctl {

class splitter {
public:
    // Takes an item with the name of the member that it belongs to; returns false to get no more. Both texts are valid
    // during the call.
    using item_sink = std::function<bool(std::string_view member, std::string_view item)>;

    static constexpr size_t longest_item = size_t(1) << 20;

    explicit splitter(item_sink to)
        : sink_(std::move(to))
    {}

    // Takes the next bytes. False when no more are wanted: the sink has had enough, or this is no such answer.
    bool feed(std::string_view bytes);

    // Whether the answer has been seen up to its last bracket.
    bool complete() const { return state_ == place::after; }

private:
    enum class place : uint8_t { before, members, key, colon, value, list, item, after, broken };
    struct transition;
    static const transition transitions[];

    void between(std::string_view &bytes);
    void collect(std::string_view &bytes);
    bool ends_text(char c, bool &taken);
    bool ends_string(char c);
    void text_done();

    item_sink sink_;
    place state_ = place::before;
    place next_after_item_ = place::members;
    std::string member_;
    std::string text_; // what has arrived of a key or an item
    size_t nesting_ = 0;
    bool in_string_ = false;
    bool after_backslash_ = false;
    bool stopped_ = false;
};

} // namespace l2fibctl
