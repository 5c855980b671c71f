// SPDX-License-Identifier: Apache-2.0

#include "daemon/log.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "base/mutex.h"
#include "base/visible.h"
#include "daemon/log_limit.h"
#include "host/never_destroyed.h"

namespace l2fibd {

namespace {

using clock = log_limit::clock;

// How long a thread waits for standard error when it has to: at the start and at the end of the process.
constexpr auto max_wait = std::chrono::seconds(1);

// Lines that wait for the reader. The longest line, a URI of 48 KiB made visible, fits.
constexpr size_t max_queued_bytes = size_t{256} * 1024;

constexpr std::string_view labels[log_level_count] = {"error: ", "warning: ", "", "debug: "};
constexpr std::string_view priorities[log_level_count] = {"<3>", "<4>", "<6>", "<7>"}; // of syslog

// ---- Lines and standard error ----

// The service manager names the stream that it connected to the journal. The variable stays if standard error is
// redirected later, so the name is compared.
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

// The time-out for poll(): -1 for no end.
int milliseconds_left(clock::time_point until)
{
    if (until == clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now());
    return static_cast<int>(std::max<int64_t>(0, left.count()));
}

// Waits until standard error takes at least a byte; a pipe then takes at least PIPE_BUF. False at the time-out.
bool wait_writable(clock::time_point until)
{
    pollfd error{STDERR_FILENO, POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&error, 1, milliseconds_left(until));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

// Writes a line in pieces that a writable pipe takes at once. So the write does not block, and standard error keeps its
// mode: other programs may share it. False if a part of the line could not be written.
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

// ---- The queue and its writer thread ----

class log_queue {
public:
    void start() L2FIB_EXCLUDES(lock_);
    void stop() L2FIB_EXCLUDES(lock_);

    // False if there is no writer thread.
    bool enqueue(const log_line &line) L2FIB_EXCLUDES(lock_);

    // For a caller that found no writer thread. If a line waits for the whole time, the lines after it do not wait: all
    // lines together delay the start by at most a second.
    void write_directly(const log_line &line) L2FIB_EXCLUDES(lock_);

    void report_held_back() L2FIB_EXCLUDES(lock_);
    void count_lost() noexcept L2FIB_EXCLUDES(lock_);
    uint64_t dropped() L2FIB_EXCLUDES(lock_);

    std::atomic<log_level> threshold = log_level::info;

private:
    void run_writer() L2FIB_EXCLUDES(lock_);
    void append(std::string &&line) L2FIB_REQUIRES(lock_);
    void append_reports(bool all) L2FIB_REQUIRES(lock_);
    void write_first() L2FIB_REQUIRES(lock_); // without the lock while it writes
    void wait_for_work() L2FIB_REQUIRES(lock_);

    base::mutex lock_;
    std::condition_variable_any changed_;
    std::condition_variable_any ended_;
    log_limit limit_ L2FIB_GUARDED_BY(lock_);
    std::deque<std::string> lines_ L2FIB_GUARDED_BY(lock_);
    size_t queued_bytes_ L2FIB_GUARDED_BY(lock_) = 0; // with the line that is being written
    bool is_stopping_ L2FIB_GUARDED_BY(lock_) = false;
    bool has_ended_ L2FIB_GUARDED_BY(lock_) = false;
    bool is_stalled_ L2FIB_GUARDED_BY(lock_) = false; // write_directly found no room within the time
    std::thread writer_ L2FIB_GUARDED_BY(lock_);      // joinable from start to stop
};

// Never destroyed: a writer thread that hangs in a write uses the queue until the process ends.
host::never_destroyed<log_queue> kept_queue;
log_queue &queue = kept_queue.object;

void log_queue::start()
{
    const base::scoped_lock hold(lock_);
    is_stopping_ = has_ended_ = false;
    writer_ = std::thread([this] { run_writer(); });
}

void log_queue::stop()
{
    lock_.lock();
    std::thread writer = std::move(writer_);
    is_stopping_ = true;
    changed_.notify_one();
    const auto until = clock::now() + max_wait;
    while (writer.joinable() && !has_ended_ && clock::now() < until) {
        ended_.wait_until(lock_, until);
    }
    const bool has_ended = has_ended_;
    lock_.unlock();
    if (!writer.joinable()) {
        return;
    }
    if (has_ended) {
        writer.join();
    } else {
        writer.detach();
    }
}

void log_queue::append(std::string &&line)
{
    lines_.push_back(std::move(line));
    queued_bytes_ += lines_.back().size();
}

void log_queue::append_reports(bool all)
{
    try {
        for (const log_line &line : limit_.take_reports(clock::now(), all)) {
            append(formatted(line));
        }
    } catch (const std::bad_alloc &) {
        limit_.drop(clock::now());
    }
}

void log_queue::write_first()
{
    const std::string line = std::move(lines_.front());
    lines_.pop_front();
    lock_.unlock();
    const bool is_written = write_out(line, clock::time_point::max());
    lock_.lock();
    queued_bytes_ -= line.size();
    if (!is_written) {
        limit_.drop(clock::now());
    }
}

void log_queue::wait_for_work()
{
    if (const auto due = limit_.next_report()) {
        changed_.wait_until(lock_, *due);
    } else {
        changed_.wait(lock_);
    }
}

void log_queue::run_writer()
{
    const base::scoped_lock hold(lock_);
    while (!is_stopping_) {
        append_reports(false);
        if (lines_.empty()) {
            wait_for_work();
        } else {
            write_first();
        }
    }
    append_reports(true);
    while (!lines_.empty()) {
        write_first();
    }
    has_ended_ = true;
    ended_.notify_one();
}

bool log_queue::enqueue(const log_line &line)
{
    std::string whole = formatted(line);
    const auto now = clock::now();
    const base::scoped_lock hold(lock_);
    if (!writer_.joinable()) {
        return false;
    }
    if (limit_.judge(line, now) == log_limit::verdict::write) {
        if (queued_bytes_ + whole.size() > max_queued_bytes) {
            limit_.drop(now);
        } else {
            append(std::move(whole));
        }
    }
    changed_.notify_one();
    return true;
}

void log_queue::write_directly(const log_line &line)
{
    const std::string whole = formatted(line);
    lock_.lock();
    const auto until = clock::now() + (is_stalled_ ? clock::duration() : max_wait);
    lock_.unlock();
    const bool is_written = write_out(whole, until);
    const base::scoped_lock hold(lock_);
    is_stalled_ = !is_written;
    if (!is_written) {
        limit_.drop(clock::now());
    }
}

void log_queue::report_held_back()
{
    const base::scoped_lock hold(lock_);
    if (writer_.joinable()) {
        append_reports(true);
        changed_.notify_one();
    }
}

void log_queue::count_lost() noexcept
{
    const base::scoped_lock hold(lock_);
    limit_.drop(clock::now());
}

uint64_t log_queue::dropped()
{
    const base::scoped_lock hold(lock_);
    return limit_.dropped();
}

} // namespace

void log_threshold(log_level finest)
{
    queue.threshold = finest;
}

void log_start()
{
    queue.start();
}

void log_stop()
{
    queue.stop();
}

void log(log_level level, std::string_view line) noexcept
{
    if (level > queue.threshold) {
        return;
    }
    try {
        const log_line shown{level, base::visible(line)};
        if (!queue.enqueue(shown)) {
            queue.write_directly(shown);
        }
    } catch (const std::bad_alloc &) {
        queue.count_lost();
    }
}

void log_report_held_back()
{
    queue.report_held_back();
}

uint64_t log_lines_dropped()
{
    return queue.dropped();
}

} // namespace l2fibd
