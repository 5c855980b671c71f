// SPDX-License-Identifier: Apache-2.0

#include "cli/progress.h"

#include <cstdio>
#include <unistd.h>

namespace l2fibctl {

namespace {

constexpr auto quiet_time = std::chrono::seconds(1); // before the progress line appears
constexpr auto redraw_time = std::chrono::milliseconds(250);
constexpr char erase_line[] = "\r\033[K";

} // namespace

progress::progress()
    : enabled_(isatty(STDERR_FILENO) == 1)
{}

void progress::tick()
{
    if (task_) {
        task_();
    }
    const auto now = clock::now();
    if (!enabled_ || now - start_ < quiet_time || now - last_ < redraw_time) {
        return;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
    const std::string text = text_.empty() ? std::to_string(items_) + " items" : text_;
    std::fprintf(stderr, "%s%s, %lld s", erase_line, text.c_str(), static_cast<long long>(seconds));
    drawn_ = true;
    last_ = now;
}

void progress::stop()
{
    if (drawn_) {
        std::fputs(erase_line, stderr);
    }
    drawn_ = false;
    enabled_ = false;
}

} // namespace l2fibctl
