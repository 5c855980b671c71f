// SPDX-License-Identifier: Apache-2.0

#include "cli/output/columns.h"

#include <algorithm>

#include "base/text.h"
#include "base/visible.h"
#include "cli/failure.h"
#include "cli/output/terminal.h"

namespace l2fibctl {

namespace {

constexpr std::string_view ellipsis = "\u2026";
constexpr size_t min_cut_width = 3; // a character on each side of the ellipsis

unsigned width_of(const column &shown, bool is_wide)
{
    const column_kind &kind = *shown.kind;
    return is_wide && kind.wide_width != 0 ? kind.wide_width : kind.width;
}

[[noreturn]] void fail_unknown_column(const resource &printed, const std::string &name)
{
    std::string names;
    for (const column &one : printed.columns) {
        names.append(names.empty() ? "" : ", ").append(one.member);
    }
    throw failure(exit_status::wrong_usage,
                  "--columns: \"" + base::visible(name) + "\": expected names among " + names);
}

// The place in the text behind its first `count` characters.
size_t bytes_of(std::string_view text, size_t count)
{
    size_t end = 0;
    while (count > 0 && end < text.size()) {
        end += std::max<size_t>(1, base::utf8_length(text.substr(end)));
        count--;
    }
    return end;
}

} // namespace

look look_of(const client_options &options)
{
    return {options.columns, options.wide, !options.no_header, wants_colors(options.color),
            is_on_terminal() && !options.wide};
}

selection select_columns(const resource &printed, form shown_as, const look &wanted)
{
    selection made;
    for (const std::string &name : wanted.columns) {
        const auto found = std::ranges::find(printed.columns, name, &column::member);
        if (found == printed.columns.end()) {
            fail_unknown_column(printed, name);
        }
        if (std::ranges::find(made, &*found, &shown_column::shown) != made.end()) {
            // A JSON object with one name twice loses a value in most readers.
            throw failure(exit_status::wrong_usage, "--columns: \"" + name + "\": expected once, given more than once");
        }
        made.push_back({&*found, static_cast<size_t>(found - printed.columns.begin()), width_of(*found, false)});
    }
    const bool takes_all = wanted.is_wide || shown_as != form::text;
    for (size_t i = 0; i < printed.columns.size() && wanted.columns.empty(); i++) {
        const column &one = printed.columns[i];
        if (takes_all || one.is_usual) {
            made.push_back({&one, i, width_of(one, wanted.is_wide)});
        }
    }
    return made;
}

size_t cut_middle(text_buffer &to, size_t start, size_t width, size_t max_width)
{
    if (width <= max_width || max_width < min_cut_width) {
        return width;
    }
    const std::string whole(to.text_from(start));
    const size_t head = max_width / 2;
    const size_t tail = max_width - head - 1;
    to.shorten(start + bytes_of(whole, head));
    to.put(ellipsis);
    to.put(std::string_view(whole).substr(bytes_of(whole, width - tail)));
    return max_width;
}

} // namespace l2fibctl
