// SPDX-License-Identifier: Apache-2.0

#include "cli/live/screen.h"

#include <algorithm>

#include "base/text.h"

namespace l2fibctl {

namespace {

constexpr std::string_view end_of_colours = "\x1b[0m";
constexpr std::string_view to_top = "\x1b[H";
constexpr std::string_view erase_to_end_of_line = "\x1b[K";
constexpr std::string_view erase_below = "\x1b[J";

// Returns the length of the sequence "\x1b[...m" at the start of the text, or 0 if there is none.
size_t colour_length(std::string_view text)
{
    if (!text.starts_with("\x1b[")) {
        return 0;
    }
    const size_t end = text.find('m');
    return end == std::string_view::npos ? 0 : end + 1;
}

} // namespace

void line_window::add(std::string_view text)
{
    while (!text.empty()) {
        const size_t end = text.find('\n');
        if (!is_in_line_) {
            count_++;
            if (lines_.size() < max_lines_) {
                lines_.emplace_back();
            }
        }
        if (count_ <= max_lines_) {
            lines_.back().append(text.substr(0, end));
        }
        is_in_line_ = end == std::string_view::npos;
        text.remove_prefix(is_in_line_ ? text.size() : end + 1);
    }
}

std::vector<std::string> fit_lines(const line_window &window, size_t height)
{
    std::vector<std::string> shown = window.lines();
    if (window.count() <= height) {
        return shown;
    }
    shown.resize(std::min(shown.size(), height - 1));
    const uint64_t hidden = window.count() - shown.size();
    shown.push_back("(" + std::to_string(hidden) + (hidden == 1 ? " row is" : " rows are") + " not shown)");
    return shown;
}

std::string cut_line(std::string_view line, size_t width)
{
    std::string kept;
    bool has_colours = false;
    for (size_t used = 0; !line.empty();) {
        const size_t colour = colour_length(line);
        if (colour == 0 && used++ == width) {
            break;
        }
        const size_t length = colour > 0 ? colour : std::max<size_t>(base::utf8_length(line), 1);
        has_colours = has_colours || colour > 0;
        kept.append(line.substr(0, length));
        line.remove_prefix(length);
    }
    return has_colours ? kept.append(end_of_colours) : kept;
}

std::string frame_of(const std::vector<std::string> &lines, screen_size size)
{
    std::string frame(to_top);
    const size_t count = std::min(lines.size(), size.rows);
    for (size_t i = 0; i < count; i++) {
        frame.append(i == 0 ? "" : "\r\n").append(cut_line(lines[i], size.columns)).append(erase_to_end_of_line);
    }
    return frame.append(count < size.rows ? erase_below : "");
}

} // namespace l2fibctl
