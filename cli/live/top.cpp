// SPDX-License-Identifier: Apache-2.0

#include "cli/live/top.h"

#include <algorithm>
#include <cerrno>
#include <thread>

#include "base/text.h"
#include "base/visible.h"
#include "cli/ending.h"
#include "cli/live/full_screen.h"
#include "cli/live/signals.h"
#include "cli/output/output.h"
#include "cli/output/printer.h"
#include "cli/output/terminal.h"
#include "cli/query/places.h"
#include "cli/query/plans.h"

namespace l2fibctl {

namespace {

using clock = std::chrono::steady_clock;

constexpr auto key_wait = std::chrono::milliseconds(100); // also the time until a change of the screen's size is seen
constexpr size_t head_lines = 3;                          // two of the state, and the titles
constexpr size_t foot_lines = 1;

struct sampler {
    query_session &session;
    const top_settings &settings;
    top_sample rows = {};
    clock::time_point taken = {};

    // Replaces the rows. Throws a failure and keeps them if the daemon does not answer.
    void take()
    {
        session.worst = {};
        top_sample now;
        for_each_page(session, settings.list, no_limit, [&](const page &current) {
            for (const json_value item : current.items) {
                now.push_back(row_of(item));
            }
            return true;
        });
        const auto time = clock::now();
        if (!settings.has_places) {
            add_rates(now, rows, std::chrono::duration<double>(time - taken).count());
        }
        rows = std::move(now);
        taken = time;
    }
};

std::string now_text()
{
    using std::chrono::system_clock;
    return base::utc_text(system_clock::to_time_t(system_clock::now()));
}

void print_row(item_printer &printer, const top_row &row, bool adds_places)
{
    json_document document;
    const std::string item = adds_places ? with_places(document.parse(row.item)) : item_with_rate(row);
    printer.item(document.parse(item));
}

// ---- The screen ----

class top_screen {
public:
    top_screen(query_session &session, const top_settings &settings)
        : settings_(settings)
        , samples_{session, settings}
        , state_(settings.start)
        , out_(session.progress_line, false, "")
    {
        session.progress_line.stop();
        session.progress_line.at_each_tick([this] {
            stop_signals::check();
            if (terminal_) {
                take_keys(std::chrono::milliseconds(0));
            }
        });
    }

    ~top_screen() { samples_.session.progress_line.at_each_tick({}); }
    top_screen(const top_screen &) = delete;
    top_screen &operator=(const top_screen &) = delete;

    void run()
    {
        samples_.take(); // fails before the screen is taken
        terminal_.emplace();
        paint();
        auto due = clock::now() + settings_.interval;
        while (!state_.has_ended) {
            take_keys(std::min(key_wait, std::chrono::ceil<std::chrono::milliseconds>(due - clock::now())));
            if (clock::now() >= due) {
                take_sample();
                due = std::max(due + settings_.interval, clock::now());
            }
        }
    }

private:
    size_t page() const { return size_.rows - std::min(size_.rows, head_lines + foot_lines); }

    void take_sample()
    {
        try {
            samples_.take();
            problem_.clear();
        } catch (const output_failure &) {
            throw;
        } catch (const failure &error) {
            samples_.session.daemon.close();
            problem_ = error.what();
            std::ranges::replace(problem_, '\n', ' ');
        }
        paint();
    }

    // Runs also while a sample waits for the daemon, so that the keys always work.
    void take_keys(std::chrono::milliseconds max_wait)
    {
        stop_signals::check();
        const std::vector<key> keys = terminal_->read_keys(std::max(max_wait, std::chrono::milliseconds(0)));
        for (const key &pressed : keys) {
            take_key(pressed);
        }
        if (state_.has_ended) {
            throw stopped();
        }
        if (!keys.empty() || size_of_terminal() != size_) {
            paint();
        }
    }

    void take_key(const key &pressed)
    {
        if (pressed.kind == key_kind::suspend) {
            terminal_->suspend();
        } else {
            apply(state_, pressed, pick_rows(samples_.rows, state_).size(), page());
        }
    }

    void paint()
    {
        size_ = size_of_terminal();
        const auto picked = pick_rows(samples_.rows, state_);
        clamp_offset(state_, picked.size(), page());
        std::vector<std::string> lines = head(picked.size());
        line_window body(page() + 1);
        print_body(picked, body);
        lines.insert(lines.end(), body.lines().begin(), body.lines().end());
        lines.resize(std::max(lines.size(), size_.rows - std::min(size_.rows, foot_lines)));
        lines.push_back(foot());
        out_.pending().put(frame_of(lines, size_));
        out_.flush();
    }

    void print_body(const std::vector<const top_row *> &picked, line_window &body)
    {
        progress silent;
        output out(silent, false, "", [&body](std::string_view text) { body.add(text); });
        item_printer printer(form::text, settings_.shown, look_of(samples_.session.options), out);
        const size_t end = std::min(picked.size(), state_.offset + page());
        for (size_t i = state_.offset; i < end; i++) {
            print_row(printer, *picked[i], settings_.has_places);
        }
        printer.end();
    }

    std::vector<std::string> head(size_t picked) const
    {
        return {"top " + settings_.title + "  " + now_text() + "  every " + std::to_string(settings_.interval.count())
                    + " s  by " + word_of(state_.order) + "  rows " + place_of(picked),
                state_line()};
    }

    // The most important of what there is to say.
    std::string state_line() const
    {
        const completeness_mark &worst = samples_.session.worst;
        if (!problem_.empty()) {
            return problem_;
        }
        if (worst.state != completeness::whole) {
            return worst.text();
        }
        return sums() + (state_.filter.empty() ? "" : "; filter: " + base::visible(state_.filter));
    }

    // "1-20 of 57"
    std::string place_of(size_t picked) const
    {
        const size_t end = std::min(picked, state_.offset + page());
        return std::to_string(std::min(state_.offset + 1, end)) + "-" + std::to_string(end) + " of "
               + std::to_string(picked);
    }

    std::string sums() const
    {
        uint64_t entries = 0;
        double rate = 0;
        for (const top_row &row : samples_.rows) {
            entries += row.entries;
            rate += row.rate.value_or(0);
        }
        const std::string rate_text = one_decimal(rate);
        return state_.has_entries ? std::to_string(entries) + " entries, " + rate_text + " changes a second"
                                  : rate_text + " moves a minute";
    }

    std::string foot() const
    {
        return state_.is_typing ? "/" + base::visible(state_.filter) + "_   Enter keeps the filter, Escape removes it"
                                : "q quit   s next order   / filter   arrows, PageUp, PageDown scroll";
    }

    const top_settings &settings_;
    sampler samples_;
    top_state state_;
    output out_;
    std::optional<full_screen> terminal_;
    screen_size size_;
    std::string problem_;
};

} // namespace

void run_top(query_session &session, const top_settings &settings)
{
    const stop_signals signals;
    try {
        top_screen(session, settings).run();
    } catch (const stopped &) {
        return; // the operator ended it
    }
}

void print_top_once(query_session &session, const top_settings &settings)
{
    sampler samples = {session, settings};
    samples.take();
    if (!settings.has_places) {
        std::this_thread::sleep_for(settings.interval);
        samples.take();
    }
    const client_options &options = session.options;
    output out(session.progress_line, options.strict, pager_command(options.no_pager));
    item_printer printer(options.shown_as, settings.shown, look_of(options), out);
    const auto picked = pick_rows(samples.rows, settings.start);
    for (size_t i = 0; i < std::min<uint64_t>(picked.size(), options.limit); i++) {
        print_row(printer, *picked[i], settings.has_places && options.shown_as == form::text);
    }
    printer.end();
    const base::result found =
        picked.empty() ? base::failure(ENOENT, "nothing found: no item matches") : base::success();
    end_answer(session, out, found);
}

} // namespace l2fibctl
