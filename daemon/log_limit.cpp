// SPDX-License-Identifier: Apache-2.0

#include "daemon/log_limit.h"

#include <algorithm>
#include <utility>

namespace l2fibd {

log_limit::verdict log_limit::judge(const log_line &line, time now)
{
    close_windows(now, false);
    const auto known = std::ranges::find_if(
        recent_, [&](const remembered &each) { return each.line.level == line.level && each.line.text == line.text; });
    if (known != recent_.end()) {
        known->repeats++;
        return verdict::repeated;
    }
    if (!spend(line.level, now)) {
        drop(now);
        return verdict::dropped;
    }
    if (recent_.size() == lines_remembered) {
        report_repeats(recent_.front());
        recent_.pop_front();
    }
    recent_.push_back({line, now + repeat_window, 0});
    return verdict::write;
}

void log_limit::drop(time now)
{
    if (dropped_unreported_ == 0) {
        report_drops_at_ = now + drop_window;
    }
    dropped_++;
    dropped_unreported_++;
}

std::vector<log_line> log_limit::take_reports(time now, bool all)
{
    close_windows(now, all);
    if (dropped_unreported_ != 0 && (all || report_drops_at_ <= now)) {
        reports_.push_back({log_level::warning, "log lines dropped: " + std::to_string(dropped_unreported_)
                                                    + "; standard error was read too slowly, or a level had more than "
                                                    + std::to_string(lines_per_second) + " lines a second"});
        dropped_unreported_ = 0;
    }
    return std::exchange(reports_, {});
}

std::optional<log_limit::time> log_limit::next_report() const
{
    std::optional<time> next;
    const auto consider = [&next](time due) { next = next ? std::min(*next, due) : due; };
    if (!reports_.empty()) {
        consider(time{}); // at once
    }
    if (dropped_unreported_ != 0) {
        consider(report_drops_at_);
    }
    for (const remembered &each : recent_) {
        if (each.repeats != 0) {
            consider(each.until);
        }
    }
    return next;
}

// Takes one line from the level's budget. The budget grows by lines_per_second, up to burst_lines.
bool log_limit::spend(log_level level, time now)
{
    budget &of = budgets_[static_cast<size_t>(level)];
    const std::chrono::duration<double> passed = now - std::exchange(of.counted, now);
    of.lines = std::min(burst_lines, of.lines + passed.count() * double{lines_per_second});
    if (of.lines < 1) {
        return false;
    }
    of.lines -= 1;
    return true;
}

void log_limit::report_repeats(const remembered &of)
{
    if (of.repeats != 0) {
        reports_.push_back({of.line.level, "repeated " + std::to_string(of.repeats) + " times: " + of.line.text});
    }
}

// Ends the windows that are over. A line that was repeated gets a new window, so that a flood makes one report for each
// window. A line that was not repeated is forgotten.
void log_limit::close_windows(time now, bool all)
{
    for (remembered &each : recent_) {
        if (all || each.until <= now) {
            report_repeats(each);
            each.until = each.repeats != 0 ? now + repeat_window : time::min();
            each.repeats = 0;
        }
    }
    std::erase_if(recent_, [](const remembered &each) { return each.until == time::min(); });
}

} // namespace l2fibd
