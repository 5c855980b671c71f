// SPDX-License-Identifier: Apache-2.0

#include "daemon/log.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "base/visible.h"
#include "daemon/log_limit.h"
#include "host/never_destroyed.h"

namespace l2fibd {

namespace {

using clock = log_limit::clock;

constexpr auto patience = std::chrono::seconds(1);       // with standard error, when a thread has to wait for it
constexpr size_t most_queued_bytes = size_t{256} * 1024; // the longest line, a URI of 48 KiB made visible, fits

constexpr std::string_view labels[log_level_count] = {"error: ", "warning: ", "", "debug: "};
constexpr std::string_view priorities[log_level_count] = {"<3>", "<4>", "<6>", "<7>"};

log_level threshold = log_level::info;

struct log_state {
    std::mutex lock; // protects what follows
    std::condition_variable changed;
    std::condition_variable ended;
    log_limit limit;
    std::deque<std::string> queue;
    size_t queued_bytes = 0; // the line that is being written included
    bool is_stopping = false;
    bool has_ended = false;
    bool is_stalled = false; // the last line that was written without the writer found no room in time
    std::thread writer;      // joinable from log_start to log_stop
};

// A writer that hangs in a write uses it while the process ends.
host::never_destroyed<log_state> kept_state;
log_state &state = kept_state.object;

// ---- Writing ----

// The service manager names the stream that it connected to the journal. A later redirection leaves the variable.
bool is_journal()
{
    const char *stream = std::getenv("JOURNAL_STREAM"); // NOLINT(concurrency-mt-unsafe)
    struct stat found {};
    return stream != nullptr && fstat(STDERR_FILENO, &found) == 0
           && stream == std::to_string(found.st_dev) + ":" + std::to_string(found.st_ino);
}

std::string formatted(const log_line &line)
{
    static const bool to_journal = is_journal();
    const auto level = static_cast<size_t>(line.level);
    std::string whole = to_journal ? std::string(priorities[level]) : "l2fibd: " + std::string(labels[level]);
    return whole.append(line.text).append("\n");
}

// In the form of poll().
int milliseconds_left(clock::time_point until)
{
    if (until == clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now());
    return static_cast<int>(std::max<int64_t>(0, left.count()));
}

// Waits until standard error takes something, a pipe at least PIPE_BUF bytes. False if it does not in time.
bool wait_writable(clock::time_point until)
{
    pollfd error{STDERR_FILENO, POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&error, 1, milliseconds_left(until));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

// Other programs may share standard error, so it stays blocking if it is: each piece is what a pipe that polls as
// writable takes at once. False if some of the line could not be written.
bool write_out(std::string_view text, clock::time_point until)
{
    while (!text.empty()) {
        if (!wait_writable(until)) {
            return false;
        }
        const ssize_t written = write(STDERR_FILENO, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (written < 0 && errno != EINTR && errno != EAGAIN) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(0, written)));
    }
    return true;
}

// ---- The writer thread ----

void append(std::string &&line)
{
    state.queue.push_back(std::move(line));
    state.queued_bytes += state.queue.back().size();
}

void append_reports(bool all)
{
    try {
        for (const log_line &line : state.limit.take_reports(clock::now(), all)) {
            append(formatted(line));
        }
    } catch (const std::bad_alloc &) {
        state.limit.drop(clock::now());
    }
}

void write_first(std::unique_lock<std::mutex> &guard)
{
    const std::string line = std::move(state.queue.front());
    state.queue.pop_front();
    guard.unlock();
    const bool is_written = write_out(line, clock::time_point::max());
    guard.lock();
    state.queued_bytes -= line.size();
    if (!is_written) {
        state.limit.drop(clock::now());
    }
}

void wait_for_work(std::unique_lock<std::mutex> &guard)
{
    if (const auto due = state.limit.next_report()) {
        state.changed.wait_until(guard, *due);
    } else {
        state.changed.wait(guard);
    }
}

void run_writer()
{
    std::unique_lock guard(state.lock);
    while (!state.is_stopping) {
        append_reports(false);
        if (state.queue.empty()) {
            wait_for_work(guard);
        } else {
            write_first(guard);
        }
    }
    append_reports(true);
    while (!state.queue.empty()) {
        write_first(guard);
    }
    state.has_ended = true;
    state.ended.notify_one();
}

// ---- Lines as they come ----

// False if there is no writer.
bool enqueue(const log_line &line)
{
    std::string whole = formatted(line);
    const auto now = clock::now();
    const std::lock_guard guard(state.lock);
    if (!state.writer.joinable()) {
        return false;
    }
    if (state.limit.judge(line, now) == log_limit::verdict::write) {
        if (state.queued_bytes + whole.size() > most_queued_bytes) {
            state.limit.drop(now);
        } else {
            append(std::move(whole));
        }
    }
    state.changed.notify_one();
    return true;
}

void count_lost() noexcept
{
    const std::lock_guard guard(state.lock);
    state.limit.drop(clock::now());
}

// Lines after one that waited too long wait no more, so that all of them together hold the start up for a second.
void write_directly(const log_line &line)
{
    std::unique_lock guard(state.lock);
    const auto until = clock::now() + (state.is_stalled ? clock::duration() : patience);
    guard.unlock();
    const bool is_written = write_out(formatted(line), until);
    guard.lock();
    state.is_stalled = !is_written;
    if (!is_written) {
        state.limit.drop(clock::now());
    }
}

} // namespace

void log_threshold(log_level finest)
{
    threshold = finest;
}

void log_start()
{
    const std::lock_guard guard(state.lock);
    state.is_stopping = state.has_ended = false;
    state.writer = std::thread(run_writer);
}

void log_stop()
{
    std::unique_lock guard(state.lock);
    if (!state.writer.joinable()) {
        return;
    }
    std::thread writer = std::move(state.writer);
    state.is_stopping = true;
    state.changed.notify_one();
    const bool has_ended = state.ended.wait_for(guard, patience, [] { return state.has_ended; });
    guard.unlock();
    if (has_ended) {
        writer.join();
    } else {
        writer.detach();
    }
}

void log(log_level level, std::string_view line) noexcept
{
    if (level > threshold) {
        return;
    }
    try {
        const log_line shown{level, base::visible(line)};
        if (!enqueue(shown)) {
            write_directly(shown);
        }
    } catch (const std::bad_alloc &) {
        count_lost();
    }
}

void log_report_held_back()
{
    const std::lock_guard guard(state.lock);
    if (state.writer.joinable()) {
        append_reports(true);
        state.changed.notify_one();
    }
}

uint64_t log_lines_dropped()
{
    const std::lock_guard guard(state.lock);
    return state.limit.dropped();
}

} // namespace l2fibd
