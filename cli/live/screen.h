// SPDX-License-Identifier: Apache-2.0

// Lines of text for a screen of a given size, and the characters that paint them. Nothing here needs a terminal.
//
//      line_window window(first, count);       collects the lines of a long text that are on the screen
//      window.add("a\nb\n");
//      frame_of({"title", ...}, {.rows = 24, .columns = 80})
//
// A line may have colours, as sequences "\x1b[...m". All other characters are visible ones (base/visible.h).
//
// Threads: plain values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace l2fibctl {

struct screen_size {
    size_t rows = 24;
    size_t columns = 80;

    bool operator==(const screen_size &) const = default;
};

// Keeps some lines of a text and counts the others, so that a table of any length takes the memory of one screen.
class line_window {
public:
    explicit line_window(size_t max_lines)
        : max_lines_(max_lines)
    {}

    // Adds text, which may end within a line.
    void add(std::string_view text);

    const std::vector<std::string> &lines() const { return lines_; }

    // The number of all lines, those that are not kept included. A last line without '\n' counts.
    uint64_t count() const { return count_; }

private:
    size_t max_lines_;
    uint64_t count_ = 0;
    bool is_in_line_ = false;
    std::vector<std::string> lines_;
};

// Returns the lines for a screen of this height: all, or as many as fit and a last one that says how many rows are not
// shown. `height` is at least 1.
std::vector<std::string> fit_lines(const line_window &window, size_t height);

// Cuts the line to this number of characters. If it has colours, the result ends with the sequence that ends them.
std::string cut_line(std::string_view line, size_t width);

// The characters that paint the lines from the top left corner over what is there. Lines beyond the screen are left
// out. The cursor ends behind the last line.
std::string frame_of(const std::vector<std::string> &lines, screen_size size);

} // namespace l2fibctl
