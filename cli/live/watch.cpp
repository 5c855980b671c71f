// SPDX-License-Identifier: Apache-2.0

#include "cli/live/watch.h"

#include <algorithm>
#include <string>
#include <vector>

#include "base/text.h"
#include "cli/failure.h"
#include "cli/live/full_screen.h"
#include "cli/live/screen.h"
#include "cli/live/signals.h"
#include "cli/output/terminal.h"

namespace l2fibctl {

namespace {

using clock = std::chrono::steady_clock;

constexpr std::string_view clear_screen = "\x1b[H\x1b[2J";

struct round_result {
    exit_status status = exit_status::done;
    std::string message = {};
};

round_result run_round(const client_options &options, const round_task &round, const text_sink &sink)
{
    query_session session{options};
    session.progress_line.at_each_tick(stop_signals::check);
    if (sink) {
        session.progress_line.stop();
    }
    try {
        round(session, sink);
    } catch (const output_failure &) {
        throw;
    } catch (const failure &error) {
        return {error.status, error.what()};
    }
    return {};
}

void write_text(std::string_view text)
{
    progress silent;
    silent.at_each_tick(stop_signals::check);
    output out(silent, false, "");
    out.pending().put(text);
    out.flush();
}

round_result paint_round(const client_options &options, const round_task &round, const std::string &title)
{
    const screen_size size = size_of_terminal();
    line_window window(size.rows);
    round_result result = run_round(options, round, [&window](std::string_view text) { window.add(text); });
    std::vector<std::string> lines = {title};
    line_window message(size.rows);
    message.add(result.message);
    lines.insert(lines.end(), message.lines().begin(), message.lines().end());
    const size_t left = size.rows > lines.size() ? size.rows - lines.size() : 1;
    const std::vector<std::string> body = fit_lines(window, left);
    lines.insert(lines.end(), body.begin(), body.end());
    write_text(frame_of(lines, size_of_terminal()));
    return result;
}

round_result print_round(const client_options &options, const round_task &round, const std::string &title)
{
    write_text(title + "\n");
    round_result result = run_round(options, round, {});
    print_message(result.message);
    return result;
}

// The line before a round's output. `is_painted` says that it begins a screen.
std::string title_of(const client_options &options, std::chrono::seconds interval, bool is_painted, bool is_first)
{
    const std::string time = base::utc_text(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    if (is_painted) {
        return time + "  every " + std::to_string(interval.count()) + " s";
    }
    const bool is_text = options.shown_as == form::text;
    return is_text ? (is_first ? "" : "\n") + time : R"({"time":")" + time + "\"}";
}

void run_rounds(const client_options &options, std::chrono::seconds interval, const round_task &round,
                round_result &last)
{
    const bool is_painted = is_on_terminal() && options.shown_as == form::text;
    const auto run = is_painted ? paint_round : print_round;
    write_text(is_painted ? clear_screen : "");
    for (bool is_first = true;; is_first = false) {
        const auto begun = clock::now();
        last = run(options, round, title_of(options, interval, is_painted, is_first));
        if (is_first && last.status == exit_status::unreachable) {
            return;
        }
        stop_signals::pause(std::chrono::ceil<std::chrono::milliseconds>(begun + interval - clock::now()));
    }
}

} // namespace

void watch(const client_options &options, std::chrono::seconds interval, const round_task &round)
{
    const stop_signals signals;
    round_result last = {exit_status::cut}; // unless a round becomes whole
    try {
        run_rounds(options, interval, round, last);
    } catch (const stopped &) {
        write_text(is_on_terminal() ? "\n" : ""); // the shell's prompt goes below the last round
    }
    if (last.status != exit_status::done) {
        throw failure(last.status, "");
    }
}

} // namespace l2fibctl
