// SPDX-License-Identifier: Apache-2.0

// The daemon's log: lines on standard error, where the service manager collects them. Control characters and invalid
// UTF-8 are made visible, so that no text breaks a line or disturbs a terminal.
//
//      log_start();
//      log(log_level::warning, "connection refused: ...");         l2fibd: warning: connection refused: ...
//      log_stop();
//
// A thread that logs never waits for the reader of standard error. log() puts the line into a bounded queue, and one
// writer thread writes it. A line is dropped and counted if the queue is full, if it exceeds the limits of log_limit.h,
// or if it cannot be written. Before log_start and after log_stop, log() writes the line itself and waits at most a
// second for room.
//
// If standard error is the system journal, a line begins with its priority, such as "<4>". The journal adds the
// program's name.
//
// A process has one log, because it has one standard error. The log therefore needs no object that callers pass along.
//
// Threads: any thread may call log, log_report_held_back and log_lines_dropped. Each line is written as one piece. The
// main thread calls the other functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace l2fibd {

enum class log_level : uint8_t { error, warning, info, debug };
inline constexpr size_t log_level_count = 4;

// Skips lines of a finer level from now on, without counting them.
void log_threshold(log_level finest);

// Starts the writer thread, which inherits the caller's signal mask and capabilities. Throws std::system_error if the
// system refuses a thread.
void log_start();

// Writes the queued lines, for at most a second, and ends the writer thread. If a write hangs, the thread is left
// behind and ends with the process. Does nothing if no thread was started.
void log_stop();

void log(log_level level, std::string_view line) noexcept;

// Queues one line for each count of repeated or dropped lines that was not yet reported. The next line that the caller
// logs then stands after them.
void log_report_held_back();

// The number of lines that were dropped since the process began.
uint64_t log_lines_dropped();

} // namespace l2fibd
