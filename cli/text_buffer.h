// SPDX-License-Identifier: Apache-2.0

// Text that grows at its end: a row is written straight into the buffer that goes to standard output.
//
//      text_buffer row;
//      row.put("eth1");
//      row.put(' ');
//      row.text()                  "eth1 "
//
// A table of a million rows has ten million cells, so the functions are inline, except for what happens rarely.
//
// Threads: a plain value.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

namespace l2fibctl {

class text_buffer {
public:
    size_t size() const { return size_; }
    std::string_view text() const { return {bytes_.get(), size_}; }
    std::string_view text_from(size_t start) const { return text().substr(start); }

    // Returns room for `count` characters at the end. `end_at` then says where the text ends.
    char *room_for(size_t count)
    {
        if (capacity_ - size_ < count) {
            grow(count);
        }
        return bytes_.get() + size_;
    }
    void end_at(const char *end) { size_ = static_cast<size_t>(end - bytes_.get()); }

    void put(char c)
    {
        *room_for(1) = c;
        size_++;
    }

    void put(std::string_view text) { end_at(std::copy(text.begin(), text.end(), room_for(text.size()))); }

    void put_spaces(size_t count)
    {
        char *to = room_for(std::max(count, short_fill));
        std::memset(to, ' ', short_fill);
        if (count > short_fill) {
            std::memset(to, ' ', count);
        }
        size_ += count;
    }

    // Moves the text behind `start` to the right and puts spaces before it.
    void insert_spaces(size_t start, size_t count)
    {
        room_for(count + short_fill);
        char *from = bytes_.get() + start;
        if (size_ - start <= short_text && count <= short_fill) {
            char moved[short_text];
            std::memcpy(moved, from, short_text);
            std::memset(from, ' ', short_fill);
            std::memcpy(from + count, moved, short_text);
        } else {
            std::memmove(from + count, from, size_ - start);
            std::memset(from, ' ', count);
        }
        size_ += count;
    }

    // Removes the text behind `size`.
    void shorten(size_t size) { size_ = size; }

private:
    // Copies and fills of a constant size need no call. They reach behind the end of the text, into room that is there.
    static constexpr size_t short_fill = 32; // wider than most columns
    static constexpr size_t short_text = 16; // of a cell with a number

    void grow(size_t count);

    std::unique_ptr<char[]> bytes_;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

} // namespace l2fibctl
